// Part of the coverage build alone (LB_COVERAGE): the counts of executed lines, which libgcov
// writes when a process ends by exit(3), are written before a signal or _exit(2) ends it as well.
// What SIGKILL ends has lost them.
#include <unistd.h>

#include <csignal>

extern "C" {
#include <gcov.h>  // GCC's own, in C
}

// The linker takes these for the calls of their names (ld(1), --wrap).
extern "C" {
int __real_raise(int signal);
[[noreturn]] void __real__exit(int status);
int __wrap_raise(int signal);
[[noreturn]] void __wrap__exit(int status);
}

// The last step of the crash report, and in its tests the first one too.
int __wrap_raise(int signal) {
    __gcov_dump();
    __gcov_reset();  // or the next dump would write nothing
    return __real_raise(signal);
}

void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}

namespace {

void keep_counts_and_end(int signal) {
    __gcov_dump();
    __real_raise(signal);  // delivered with its default action when this returns
}

// Before main, so that a program that handles these signals itself still does.
[[gnu::constructor]] void keep_counts_at_signals() {
    struct sigaction action {};
    action.sa_handler = keep_counts_and_end;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

}  // namespace

/// Preloaded into the daemon under test, where that is built with the address sanitizer: looks for
/// leaks when SIGTERM comes, and then lets the signal do what it does. The daemon has no handler of
/// it and never leaves main(), so that the sanitizer would not look by itself.
///
/// The look is taken by a thread of its own, for a signal may come where the allocator's locks are
/// held. Children made by fork(2), which do not have that thread, get the signal's default action
/// back. Of no effect in a program without the sanitizer, as the shell commands of the daemon are.

#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace {

using Check = int (*)();

sem_t asked;
Check check_for_leaks = nullptr;

void ask(int /*signal*/) {
    sem_post(&asked);
}

void* wait_and_end(void* /*unused*/) {
    while (sem_wait(&asked) != 0 && errno == EINTR) {
    }
    check_for_leaks();
    signal(SIGTERM, SIG_DFL);
    kill(getpid(), SIGTERM);
    return nullptr;
}

void end_by_default() {
    signal(SIGTERM, SIG_DFL);
}

__attribute__((constructor)) void begin() {
    check_for_leaks =
        reinterpret_cast<Check>(dlsym(RTLD_DEFAULT, "__lsan_do_recoverable_leak_check"));
    if (check_for_leaks == nullptr) {
        return;
    }
    sem_init(&asked, 0, 0);
    pthread_atfork(nullptr, nullptr, end_by_default);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);  // signals go to the daemon's own threads, as ever
    pthread_t thread{};
    const bool is_made = pthread_create(&thread, nullptr, wait_and_end, nullptr) == 0;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (is_made) {
        signal(SIGTERM, ask);
    }
}

}  // namespace

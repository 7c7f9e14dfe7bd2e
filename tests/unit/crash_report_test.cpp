#include "host/crash_report.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>
#include <thread>

#include "unit/support/child_process.h"

// Functions that the stack must name: with linkage, never inlined, never left by a jump.
extern "C" {

int frames_below_the_end = 0;

__attribute__((noinline)) void step_on_the_signal(int signal) {
    raise(signal);
    ++frames_below_the_end;
}

__attribute__((noinline)) void touch_forbidden_memory(volatile char* memory) {
    *memory = 1;
    ++frames_below_the_end;
}

__attribute__((noinline)) int recurse_deeply(int levels, volatile char* above) {
    volatile char room[4096];
    room[0] = *above;
    return levels == 0 ? 0 : recurse_deeply(levels - 1, room) + room[0];
}
}

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

void install(const char* name = "the-program") {
    // A core file of each of these deaths would only fill the disk.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
    backtrace_set_program_name(name);
    backtrace_open_console();
    backtrace_install_signal_handlers();
}

bool died_of(const ChildEnd& end, int signal) {
    return WIFSIGNALED(end.status) && WTERMSIG(end.status) == signal;
}

std::string thread_of(const std::string& report) {
    const std::string before = " in thread ";
    const std::size_t at = report.find(before);
    return at == std::string::npos
               ? ""
               : report.substr(at + before.size(), report.find(" (", at) - at - before.size());
}

struct Death {
    int signal;
    const char* name;
};

class CrashReportOfSignal : public testing::TestWithParam<Death> {};

TEST_P(CrashReportOfSignal, names_program_signal_thread_and_function) {
    const ChildEnd end = run_in_child([] {
        install();
        std::thread crashing([] {
            pthread_setname_np(pthread_self(), "worker-blue");
            step_on_the_signal(GetParam().signal);
        });
        crashing.join();
    });

    const std::string first_line = end.standard_error.substr(0, end.standard_error.find('\n'));
    EXPECT_THAT(first_line, ContainsRegex(std::string("^the-program: died of ") + GetParam().name +
                                          " in thread [0-9]+ \\(worker-blue\\), stack:$"));
    EXPECT_THAT(end.standard_error, HasSubstr("(step_on_the_signal+0x"));
    EXPECT_TRUE(end.standard_error.ends_with("]\n")) << end.standard_error;
}

TEST_P(CrashReportOfSignal, default_action_of_the_signal_follows) {
    const ChildEnd end = run_in_child([] {
        install();
        step_on_the_signal(GetParam().signal);
    });
    EXPECT_TRUE(died_of(end, GetParam().signal)) << end.status << "\n" << end.standard_error;
}

INSTANTIATE_TEST_SUITE_P(EachSignal, CrashReportOfSignal,
                         testing::Values(Death{SIGSEGV, "SIGSEGV"}, Death{SIGBUS, "SIGBUS"},
                                         Death{SIGFPE, "SIGFPE"}, Death{SIGILL, "SIGILL"},
                                         Death{SIGABRT, "SIGABRT"}),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(CrashReport, fault_of_an_instruction_is_reported_where_it_happened) {
    const ChildEnd end = run_in_child([] {
        install();
        void* const page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        touch_forbidden_memory(static_cast<volatile char*>(page));
    });
    EXPECT_TRUE(died_of(end, SIGSEGV)) << end.status;
    EXPECT_THAT(end.standard_error, HasSubstr("(touch_forbidden_memory+0x"));
}

TEST(CrashReport, abort_dies_of_sigabrt) {
    const ChildEnd end = run_in_child([] {
        install();
        abort();
    });
    EXPECT_TRUE(died_of(end, SIGABRT)) << end.status;
    EXPECT_THAT(end.standard_error, HasSubstr("died of SIGABRT"));
}

TEST(CrashReport, stack_overflow_of_the_main_thread_is_reported) {
    const ChildEnd end = run_in_child([] {
        install();
        volatile char start = 0;
        recurse_deeply(1'000'000, &start);
    });
    EXPECT_TRUE(died_of(end, SIGSEGV)) << end.status;
    EXPECT_THAT(end.standard_error, HasSubstr("died of SIGSEGV"));
    EXPECT_THAT(end.standard_error, HasSubstr("(recurse_deeply+0x"));
}

TEST(CrashReport, threads_that_crash_at_once_give_one_whole_report) {
    const ChildEnd end = run_in_child([] {
        install();
        std::atomic<int> ready{0};
        const auto crash_together = [&ready] {
            ++ready;
            while (ready < 2) {
            }
            step_on_the_signal(SIGSEGV);
        };
        std::thread other(crash_together);
        crash_together();
        other.join();
    });

    EXPECT_TRUE(died_of(end, SIGSEGV)) << end.status;
    const std::string& report = end.standard_error;
    EXPECT_NE(report.find("died of"), std::string::npos) << report;
    EXPECT_EQ(report.find("died of"), report.rfind("died of")) << report;
    EXPECT_TRUE(report.ends_with("]\n")) << report;
}

TEST(CrashReport, program_name_is_copied_and_cut) {
    const ChildEnd end = run_in_child([] {
        std::string name(100, 'n');
        install(name.c_str());
        name.assign(100, 'x');
        step_on_the_signal(SIGABRT);
    });
    EXPECT_TRUE(end.standard_error.starts_with(std::string(63, 'n') + ": died of"))
        << end.standard_error;
}

TEST(CrashReport, reader_of_standard_error_that_went_away_is_not_the_cause_of_death) {
    const ChildEnd end = run_in_child([] {
        install();
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            _exit(1);
        }
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        step_on_the_signal(SIGBUS);
    });
    EXPECT_TRUE(died_of(end, SIGBUS)) << end.status;
}

TEST(CrashReport, reader_of_standard_error_that_sleeps_does_not_keep_the_process_alive) {
    const ChildEnd end = run_in_child([] {
        install();
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            _exit(1);
        }
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        const std::array<char, 4096> filling{};
        while (write(ends[1], filling.data(), filling.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDERR_FILENO);
        step_on_the_signal(SIGBUS);
    });
    EXPECT_TRUE(died_of(end, SIGBUS)) << end.status;  // not of the time-out's SIGKILL
}

TEST(CrashReport, system_log_that_takes_nothing_does_not_keep_the_process_alive) {
    const PrivateDevEnd end = run_in_child_with_private_dev([] {
        unlink("/dev/log");
        const Fd unread = bound_datagram_socket("/dev/log");
        const Fd sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        constexpr sockaddr_un log{AF_UNIX, "/dev/log"};
        while (sendto(sender.get(), "", 0, 0, reinterpret_cast<const sockaddr*>(&log),
                      sizeof log) == 0) {
        }
        if (!unread.is_open() || errno != EAGAIN) {
            _exit(1);
        }
        install();
        step_on_the_signal(SIGBUS);
    });
    if (!end.permitted) {
        GTEST_SKIP() << "needs the right to have a /dev of its own";
    }
    EXPECT_TRUE(died_of(end, SIGBUS)) << end.status;  // not of the time-out's SIGKILL
    EXPECT_THAT(end.standard_error, HasSubstr("(step_on_the_signal+0x"));
}

TEST(CrashReport, no_descriptor_is_left_to_a_shell_command) {
    const ChildEnd end = run_in_child([] {
        const auto is_inherited = [](int number) {
            const int flags = fcntl(number, F_GETFD);
            return flags >= 0 && (flags & FD_CLOEXEC) == 0;
        };
        std::array<bool, 64> before{};
        for (std::size_t i = 3; i < before.size(); ++i) {
            before[i] = is_inherited(static_cast<int>(i));
        }
        install();
        for (std::size_t i = 3; i < before.size(); ++i) {
            if (is_inherited(static_cast<int>(i)) && !before[i]) {
                _exit(1);
            }
        }
    });
    ASSERT_TRUE(WIFEXITED(end.status));
    EXPECT_EQ(WEXITSTATUS(end.status), 0);
}

TEST(CrashReport, survives_the_way_to_the_background) {
    // The descriptors of the report are opened with 0 to 2 free, which are closed afterwards.
    const PrivateDevEnd end = run_in_child_with_private_dev([] {
        close(0);
        close(1);
        install();
        close(0);
        close(1);
        close(2);
        step_on_the_signal(SIGSEGV);
    });
    if (!end.permitted) {
        GTEST_SKIP() << "needs the right to have a /dev of its own";
    }
    EXPECT_THAT(end.console, HasSubstr("(step_on_the_signal+0x"));
    EXPECT_FALSE(end.log.empty());
}

TEST(CrashReport, same_lines_go_to_standard_error_console_and_system_log) {
    const PrivateDevEnd end = run_in_child_with_private_dev([] {
        install();
        step_on_the_signal(SIGILL);
    });
    if (!end.permitted) {
        GTEST_SKIP() << "needs the right to have a /dev of its own";
    }
    // The single-threaded child's thread number is its process number.
    const std::string start = "<25>wan_lb[" + thread_of(end.standard_error) + "]: ";
    std::string logged;
    for (const std::string& datagram : end.log) {
        ASSERT_TRUE(datagram.starts_with(start)) << datagram;
        logged += datagram.substr(start.size()) + "\n";
    }
    EXPECT_THAT(end.standard_error, HasSubstr("the-program: died of SIGILL"));
    EXPECT_THAT(end.standard_error, HasSubstr("(step_on_the_signal+0x"));
    EXPECT_EQ(end.console, end.standard_error);
    EXPECT_EQ(logged, end.standard_error);
}

}  // namespace

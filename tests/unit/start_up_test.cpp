#include "core/start_up.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <thread>

#include "host/log.h"
#include "unit/support/child_process.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;

/// What a run of the whole process gives; it must end by itself.
ChildEnd run_lb(
    std::vector<std::string> words, const std::function<void()>& before = [] {}) {
    return run_in_child([&] {
        before();
        std::vector<char*> arguments;
        words.insert(words.begin(), "lb");
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        optind = 0;
        dup2(2, 1);  // what goes to standard output is seen as well
        run_process(static_cast<int>(words.size()), arguments.data());
    });
}

TEST(StartUp, without_a_file_says_so_and_does_nothing_else) {
    const TemporaryFile pid("untouched");
    const ChildEnd end = run_lb({"-d", "-i", pid.path()});
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error, "Configuration file is empty\n");
    EXPECT_EQ(run_lb({"-f", ""}).standard_error, "Configuration file is empty\n");
    EXPECT_EQ(content_of(pid.path()), "untouched");
}

TEST(StartUp, unknown_option_prints_the_usage_with_status_zero) {
    const ChildEnd end = run_lb({"-x"});
    EXPECT_EQ(end.status, 0);
    EXPECT_NE(end.standard_error.find("lb -ftviodh\n"), std::string::npos);
}

void log_to_standard_error() {
    set_log_sink([](int, const char* line) { fprintf(stderr, "%s\n", line); });
}

TEST(StartUp, test_flag_writes_the_pid_file_loads_and_ends) {
    const TemporaryFile conf("rule 0_ipv4 {\n}\n");
    const TemporaryFile pid("");
    const TemporaryFile expected("");
    const ChildEnd end = run_lb({"-v", "-t", "-i", pid.path(), "-f", conf.path()}, [&] {
        std::ofstream(expected.path()) << getpid() << "\n";
        log_to_standard_error();
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error, "%WAN-W-WARN: Illegal rule number: 0_ipv4\n");
    EXPECT_EQ(content_of(pid.path()), content_of(expected.path()));
}

TEST(StartUp, pid_file_that_cannot_be_opened_does_not_stop_it) {
    const ChildEnd end =
        run_lb({"-t", "-i", "/nonexistent/pid", "-f", "/nonexistent/conf"}, log_to_standard_error);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error,
              "%WAN-W-ERR: Can't fopen pid lock file /nonexistent/pid, continuing\n"
              "%WAN-W-ERR: wan_lb: configuration file not found: /nonexistent/conf\n");
}

TEST(StartUp, in_the_background_the_pid_file_holds_the_childs_pid) {
    const TemporaryFile conf("");
    const TemporaryFile pid("");
    const TemporaryFile parent("");
    const ChildEnd end = run_lb({"-t", "-d", "-i", pid.path(), "-f", conf.path()},
                                [&] { std::ofstream(parent.path()) << getpid() << "\n"; });
    EXPECT_EQ(end.status, 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!content_of(pid.path()).ends_with('\n') && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(content_of(pid.path()).ends_with('\n'));
    EXPECT_NE(content_of(pid.path()), content_of(parent.path()));
}

TEST(StartUp, fork_that_fails_ends_it_like_a_parent) {
    const TemporaryFile conf("rule 0_ipv4 {\n}\n");
    const TemporaryFile pid("untouched");
    const ChildEnd end = run_lb({"-d", "-i", pid.path(), "-f", conf.path()}, [] {
        static const FailCall no_process(Call::fork, EAGAIN);
        log_to_standard_error();
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error, "");
    EXPECT_EQ(content_of(pid.path()), "untouched");
}

TEST(StartUp, thread_that_cannot_be_created_ends_the_process_with_255) {
    const TemporaryFile conf("health {\n interface eth0 {\n }\n}\n");
    const ChildEnd end = run_lb({"-f", conf.path()}, [] {
        static const FailCall no_thread(Call::pthread_create, EAGAIN);
        log_to_standard_error();
    });
    EXPECT_TRUE(WIFEXITED(end.status));
    EXPECT_EQ(WEXITSTATUS(end.status), 255);
    EXPECT_EQ(end.standard_error, "%WAN-W-WARN: Can't create new thread for VRF \n");
}

/// A start-up with work in the default namespace and in two that do not exist, whose thread of
/// this number (1 is the first) cannot be created. The threads before it may speak too.
ChildEnd run_without_thread(int number) {
    const TemporaryFile conf(
        "health {\n interface a {\n namespace no-such-red\n }\n"
        " interface b {\n namespace no-such-blue\n }\n}\nrule 1_ipv6 {\n}\n");
    return run_lb({"-f", conf.path()}, [number] {
        static const FailCall no_thread(Call::pthread_create, EAGAIN, number);
        log_to_standard_error();
    });
}

const std::string no_thread_for = "%WAN-W-WARN: Can't create new thread for VRF ";

TEST(StartUp, default_namespace_gets_the_first_thread) {
    const ChildEnd end = run_without_thread(1);
    EXPECT_EQ(WEXITSTATUS(end.status), 255);
    EXPECT_EQ(end.standard_error, no_thread_for + "\n");
}

TEST(StartUp, named_namespaces_get_theirs_in_the_order_of_their_names) {
    EXPECT_NE(run_without_thread(2).standard_error.find(no_thread_for + "no-such-blue\n"),
              std::string::npos);
    EXPECT_NE(run_without_thread(3).standard_error.find(no_thread_for + "no-such-red\n"),
              std::string::npos);
}

}  // namespace

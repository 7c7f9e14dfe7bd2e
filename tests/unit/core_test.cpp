#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include "config/namespaces.h"
#include "core/command_line.h"
#include "core/load_balance.h"
#include "core/pid_file.h"
#include "core/standard_streams.h"
#include "core/start_up.h"
#include "core/workers.h"
#include "platform/log.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"
#include "unit/support/captured_log.h"
#include "unit/support/child_process.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;
using Lines = std::vector<LogLine>;

std::string content_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

CommandLine read(std::vector<std::string> words) {
    words.insert(words.begin(), "lb");
    std::vector<char*> arguments;
    for (std::string& word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    optind = 0;  // starts getopt(3) anew
    return read_command_line(static_cast<int>(words.size()), arguments.data());
}

TEST(Options, have_their_defaults) {
    const CommandLine asked = read({});
    EXPECT_FALSE(asked.wants_usage || asked.is_daemon || asked.is_test);
    EXPECT_EQ(asked.conf_path, "");
    EXPECT_EQ(asked.pid_path, "");
    EXPECT_EQ(asked.output_dir, "/var/run/load-balance");
}

TEST(Options, are_all_read_and_the_later_one_counts) {
    const CommandLine asked = read({"-f", "a", "-t", "-i", "p", "-o", "o", "-d", "-v", "-f", "b"});
    EXPECT_EQ(asked.conf_path, "b");
    EXPECT_EQ(asked.pid_path, "p");
    EXPECT_EQ(asked.output_dir, "o");
    EXPECT_TRUE(asked.is_test && asked.is_daemon);
    EXPECT_FALSE(asked.wants_usage);
}

TEST(Options, unknown_ones_and_missing_arguments_ask_for_the_usage) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(read({"-x"}).wants_usage);
    EXPECT_TRUE(read({"-f"}).wants_usage);
    EXPECT_TRUE(read({"-i"}).wants_usage);
    EXPECT_TRUE(read({"-o"}).wants_usage);
    EXPECT_TRUE(read({"-h"}).wants_usage);
    testing::internal::GetCapturedStderr();
}

TEST(Usage, is_seven_lines) {
    testing::internal::CaptureStdout();
    print_usage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "lb -ftviodh\n"
              "  -f [file] configuration file\n"
              "  -t load configuration file only and exit\n"
              "  -i specify location of pid directory\n"
              "  -o specify location of output directory\n"
              "  -d run as daemon\n"
              "  -h help\n");
}

TEST(PidFile, holds_the_process_id_and_is_writable_by_the_owner_only) {
    const TemporaryFile place("");
    unlink(place.path().c_str());
    const mode_t mask = umask(0);
    EXPECT_EQ(pid_output(place.path().c_str()), getpid());
    EXPECT_EQ(umask(mask), 0U);
    EXPECT_EQ(content_of(place.path()), std::to_string(getpid()) + "\n");
    struct stat status {};
    stat(place.path().c_str(), &status);
    EXPECT_EQ(status.st_mode & 0777U, 0644U);
}

TEST(PidFile, that_cannot_be_opened_is_reported) {
    const CapturedLog log;
    EXPECT_EQ(pid_output("/nonexistent/lb.pid"), -1);
    EXPECT_EQ(log.lines(), (Lines{{4,
                                   "%WAN-W-ERR: Can't fopen pid lock file /nonexistent/lb.pid, "
                                   "continuing"}}));
}

TEST(PidFile, replaces_what_stood_there) {
    const TemporaryFile place("a longer text than any process id\n");
    pid_output(place.path().c_str());
    EXPECT_EQ(content_of(place.path()), std::to_string(getpid()) + "\n");
}

TEST(PidFile, that_cannot_be_opened_leaves_the_mask_as_it_was) {
    const CapturedLog log;
    const mode_t mask = umask(0027);
    pid_output("/nonexistent/lb.pid");
    EXPECT_EQ(umask(mask), 0027U);
}

TEST(StandardStreams, closed_ones_are_held_on_dev_null) {
    const ChildEnd end = run_in_child([] {
        close(0);
        close(2);
        hold_standard_streams();
        char buffer[1];
        const bool is_held = ::read(0, buffer, 1) == 0 && fcntl(2, F_GETFD) != -1;
        const int next = open("/dev/null", O_RDONLY);
        _exit(is_held && next > 2 ? 0 : 1);
    });
    EXPECT_EQ(end.status, 0);
}

TEST(StandardStreams, are_left_for_dev_null) {
    const ChildEnd end = run_in_child([] {
        leave_standard_streams();
        fprintf(stderr, "into the void");
        fflush(stderr);
    });
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.standard_error, "");
}

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

struct Engine : testing::Test {
    std::string folder = "/tmp/lb-engine-unused";
    // Behind a pointer: GoogleTest's fixtures let no exception out of their destructors.
    std::unique_ptr<LoadBalance> lb = std::make_unique<LoadBalance>(folder);
    CapturedLog log;
};

TEST_F(Engine, keeps_its_spare_number) {
    EXPECT_EQ(lb->lb_spare, 5000);
}

TEST_F(Engine, accepts_a_file_that_does_not_load) {
    EXPECT_TRUE(lb->set_conf("/nonexistent/lb.conf"));
    const TemporaryFile conf("health {\n interface eth0 {\n");
    EXPECT_TRUE(lb->set_conf(conf.path()));
    EXPECT_TRUE(lb->data.health.contains("eth0"));
}

TEST_F(Engine, tells_what_each_namespace_needs) {
    const TemporaryFile conf(
        "health {\n interface a {\n }\n interface6 b {\n namespace blue\n }\n}\n"
        "rule 1_ipv4 {\n}\nrule 2 {\n namespace red\n}\n");
    lb->set_conf(conf.path());
    NamespaceNeeds needs;
    lb->check_before_start(needs);
    EXPECT_EQ(needs,
              (NamespaceNeeds{{{"", 0}, {1, 1}}, {{"blue", 1}, {1, 0}}, {{"red", 1}, {0, 1}}}));
}

TEST_F(Engine, reports_the_workers_interfaces_as_inactive) {
    const TemporaryFile conf(
        "health {\n interface gi1_1 {\n }\n interface eth0 {\n }\n interface gi1_2 {\n namespace "
        "x\n }\n"
        " interface6 po1 {\n }\n}\n");
    lb->set_conf(conf.path());
    TestContext ctx;
    TestContext ctx6(true);
    lb->print_init_interfaces_state(ctx);
    lb->print_init_interfaces_state(ctx6);
    EXPECT_EQ(
        log.lines(),
        (Lines{{6, "%WAN-I-INSTANCE: IP interface unknown interface changed state to inactive"},
               {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 changed state to inactive"},
               {6, "%WAN-I-INSTANCE: IPv6 interface port-channel 1 changed state to inactive"}}));
}

TEST_F(Engine, makes_the_probes_of_both_families_in_the_namespace_ready) {
    const TemporaryFile conf(
        "health {\n interface a {\n namespace init4\n }\n interface6 b {\n"
        " namespace init4\n }\n interface c {\n }\n}\n");
    lb->set_conf(conf.path());
    TestContext ctx(false, "init4");
    LBTest::_initialized.set("init4", true);
    LBTest6::_initialized.set("init4", true);
    lb->init_tests_in_namespace(ctx);
    EXPECT_EQ(lb->data.health.at("a").tests.at(1)->ns_name, "init4");
    EXPECT_EQ(lb->data.health6.at("b").tests6.at(1)->status(), "ping");
    EXPECT_EQ(lb->data.health.at("c").tests.at(1)->status(), "");
}

TEST_F(Engine, starts_every_cycle) {
    TestContext ctx;
    EXPECT_TRUE(lb->start_cycle(ctx));
}

TEST_F(Engine, namespace_without_a_file_is_reported) {
    namespace_arg start{lb.get(), "no such namespace"};
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{{4, "%WAN-W-ERR: wan_lb, can't open /var/run/netns/no such namespace"}}));
}

TEST_F(Engine, default_namespace_is_not_entered) {
    namespace_arg start{lb.get(), ""};
    const FailCall entered(Call::setns, EPERM);
    work_in_namespace(&start);
    EXPECT_EQ(entered.calls(), 0);
}

/// Stands for open(2) on a system where every namespace has a file.
int open_any_namespace(const char* /*path*/, int flags, ...) {
    return openat(AT_FDCWD, "/proc/self/ns/net", flags);
}

TEST_F(Engine, namespace_that_cannot_be_entered_is_reported) {
    namespace_arg start{lb.get(), "blue"};
    namespaces_check[{"blue", 0}] = {1, 1};
    static constexpr faults::StandIns calls{.open = open_any_namespace};
    faults::set_stand_ins(calls);
    const FailCall refused(Call::setns, EPERM);
    const FailCall no_worker(Call::pthread_create, EAGAIN);
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-ERR: wan_lb, setns failed"}}));
    EXPECT_EQ(no_worker.calls(), 0);
    faults::reset_stand_ins();
    namespaces_check.clear();
}

TEST_F(Engine, namespace_thread_without_work_ends_at_once) {
    namespace_arg start{lb.get(), ""};
    namespaces_check.clear();
    namespaces_check[{"", 0}] = {1, 0};
    namespaces_check[{"", 1}] = {0, 1};
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_TRUE(log.lines().empty());
    namespaces_check.clear();
}

TEST_F(Engine, workers_that_cannot_be_created_are_reported_each) {
    namespace_arg start{lb.get(), ""};
    namespaces_check[{"", 0}] = {1, 1};
    namespaces_check[{"", 1}] = {1, 1};
    {
        const FailCall no_thread(Call::pthread_create, EAGAIN);
        EXPECT_EQ(work_in_namespace(&start), nullptr);
    }
    namespaces_check.clear();
    Lines warnings;
    for (const LogLine& line : log.lines()) {
        if (line.text.find("Can't create") != std::string::npos) {
            warnings.push_back(line);
        }
    }
    EXPECT_EQ(warnings, (Lines{{4, "%WAN-W-WARN: Can't create new thread for IPv4 VRF "},
                               {4, "%WAN-W-WARN: Can't create new thread for IPv6 VRF "}}));
}

TEST(WorkerNeeds, are_an_interface_and_a_rule_of_one_family_in_one_namespace) {
    namespaces_check.clear();
    EXPECT_FALSE(is_any_worker_needed());
    namespaces_check[{"", 0}] = {1, 0};
    namespaces_check[{"", 1}] = {0, 1};
    namespaces_check[{"blue", 0}] = {0, 1};
    EXPECT_FALSE(is_any_worker_needed());
    namespaces_check[{"blue", 1}] = {1, 1};
    EXPECT_TRUE(is_any_worker_needed());
    namespaces_check.clear();
}

}  // namespace

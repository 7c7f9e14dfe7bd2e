#include "host/watchdog.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "host/linux/notify_socket.h"
#include "unit/support/child_process.h"
#include "unit/support/faults.h"

namespace {

using Texts = std::vector<std::string>;

std::string abstract_address() {
    return "@wan_lb-unit-" + std::to_string(getpid());
}

/// What the service manager at `address` hears while `body` runs in a process of its own: the
/// notification socket is opened once in a process.
Texts heard_at(const std::string& address, const std::function<void()>& body) {
    const Fd manager = bound_datagram_socket(address);
    EXPECT_TRUE(manager.is_open());
    const ChildEnd end = run_in_child([&] {
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        body();
    });
    EXPECT_TRUE(WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0) << end.standard_error;
    return waiting_datagrams(manager);
}

// The watchdog is opened once in a process and counts all workers that it ever had. The children
// of these tests have one of their own only while this process has none: GoogleTest runs suites of
// such a name (`...DeathTest`) before all others, of which some report as workers do.
TEST(WatchdogDeathTest, ready_tells_the_own_process_id) {
    const Texts texts = heard_at(abstract_address(), [] {
        send_signal_live(1, 2);
        NotifySocket(std::getenv("NOTIFY_SOCKET")).send(std::to_string(getpid()));
    });
    ASSERT_EQ(texts.size(), 2U);
    EXPECT_EQ(texts[0], "READY=1\nMAINPID=" + texts[1]);
}

TEST(WatchdogDeathTest, child_takes_over_as_main_process) {
    EXPECT_EQ(heard_at(abstract_address(), [] { send_signal_live(4711, 2); }),
              (Texts{"MAINPID=4711"}));
}

TEST(WatchdogDeathTest, failed_fork_tells_nothing) {
    EXPECT_EQ(heard_at(abstract_address(),
                       [] {
                           send_signal_live(-1, 2);
                           send_signal_live(0, 2);
                       }),
              Texts{});
}

TEST(WatchdogDeathTest, path_of_a_socket_file_works_like_an_abstract_name) {
    std::string directory = "/tmp/wan_lb-unit-XXXXXX";
    ASSERT_NE(mkdtemp(directory.data()), nullptr);
    const std::string path = directory + "/notify";
    EXPECT_EQ(heard_at(path, [] { send_signal_live(4711, 2); }), (Texts{"MAINPID=4711"}));
    unlink(path.c_str());
    rmdir(directory.c_str());
}

TEST(WatchdogDeathTest, keep_alive_of_a_single_worker_goes_on) {
    EXPECT_EQ(heard_at(abstract_address(),
                       [] {
                           wd_record timeout{};
                           wd_record shift{};
                           set_timeout(&timeout);
                           send_and_shift_timeout(&timeout, &shift, 2);
                           send_and_shift_timeout(&timeout, &shift, 2);
                       }),
              (Texts{"WATCHDOG=1", "WATCHDOG=1"}));
}

TEST(WatchdogDeathTest, thread_that_stopped_reporting_silences_the_others) {
    EXPECT_EQ(heard_at(abstract_address(),
                       [] {
                           wd_record timeout{};
                           wd_record shift{};
                           const auto report = [&] { send_and_shift_timeout(&timeout, &shift, 2); };
                           report();                    // goes on: the only worker so far
                           std::thread(report).join();  // waits for the first
                           report();                    // goes on: both have reported
                           report();                    // the second never will again
                           report();
                       }),
              (Texts{"WATCHDOG=1", "WATCHDOG=1"}));
}

TEST(WatchdogDeathTest, silent_and_content_without_a_service_manager) {
    const ChildEnd end = run_in_child([] {
        unsetenv("NOTIFY_SOCKET");
        wd_record record{};
        const bool content = send_signal_live(1, 2) == 0 && set_timeout(&record) == 0 &&
                             send_and_shift_timeout(&record, &record, 2) == 0;
        _exit(content ? 0 : 1);
    });
    ASSERT_TRUE(WIFEXITED(end.status));
    EXPECT_EQ(WEXITSTATUS(end.status), 0);
    EXPECT_EQ(end.standard_error, "");
}

TEST(WatchdogDeathTest, keep_alive_from_another_namespace_reaches_the_abstract_name) {
    constexpr int not_permitted = 77;
    const std::string address = abstract_address();
    const Fd manager = bound_datagram_socket(address);
    const ChildEnd end = run_in_child([&] {
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        wd_record record{};
        send_signal_live(4711, 2);
        if (unshare(CLONE_NEWNET | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0) {
            _exit(not_permitted);
        }
        send_and_shift_timeout(&record, &record, 2);
    });
    ASSERT_TRUE(WIFEXITED(end.status));
    if (WEXITSTATUS(end.status) == not_permitted) {
        GTEST_SKIP() << "needs the right to make a network namespace";
    }
    EXPECT_EQ(waiting_datagrams(manager), (Texts{"MAINPID=4711", "WATCHDOG=1"}));
}

TEST(WatchdogDeathTest, full_service_manager_does_not_block) {
    const std::string address = abstract_address();
    const Fd manager = bound_datagram_socket(address);
    const ChildEnd end = run_in_child([&] {
        const NotifySocket socket(address.c_str());
        while (socket.send("WATCHDOG=1")) {
        }
    });
    EXPECT_TRUE(WIFEXITED(end.status)) << "blocked until it was killed";
    EXPECT_FALSE(waiting_datagrams(manager).empty());
}

TEST(NotifySocket, unusable_addresses_mean_no_service_manager) {
    const std::string too_long = "/" + std::string(107, 'x');
    for (const char* address : {static_cast<const char*>(nullptr), "", "/", "@", "relative/path",
                                "vsock:2:1234", too_long.c_str()}) {
        const faults::FailCall count(faults::Call::socket, EMFILE);
        EXPECT_TRUE(NotifySocket(address).send("READY=1"));
        EXPECT_EQ(count.calls(), 0) << (address != nullptr ? address : "none");
    }
}

TEST(NotifySocket, abstract_name_may_fill_the_address) {
    std::string full = abstract_address();
    full.resize(108, 'y');
    const std::string other_end = full.substr(0, 107) + "z";
    const Fd manager = bound_datagram_socket(full);
    EXPECT_TRUE(NotifySocket(full.c_str()).send("READY=1"));
    EXPECT_FALSE(NotifySocket(other_end.c_str()).send("READY=1"));
    EXPECT_EQ(waiting_datagrams(manager), (Texts{"READY=1"}));
}

TEST(NotifySocket, absent_service_manager_is_an_error) {
    EXPECT_FALSE(NotifySocket("@wan_lb-nobody-listens-here").send("READY=1"));
}

TEST(NotifySocket, exhausted_descriptors_are_an_error) {
    const faults::FailCall fail(faults::Call::socket, EMFILE);
    EXPECT_FALSE(NotifySocket("@wan_lb-unit").send("READY=1"));
}

}  // namespace

// Failures that need a thread or a process of their own to happen.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "host/links.h"
#include "host/log.h"
#include "host/neighbours.h"
#include "output/lb_output.h"
#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test.h"
#include "probe/lb_test_icmp.h"
#include "probe/reply_socket.h"
#include "unit/support/captured_log.h"
#include "unit/support/child_process.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;

const std::string err = "%WAN-W-ERR: ";

/// Texts that `body` logs on a thread that has no query socket yet and gets none.
std::vector<std::string> logged_without_query_socket(const std::function<void()>& body) {
    const CapturedLog log;
    std::thread([&body] {
        const FailCall no_socket(Call::socket, EMFILE);
        body();
    }).join();
    std::vector<std::string> texts;
    for (const LogLine& line : log.lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

using Texts = std::vector<std::string>;

TEST(WithoutAQuerySocket, each_question_gives_its_error) {
    EXPECT_EQ(logged_without_query_socket([] {
                  const host::Link link = host::ask_link("lo");
                  EXPECT_EQ(link.failed, host::Link::Step::socket);
                  EXPECT_EQ(link.error, EMFILE);
                  EXPECT_EQ(host::primary_address("lo").error, EMFILE);
                  host::PeerRequest request(false);
                  EXPECT_EQ(host::ask_peer("lo", request), EMFILE);
                  const host::ArpEntry entry = host::ask_arp_entry({192, 0, 2, 1}, "lo");
                  EXPECT_EQ(entry.state, host::ArpEntry::State::no_socket);
                  EXPECT_EQ(entry.error, EMFILE);
              }),
              Texts{});
}

TEST(WithoutAQuerySocket, arp_queries_say_so) {
    EXPECT_EQ(
        logged_without_query_socket([] {
            LBArp arp;
            unsigned char mac[6];
            arp.set_data("192.0.2.1", "127.0.0.1", "lo");
            arp.check_arp_exist();
            arp.get_mac(mac);
            arp.send_arp();
        }),
        (Texts{err + "<check_arp_exist> Socket", err + "<get_mac> Socket",
               err + "<send_arp> socket() failed to get socket descriptor for using ioctl()"}));
}

TEST(WithoutAQuerySocket, a_probe_says_so) {
    TestContext ctx;
    EXPECT_EQ(logged_without_query_socket([&ctx] {
                  LBTestICMP probe;
                  probe.send_for_interfaces(0, "lo", "192.0.2.1", "", "192.0.2.1", 1, ctx);
              }),
              (Texts{err + "socket() failed to get socket descriptor for using ioctl() "
                           "Too many open files"}));
}

TEST(WithoutAQuerySocket, arp_entry_is_not_written) {
    EXPECT_EQ(logged_without_query_socket([] {
                  AskedAddresses targets;
                  targets.set("192.0.2.1", "lo");
                  const std::vector<std::uint8_t> reply{
                      2, 0, 0, 0, 0, 1, 2, 0,   0, 0, 0, 2, 0x08, 0x06, 0, 1, 0x08, 0,   6, 4, 0,
                      2, 2, 0, 0, 0, 0, 2, 192, 0, 2, 1, 2, 0,    0,    0, 0, 1,    192, 0, 2, 10};
                  handle_arp_frame(reply, targets);
              }),
              (Texts{err + "<add_arp_entry> socket() failed"}));
}

TEST(WithoutAQuerySocket, solicitation_complains_on_standard_error) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(logged_without_query_socket([] {
                  LBNeighbor neighbor;
                  neighbor.set_data("2001:db8::1", "2001:db8::2", "lo");
                  neighbor.send_request();
              }),
              Texts{});
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "socket() failed to get socket descriptor for using ioctl() : Too many open files\n");
}

void log_to_standard_error(int /*severity*/, const char* line) {
    fprintf(stderr, "%s\n", line);
}

TEST(ResultMutex, that_cannot_be_made_is_reported) {
    const ChildEnd end = run_in_child([] {
        set_log_sink(log_to_standard_error);
        const FailCall no_mutex(Call::pthread_mutex_init, ENOMEM);
        const FailCall no_socket(Call::socket, EMFILE);
        set_up_namespace(ipv6_probes, "first");
    });
    EXPECT_EQ(end.standard_error, err + "wan_lb: error mutex initialization\n" + err +
                                      "wan_lb: failed to acquired socket\n");
}

TEST(OutputMutex, that_cannot_be_destroyed_ends_the_thread) {
    const CapturedLog log;
    std::string folder = "/tmp/lb-unused";
    std::thread([&folder] {
        const FailCall no_end(Call::pthread_mutex_destroy, EBUSY);
        const LBOutput output(folder);
    }).join();
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{{4, err + "wan_lb: <~LBOutput> error mutex destroy"}}));
}

TEST(ReceiverThread, that_cannot_be_detached_is_reported_and_runs_all_the_same) {
    const ChildEnd end = run_in_child([] {
        set_log_sink(log_to_standard_error);
        const FailCall no_detach(Call::pthread_detach, EINVAL);
        constexpr int no_such_descriptor = 1'000'000;  // with it a receiver ends at once
        LBTest::_recv_icmp_sock.set("detach", no_such_descriptor);
        start_receiver(ipv4_probes, "detach");
        LBTest6::_recv_icmp6_sock.set("detach", 1'000'000);
        start_receiver(ipv6_probes, "detach");
        while (LBTest::_received.get("detach") || LBTest6::_received.get("detach")) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        LBArp arp;
        arp.init("detach");
        arp.set_data("192.0.2.1", "127.0.0.1", "lo");
        arp.send_arp();  // opens the receiver's socket
        arp.received_arp();
        LBNeighbor neighbor;
        neighbor.init("detach");
        neighbor.set_data("2001:db8::1", "2001:db8::2", "no such");
        neighbor.send_request();
        neighbor.receive_reply();
    });
    for (const char* text :
         {"Can't detach thread for icmp recv\n", "select for ipv4 failed!!!!!\n",
          "Can't detach thread for icmp6 recv\n", "Can't detach thread for arp recv\n",
          "Can't detach thread for neigh recv\n"}) {
        EXPECT_NE(end.standard_error.find(err + text), std::string::npos) << text << "in\n"
                                                                          << end.standard_error;
    }
}

}  // namespace

#include "probe/lb_arp.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <span>

#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/given_kernel.h"

namespace {

using Lines = std::vector<LogLine>;
using faults::Call;
using faults::FailCall;

TEST(AskedAddresses, unknown_sender_leaves_an_empty_entry) {
    AskedAddresses targets;
    targets.set("192.0.2.1", "eth0");
    EXPECT_EQ(targets.find_or_enter("192.0.2.1"), "eth0");
    EXPECT_EQ(targets.find_or_enter("192.0.2.9"), "");
    EXPECT_EQ(targets.size(), 2U);
}

/// An ARP frame from 192.0.2.1 with this operation.
Bytes arp_frame(std::uint8_t operation) {
    return {0x02, 0, 0,    0, 0,    1, 0x02, 0,         0,    0, 0,   2, 0x08, 0x06,
            0,    1, 0x08, 0, 6,    4, 0,    operation, 0x02, 0, 0,   0, 0,    2,
            192,  0, 2,    1, 0x02, 0, 0,    0,         0,    1, 192, 0, 2,    10};
}

struct Arp : testing::Test {
    void ask(const std::string& address, const std::string& source = "127.0.0.1",
             const std::string& ifname = "lo") {
        arp.nsname = "arp test";
        arp.targets = std::make_shared<AskedAddresses>();
        arp.set_data(address, source, ifname);
    }
    /// Opens the receiver's socket as a request does, whatever becomes of the request.
    void start_with_a_receiver_socket() {
        LBArp::is_start_recv.set("arp test", false);
        ask("192.0.2.1", "127.0.0.1", "no such");
        arp.send_arp();
    }
    /// What was logged, but for that request.
    Lines receiver_lines() const {
        Lines lines = log.lines();
        std::erase(lines, errors({"<send_arp> ioctl() failed to get source MAC address"})[0]);
        return lines;
    }
    LBArp arp;
    CapturedLog log;
    unsigned char mac[6] = {};
};

TEST_F(Arp, unknown_next_hop_is_silently_missing) {
    ask("192.0.2.1");
    EXPECT_EQ(arp.check_arp_exist(), 0);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Arp, address_that_is_not_dotted_is_reported) {
    ask("dhcp");
    EXPECT_EQ(arp.check_arp_exist(), -1);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_EQ(log.lines(), errors({"<check_arp_exist> Inet_aton() failed Invalid argument(22)",
                                   "<get_mac> Inet_aton"}));
}

TEST_F(Arp, refused_table_query_is_reported_by_the_check_only) {
    ask("192.0.2.1", "127.0.0.1", "no such");
    EXPECT_EQ(arp.check_arp_exist(), -1);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_EQ(log.lines(), errors({"<check_arp_exist> Ioctl No such device(19)"}));
}

TEST_F(Arp, init_without_a_socket_is_reported_and_leaves_no_table) {
    const FailCall no_socket(Call::socket, EMFILE);
    arp.init("arp init");
    EXPECT_EQ(log.lines(), errors({"<init> socket() fo _send_sock in arp init failed "}));
    EXPECT_EQ(arp.targets, nullptr);
    arp.set_data("192.0.2.1", "127.0.0.1", "lo");
    arp.received_arp();
}

/// A request that cannot leave, and the one line that says so.
struct ArpRequest : Arp {
    ArpRequest() { LBArp::is_start_recv.set("arp test", true); }
    std::string complaint() {
        EXPECT_LE(arp.send_arp(), 0);
        EXPECT_EQ(log.lines().size(), 1U);
        return log.lines().empty() ? "" : log.lines().back().text;
    }
};

TEST_F(ArpRequest, on_an_unknown_interface) {
    ask("192.0.2.1", "127.0.0.1", "no such");
    EXPECT_EQ(complaint(), err + "<send_arp> ioctl() failed to get source MAC address");
}

TEST_F(ArpRequest, from_a_source_that_is_no_address) {
    ask("192.0.2.1", "nonsense");
    EXPECT_EQ(complaint(),
              err + "<send_arp> inet_pton() failed for source IP address.Error message: Success");
}

TEST_F(ArpRequest, for_a_name_that_nobody_knows) {
    ask("no such.invalid");
    EXPECT_TRUE(complaint().starts_with(err + "<send_arp> getaddrinfo() failed: "));
}

TEST_F(ArpRequest, without_a_send_socket) {
    ask("192.0.2.1");  // descriptor 0 is no socket
    EXPECT_EQ(complaint(), err + "<send_arp> sendto() failed");
}

TEST_F(ArpRequest, on_an_interface_without_an_index) {
    ask("192.0.2.1");
    const FailCall no_index(Call::ioctl, ENODEV, 2);
    EXPECT_EQ(complaint(), err + "<send_arp> if_nametoindex() failed to obtain interface index");
}

/// A next hop behind eth0 that is asked for on a wire of the test.
struct ArpOnTheWire : Arp {
    ArpOnTheWire() {
        kernel.on_ioctl = [this](unsigned long request, void* argument) {
            if (request == SIOCGARP) {
                static_cast<arpreq*>(argument)->arp_flags = is_known ? ATF_COM : 0;
                std::copy(next_hop.begin(), next_hop.end(),
                          static_cast<arpreq*>(argument)->arp_ha.sa_data);
            } else if (request == SIOCGIFHWADDR) {
                std::copy(own.begin(), own.end(),
                          static_cast<ifreq*>(argument)->ifr_hwaddr.sa_data);
            }
            return 0;
        };
        LBArp::is_start_recv.set("arp test", true);
        LBArp::_send_sock.set("arp test", wire.near.release());
        ask("192.0.2.1", "192.0.2.10", "eth0");
    }
    Bytes sent() const {
        Bytes frame(64);
        const ssize_t length = recv(wire.far.get(), frame.data(), frame.size(), MSG_DONTWAIT);
        frame.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return frame;
    }
    const MacAddress next_hop{2, 0, 0, 0, 0, 1};
    const MacAddress own{2, 0, 0, 0, 0, 10};
    const Bytes question{0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0,   10, 8, 6,
                         0,    1,    8,    0,    6,    4,    0, 1, 2, 0, 0,   0,  0, 10,
                         192,  0,    2,    10,   0,    0,    0, 0, 0, 0, 192, 0,  2, 1};
    bool is_known = false;
    DatagramPair wire;
    GivenKernel kernel;
};

TEST_F(ArpOnTheWire, unknown_next_hop_is_asked_for_from_the_interfaces_addresses) {
    EXPECT_EQ(arp.send_arp(), 42);
    EXPECT_EQ(sent(), question);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ArpOnTheWire, search_for_an_unknown_next_hop_asks_and_finds_its_host_unreachable) {
    EXPECT_FALSE(arp.known_mac());
    EXPECT_EQ(arp.find_mac().error, EHOSTUNREACH);
    EXPECT_EQ(sent(), question);
}

TEST_F(ArpOnTheWire, known_next_hop_is_found_without_a_question) {
    is_known = true;
    EXPECT_EQ(arp.known_mac(), next_hop);
    const LBArp::Mac found = arp.find_mac();
    EXPECT_EQ(found.error, 0);
    EXPECT_EQ(found.mac, next_hop);
    EXPECT_EQ(sent(), Bytes{});
}

TEST_F(ArpOnTheWire, next_hop_that_is_no_address_is_not_asked_for) {
    ask("dhcp", "192.0.2.10", "eth0");
    EXPECT_FALSE(arp.known_mac());
    EXPECT_EQ(arp.find_mac().error, EINVAL);
    EXPECT_EQ(sent(), Bytes{});
}

TEST_F(ArpOnTheWire, answer_of_the_next_hop_is_written) {
    arpreq written{};
    kernel.on_ioctl = [&written](unsigned long asked, void* argument) {
        written = *static_cast<arpreq*>(argument);
        return asked == SIOCSARP ? 0 : EINVAL;
    };
    EXPECT_TRUE(handle_arp_frame(arp_frame(2), *arp.targets));
    EXPECT_STREQ(written.arp_dev, "eth0");
    // Sender's MAC and address, and the first of the target's MAC.
    EXPECT_EQ(Bytes(written.arp_ha.sa_data, written.arp_ha.sa_data + 12),
              (Bytes{2, 0, 0, 0, 0, 2, 192, 0, 2, 1, 2, 0}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Arp, receiver_goes_on_after_an_interruption) {
    const DatagramPair frames;
    deliver(frames.far, arp_frame(2));
    for (const int error : {EINTR, EAGAIN}) {
        const FailCall interrupted(Call::recv, error, 1);
        const FailCall ended(Call::poll, ENETDOWN, 3);
        const auto targets = std::make_shared<AskedAddresses>();
        recv_arp(new NextHopReceiver{.targets = targets, .socket = frames.near.get()});
        EXPECT_EQ(targets->size(), 1U);
        deliver(frames.far, arp_frame(2));
    }
    EXPECT_EQ(log.lines(), errors({"<recv_arp> select() failed", "<recv_arp> select() failed"}));
}

TEST_F(Arp, receiver_that_cannot_start_is_reported_once) {
    start_with_a_receiver_socket();
    const FailCall no_thread(Call::pthread_create, EAGAIN);
    arp.received_arp();
    arp.received_arp();
    EXPECT_EQ(receiver_lines(), errors({"Can't create new thread for arp recv"}));
}

TEST_F(Arp, receiver_without_a_socket_is_tried_again_and_started_with_one) {
    constexpr const char* no_socket = "<recv_arp> socket() for _recv_sock failed ";
    LBArp::is_start_recv.set("arp test", false);
    ask("192.0.2.1");
    arp.received_arp();
    arp.received_arp();
    EXPECT_FALSE(LBArp::is_start_recv.get("arp test"));
    start_with_a_receiver_socket();
    const FailCall no_thread(Call::pthread_create, EAGAIN);
    arp.received_arp();
    EXPECT_EQ(receiver_lines(),
              errors({no_socket, no_socket, "Can't create new thread for arp recv"}));
}

TEST_F(Arp, receiver_without_a_socket_ends_with_a_message) {
    EXPECT_EQ(recv_arp(new NextHopReceiver{.targets = std::make_shared<AskedAddresses>()}),
              nullptr);
    EXPECT_EQ(log.lines(), errors({"<recv_arp> socket() for _recv_sock failed "}));
}

TEST_F(Arp, receiver_reports_a_failed_wait) {
    const DatagramPair frames;
    const FailCall failed(Call::poll, ENETDOWN);
    recv_arp(new NextHopReceiver{.targets = std::make_shared<AskedAddresses>(),
                                 .socket = frames.near.get()});
    EXPECT_EQ(log.lines(), errors({"<recv_arp> select() failed"}));
}

TEST_F(Arp, receiver_reports_a_failed_receive) {
    const DatagramPair frames;
    deliver(frames.far, arp_frame(1));
    const FailCall failed(Call::recv, ENETDOWN);
    recv_arp(new NextHopReceiver{.targets = std::make_shared<AskedAddresses>(),
                                 .socket = frames.near.get()});
    EXPECT_EQ(log.lines(), errors({"<recv_arp> recv() failed"}));
}

TEST_F(Arp, answer_of_an_address_never_asked_for_is_entered_but_not_written) {
    AskedAddresses targets;
    EXPECT_TRUE(handle_arp_frame(arp_frame(2), targets));
    EXPECT_EQ(targets.size(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Arp, requests_and_short_frames_are_ignored) {
    AskedAddresses targets;
    handle_arp_frame(arp_frame(1), targets);
    const Bytes reply = arp_frame(2);
    for (std::size_t length = 0; length < reply.size(); ++length) {
        handle_arp_frame(std::span(reply).first(length), targets);
    }
    EXPECT_EQ(targets.size(), 0U);
}

TEST_F(Arp, entry_that_the_kernel_refuses_is_reported_with_the_sender) {
    AskedAddresses targets;
    targets.set("192.0.2.1", "no such");
    handle_arp_frame(arp_frame(2), targets);
    EXPECT_EQ(log.lines(), errors({"<add_arp_entry> 192.0.2.1"}));
}

}  // namespace

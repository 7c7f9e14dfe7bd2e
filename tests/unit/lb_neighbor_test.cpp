#include "probe/lb_neighbor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

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

struct Neighbours : testing::Test {
    void ask(const std::string& address, const std::string& source = "2001:db8::2",
             const std::string& ifname = "lo") {
        neighbor.nsname = "neighbour test";
        neighbor.targets = std::make_shared<AskedAddresses>();
        neighbor.set_data(address, source, ifname);
    }
    /// What a solicitation writes to the standard error stream.
    std::string complaint() {
        LBNeighbor::is_start_recv.set("neighbour test", true);
        testing::internal::CaptureStderr();
        neighbor.send_request();
        fflush(stderr);
        return testing::internal::GetCapturedStderr();
    }
    LBNeighbor neighbor;
    CapturedLog log;
    unsigned char mac[6] = {};
};

TEST_F(Neighbours, unknown_next_hop_is_missing) {
    neighbor.view.begin_pass();
    ask("2001:db8::1");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, table_is_dumped_once_in_a_pass) {
    neighbor.view.begin_pass();
    const FailCall counted(Call::sendmsg, 0, 99);
    ask("2001:db8::1");
    neighbor.check_neighbor_exist(mac);
    ask("dhcp");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_EQ(counted.calls(), 1);
}

TEST_F(Neighbours, refused_entry_does_not_make_the_table_be_dumped_again) {
    neighbor.view.begin_pass();
    ask("2001:db8::1");
    neighbor.check_neighbor_exist(mac);
    {
        const FailCall refused(Call::sendmsg, EPERM);
        add_neighbor_entry("2001:db8::1", "lo", {});
    }
    const FailCall counted(Call::sendmsg, 0, 99);
    neighbor.check_neighbor_exist(mac);
    EXPECT_EQ(counted.calls(), 0);
}

TEST_F(Neighbours, failing_netlink_steps_are_reported) {
    ask("2001:db8::1");
    for (const Call call : {Call::mnl_socket_open, Call::mnl_socket_bind, Call::sendmsg}) {
        neighbor.view.begin_pass();
        const FailCall failed(call, EMFILE);
        EXPECT_EQ(neighbor.check_neighbor_exist(mac), -1);
    }
    EXPECT_EQ(log.lines(), errors({"Cannot open netlink socket", "Cannot bind netlink socket",
                                   "Cannot talk to rtnetlink"}));
    neighbor.view.begin_pass();
}

TEST_F(Neighbours, init_without_a_socket_is_reported) {
    const FailCall no_socket(Call::socket, EMFILE);
    neighbor.init("neighbour init");
    EXPECT_EQ(log.lines(), errors({"<init> socket() fo _send_sock failed "}));
    EXPECT_EQ(neighbor.targets, nullptr);
}

/// A solicitation that cannot leave: it complains on the standard error stream only.
struct Solicitation : Neighbours {
    ~Solicitation() override { EXPECT_TRUE(log.lines().empty()); }
};

TEST_F(Solicitation, on_an_unknown_interface) {
    ask("2001:db8::1", "2001:db8::2", "no such");
    EXPECT_EQ(complaint(), "ioctl() failed to get source MAC address : No such device\n");
}

TEST_F(Solicitation, for_what_is_no_address) {
    ask("nonsense");
    EXPECT_EQ(complaint(), "inet_pton() failed.\nError message: Success");
}

TEST_F(Solicitation, from_what_is_no_address) {
    ask("2001:db8::1", "nonsense");
    EXPECT_EQ(complaint(), "inet_pton() failed.\nError message: Success");
}

TEST_F(Solicitation, on_an_interface_without_an_index) {
    ask("2001:db8::1");
    const FailCall no_index(Call::ioctl, ENODEV, 2);
    EXPECT_EQ(complaint(), "if_nametoindex() failed to obtain interface index : No such device\n");
}

TEST_F(Solicitation, to_a_group_that_cannot_be_printed) {
    ask("2001:db8::1");
    const FailCall no_text(Call::inet_ntop, ENOSPC);
    EXPECT_EQ(complaint(), "inet_ntop() failed.\nError message: No space left on device");
}

TEST_F(Solicitation, without_a_send_socket) {
    ask("2001:db8::1");
    EXPECT_TRUE(complaint().starts_with("sendto() failed: "));
}

TEST_F(Neighbours, unknown_next_hop_is_asked_for_from_the_interfaces_addresses) {
    GivenKernel kernel;
    kernel.on_ioctl = [](unsigned long request, void* argument) {
        if (request == SIOCGIFHWADDR) {
            const Bytes own{2, 0, 0, 0, 0, 10};
            std::copy(own.begin(), own.end(), static_cast<ifreq*>(argument)->ifr_hwaddr.sa_data);
        }
        return 0;
    };
    DatagramPair wire;
    LBNeighbor::_send_sock.set("neighbour test", wire.near.release());
    ask("2001:db8::1:2:3");
    EXPECT_EQ(complaint(), "");
    Bytes frame(128);
    ASSERT_EQ(recv(wire.far.get(), frame.data(), frame.size(), MSG_DONTWAIT), 86);
    EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 12),
              (Bytes{0x33, 0x33, 0xff, 2, 0, 3, 2, 0, 0, 0, 0, 10}));
    EXPECT_EQ(Bytes(frame.begin() + 22, frame.begin() + 38),  // source
              (Bytes{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}));
    EXPECT_EQ(Bytes(frame.begin() + 62, frame.begin() + 78),  // target
              (Bytes{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2, 0, 3}));
    // The socket stays for the next one.
    EXPECT_EQ(complaint(), "");
    EXPECT_EQ(recv(wire.far.get(), frame.data(), frame.size(), MSG_DONTWAIT), 86);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, entry_that_a_receiver_has_written_is_found_in_the_same_pass) {
    GivenKernel kernel;
    kernel.on_request = [&kernel](const Bytes& request) {
        const bool is_dump = messages_of(request, 12).at(0).type == RTM_GETNEIGH;
        kernel.answers.push_back(is_dump ? netlink_message(NLMSG_DONE, 0, Bytes(4))
                                         : netlink_answer(0, 0));
    };
    neighbor.view.begin_pass();
    ask("2001:db8::1");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_EQ(kernel.requests.size(), 1U);
    AskedAddresses targets;
    targets.set("2001:db8::1", "lo");
    handle_advertisement(advertisement(), targets);
    EXPECT_EQ(kernel.requests.size(), 2U);
    EXPECT_EQ(messages_of(kernel.requests.at(1), 12).at(0).attributes.at("2"), "020000000009");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_EQ(kernel.requests.size(), 3U);
}

TEST_F(Neighbours, failed_send_closes_the_socket_for_good) {
    LBNeighbor::_send_sock.set("neighbour test", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int before = LBNeighbor::_send_sock.get("neighbour test");
    ask("2001:db8::1");
    {
        const FailCall no_send(Call::sendto, ENOBUFS);
        EXPECT_EQ(complaint(), "sendto() failed: No buffer space available\n");
    }
    EXPECT_EQ(fcntl(before, F_GETFD), -1);
    EXPECT_TRUE(complaint().starts_with("sendto() failed: "));
}

TEST_F(Neighbours, receiver_that_cannot_start_is_reported_once) {
    LBNeighbor::is_start_recv.set("neighbour test", false);
    ask("2001:db8::1", "2001:db8::2", "no such");
    testing::internal::CaptureStderr();
    neighbor.send_request();  // opens the receiver's socket
    fflush(stderr);
    testing::internal::GetCapturedStderr();
    const FailCall no_thread(Call::pthread_create, EAGAIN);
    neighbor.receive_reply();
    neighbor.receive_reply();
    EXPECT_EQ(log.lines(), errors({"Can't create new thread for neigh recv"}));
}

TEST_F(Neighbours, receiver_without_a_socket_ends_with_a_message) {
    recv_neighbor(new NextHopReceiver{.targets = std::make_shared<AskedAddresses>()});
    EXPECT_EQ(log.lines(), errors({"<recv_neighbor> socket() for _recv_sock failed "}));
}

TEST_F(Neighbours, receiver_reports_a_failed_wait_and_a_failed_receive) {
    const DatagramPair frames;
    deliver(frames.far, advertisement());
    for (const Call call : {Call::poll, Call::recv}) {
        const FailCall failed(call, ENETDOWN);
        recv_neighbor(new NextHopReceiver{.targets = std::make_shared<AskedAddresses>(),
                                          .socket = frames.near.get()});
    }
    EXPECT_EQ(log.lines(), errors({"select() failed", "recv() failed"}));
}

TEST_F(Neighbours, advertisement_never_asked_for_is_entered_but_not_written) {
    AskedAddresses targets;
    EXPECT_TRUE(handle_advertisement(advertisement(), targets));
    EXPECT_EQ(targets.size(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, other_frames_are_ignored) {
    AskedAddresses targets;
    Bytes solicitation = advertisement();
    solicitation[54] = 135;
    handle_advertisement(solicitation, targets);
    Bytes ipv4 = advertisement();
    ipv4[12] = 0x08;
    handle_advertisement(ipv4, targets);
    Bytes udp_from_port_34816 = advertisement();
    udp_from_port_34816[20] = 17;
    handle_advertisement(udp_from_port_34816, targets);
    const Bytes whole = advertisement();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        handle_advertisement(std::span(whole).first(length), targets);
    }
    EXPECT_EQ(targets.size(), 0U);
}

TEST_F(Neighbours, entry_for_an_interface_that_is_gone_is_reported) {
    AskedAddresses targets;
    targets.set("2001:db8::1", "no such");
    handle_advertisement(advertisement(), targets);
    add_neighbor_entry("nonsense", "lo", {});
    EXPECT_EQ(
        log.lines(),
        errors({"if_nametoindex() failed to obtain interface index No such device", "inet_pton"}));
}

TEST_F(Neighbours, target_that_cannot_be_printed_ends_the_receiver) {
    AskedAddresses targets;
    const FailCall no_text(Call::inet_ntop, ENOSPC);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(handle_advertisement(advertisement(), targets));
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "inet_ntop() failed.\nError message: No space left on device");
}

}  // namespace

#include "host/packets.h"

#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(Sockets, that_cannot_be_had_tell_the_error) {
    const FailCall fail(Call::socket, EMFILE);
    for (const host::OpenedSocket& opened :
         {host::open_frame_sender(), host::open_echo_sender(false), host::open_echo_sender(true),
          host::open_reply_receiver(false, 7), host::open_arp_receiver(),
          host::open_advertisement_receiver()}) {
        EXPECT_FALSE(opened.is_open());
        EXPECT_EQ(opened.error, EMFILE);
    }
}

TEST(Sockets, that_cannot_be_filtered_are_not_kept) {
    const FailCall fail(Call::setsockopt, ENOMEM);
    EXPECT_FALSE(host::open_arp_receiver().is_open());
    EXPECT_FALSE(host::open_reply_receiver(true, 7).is_open());
}

TEST(Sockets, that_cannot_be_filtered_or_bound_tell_the_error) {
    const host::OpenedSocket sender = host::open_frame_sender();
    if (!sender.is_open()) {
        GTEST_SKIP() << "needs the right to have packet sockets";
    }
    host::close_socket(sender.number);
    {
        const FailCall fail(Call::setsockopt, ENOMEM);
        EXPECT_EQ(host::open_arp_receiver().error, ENOMEM);
        EXPECT_EQ(host::open_reply_receiver(true, 7).error, ENOMEM);
        EXPECT_EQ(host::open_echo_sender(false).error, ENOMEM);
    }
    const FailCall fail(Call::bind, EADDRINUSE);
    EXPECT_EQ(host::open_arp_receiver().error, EADDRINUSE);
    EXPECT_EQ(host::open_advertisement_receiver().error, EADDRINUSE);
}

/// What left, with the address that the kernel was given; nothing really leaves.
struct Leaving : testing::Test {
    struct Sent {
        Bytes address;
        Bytes message;
    };
    Leaving() {
        static constexpr faults::StandIns calls{.sendto = take_one, .sendmmsg = take_many};
        sent.clear();
        faults::set_stand_ins(calls);
    }
    ~Leaving() override { faults::reset_stand_ins(); }

    static Bytes bytes_at(const void* data, std::size_t size) {
        const auto* first = static_cast<const std::uint8_t*>(data);
        return {first, first + size};
    }
    static ssize_t take_one(int /*fd*/, const void* data, size_t size, int /*flags*/,
                            const sockaddr* to, socklen_t length) {
        sent.push_back({bytes_at(to, length), bytes_at(data, size)});
        return static_cast<ssize_t>(size);
    }
    /// Two at most in a call.
    static int take_many(int /*fd*/, mmsghdr* messages, unsigned count, int /*flags*/) {
        const unsigned taken = std::min(count, 2U);
        for (unsigned i = 0; i < taken; ++i) {
            const msghdr& message = messages[i].msg_hdr;
            sent.push_back({bytes_at(message.msg_name, message.msg_namelen),
                            bytes_at(message.msg_iov->iov_base, message.msg_iov->iov_len)});
        }
        return static_cast<int>(taken);
    }
    template <class Address>
    static Address address_of(std::size_t number) {
        Address address{};
        EXPECT_EQ(sent.at(number).address.size(), sizeof address);
        std::memcpy(&address, sent.at(number).address.data(),
                    std::min(sizeof address, sent.at(number).address.size()));
        return address;
    }
    static void expect_link_address(std::size_t number, int index, std::uint8_t last_of_mac) {
        const auto address = address_of<sockaddr_ll>(number);
        EXPECT_EQ(address.sll_family, AF_PACKET);
        EXPECT_EQ(address.sll_ifindex, index);
        EXPECT_EQ(address.sll_halen, 6);
        EXPECT_EQ(Bytes(address.sll_addr, address.sll_addr + 6),
                  (Bytes{2, 0, 0, 0, 0, last_of_mac}));
    }

    static inline std::vector<Sent> sent;
};

TEST_F(Leaving, frame_has_its_interface_and_mac) {
    const Bytes frame{1, 2, 3};
    EXPECT_EQ(host::send_frame(5, 7, MacAddress{2, 0, 0, 0, 0, 9}, frame).count, 3);
    expect_link_address(0, 7, 9);
    EXPECT_EQ(sent[0].message, frame);
}

TEST_F(Leaving, frames_have_each_their_own_and_all_leave_in_several_calls) {
    const std::array<Bytes, 3> frames{Bytes{1}, Bytes{2, 2}, Bytes{3}};
    const std::array outgoing{
        host::OutgoingFrame{
            .interface_index = 7, .own_mac = {2, 0, 0, 0, 0, 1}, .frame = frames[0]},
        host::OutgoingFrame{
            .interface_index = 8, .own_mac = {2, 0, 0, 0, 0, 2}, .frame = frames[1]},
        host::OutgoingFrame{
            .interface_index = 9, .own_mac = {2, 0, 0, 0, 0, 3}, .frame = frames[2]}};
    const host::Transfer left = host::send_frames(5, outgoing);
    EXPECT_EQ(left.count, 3);
    EXPECT_EQ(left.error, 0);
    ASSERT_EQ(sent.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i) {
        expect_link_address(i, static_cast<int>(7 + i), static_cast<std::uint8_t>(1 + i));
        EXPECT_EQ(sent[i].message, frames[i]);
    }
}

TEST_F(Leaving, frames_before_one_that_fails_are_counted) {
    const Bytes frame{1};
    const std::array<host::OutgoingFrame, 3> outgoing{
        host::OutgoingFrame{.interface_index = 7, .own_mac = {}, .frame = frame},
        host::OutgoingFrame{.interface_index = 7, .own_mac = {}, .frame = frame},
        host::OutgoingFrame{.interface_index = 7, .own_mac = {}, .frame = frame}};
    const FailCall second_call(Call::sendmmsg, ENOBUFS, 2);
    const host::Transfer left = host::send_frames(5, outgoing);
    EXPECT_EQ(left.count, 2);
    EXPECT_EQ(left.error, ENOBUFS);
}

TEST_F(Leaving, echo_has_the_address_of_its_target) {
    host::send_echo(5, {192, 0, 2, 1}, Bytes{8});
    const auto address = address_of<sockaddr_in>(0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohl(address.sin_addr.s_addr), 0xc0000201U);
    EXPECT_EQ(sent[0].message, Bytes{8});
}

TEST_F(Leaving, ipv6_echo_has_the_address_and_scope_of_its_target) {
    Ipv6Bytes target{0xfe, 0x80};
    target[15] = 1;
    host::send_echo6(5, target, 3, Bytes{128});
    const auto address = address_of<sockaddr_in6>(0);
    EXPECT_EQ(address.sin6_family, AF_INET6);
    EXPECT_EQ(std::memcmp(&address.sin6_addr, target.data(), target.size()), 0);
    EXPECT_EQ(address.sin6_scope_id, 3U);
}

TEST(BindToInterface, holds_the_socket_to_it_or_tells_the_error) {
    const Fd opened(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(host::bind_to_interface(opened.get(), "no such"), ENODEV);
    EXPECT_EQ(host::bind_to_interface(opened.get(), "lo"), 0);
    std::array<char, 16> name{};
    socklen_t length = name.size();
    getsockopt(opened.get(), SOL_SOCKET, SO_BINDTODEVICE, name.data(), &length);
    EXPECT_STREQ(name.data(), "lo");
}

TEST(SendFrame, failure_is_that_of_sendto) {
    const FailCall fail(Call::sendto, ENETUNREACH);
    const host::Transfer sent = host::send_frame(-1, 1, MacAddress{}, {});
    EXPECT_EQ(sent.count, -1);
    EXPECT_EQ(sent.error, ENETUNREACH);
}

TEST(Receive, failure_is_that_of_recv) {
    const FailCall fail(Call::recv, ENOBUFS);
    std::array<std::uint8_t, 4> buffer{};
    EXPECT_EQ(host::receive(-1, buffer).error, ENOBUFS);
}

TEST(WaitForPacket, is_woken_by_a_packet_by_its_bell_first_and_by_the_time) {
    const DatagramPair pair;
    host::Bell bell;
    EXPECT_EQ(host::wait_for_packet(pair.near.get(), bell, 1000), host::Woken::by_time);

    deliver(pair.far, {1});
    EXPECT_EQ(host::wait_for_packet(pair.near.get(), bell, 1000), host::Woken::by_packet);

    bell.ring();
    EXPECT_EQ(host::wait_for_packet(pair.near.get(), bell, 1000), host::Woken::by_bell);
    bell.silence();
    EXPECT_EQ(host::wait_for_packet(pair.near.get(), bell, 1000), host::Woken::by_packet);
}

TEST(WaitForPacket, that_the_kernel_refuses_has_failed) {
    const DatagramPair pair;
    const host::Bell bell;
    EXPECT_EQ(host::wait_for_packet(pair.near.get(), bell, -1), host::Woken::failed);
}

}  // namespace

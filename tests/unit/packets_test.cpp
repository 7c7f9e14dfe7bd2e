#include "host/packets.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>

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

}  // namespace

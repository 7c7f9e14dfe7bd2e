#include "net/sockets.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(Sockets, send_only_socket_is_closed_when_none_can_be_had) {
    const FailCall fail(Call::socket, EMFILE);
    const Fd sender = open_send_only_packet_socket();
    EXPECT_FALSE(sender.is_open());
    EXPECT_EQ(errno, EMFILE);
}

TEST(SendFrame, failure_is_that_of_sendto) {
    const FailCall fail(Call::sendto, ENETUNREACH);
    EXPECT_EQ(send_frame(-1, 1, MacAddress{}, {}), -1);
    EXPECT_EQ(errno, ENETUNREACH);
}

}  // namespace

// How the echoes of a pass leave: in their order, each after its record, each failure for its own.

#include "probe/outbox.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>
#include <vector>

#include "probe/lb_test.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

struct Echoes : testing::Test {
    /// An echo whose frame is this one byte; its record is entered already unless it says so.
    OutgoingEcho echo(std::uint8_t content, bool is_entered = true) {
        const Bytes frame{content};
        const Ipv4Bytes source{192, 0, 2, 1};
        OutgoingEcho made =
            outgoing_echo(ipv4_probes, socket.near.get(), {}, source, source, frame);
        made.record.is_entered = is_entered;
        return made;
    }
    /// What has left, a byte for each frame.
    Bytes sent() {
        Bytes bytes;
        std::uint8_t byte = 0;
        while (recv(socket.far.get(), &byte, 1, MSG_DONTWAIT) == 1) {
            bytes.push_back(byte);
        }
        return bytes;
    }
    std::vector<std::string> told() {
        std::vector<std::string> texts;
        for (const LogLine& line : log.lines()) {
            texts.push_back(line.text);
        }
        return texts;
    }

    const std::string no_record = "<create_conntrack_record> mnl_socket_open: Too many open files";
    DatagramPair socket;
    host::ConnectionTracking tracking;
    Outbox outbox{tracking};
    CapturedLog log;
};

TEST_F(Echoes, leave_at_once_outside_of_a_pass) {
    EXPECT_EQ(outbox.take(echo(1)).count, 1);
    EXPECT_EQ(sent(), Bytes{1});
}

TEST_F(Echoes, of_a_pass_leave_in_their_order_at_its_end) {
    {
        const Outbox::Collecting pass(outbox);
        for (const int number : {1, 2, 3}) {
            EXPECT_EQ(outbox.take(echo(static_cast<std::uint8_t>(number))).count, 1);
        }
        EXPECT_TRUE(sent().empty());
    }
    EXPECT_EQ(sent(), (Bytes{1, 2, 3}));
    EXPECT_TRUE(told().empty());
}

TEST_F(Echoes, leave_before_what_is_told_in_between) {
    const Outbox::Collecting pass(outbox);
    outbox.take(echo(1));
    outbox.send_waiting();
    EXPECT_EQ(sent(), Bytes{1});
}

TEST_F(Echoes, never_wait_for_more_than_63_others) {
    const Outbox::Collecting pass(outbox);
    for (int i = 0; i < 64; ++i) {
        EXPECT_TRUE(sent().empty()) << i;
        outbox.take(echo(1));
    }
    EXPECT_EQ(sent().size(), 64U);
}

TEST_F(Echoes, one_that_cannot_leave_is_told_and_holds_nobody_up) {
    {
        const FailCall first_lost(Call::sendmmsg, ENOBUFS, 1);
        const Outbox::Collecting pass(outbox);
        for (const int number : {1, 2, 3}) {
            outbox.take(echo(static_cast<std::uint8_t>(number)));
        }
    }
    EXPECT_EQ(sent(), (Bytes{2, 3}));
    EXPECT_EQ(told(), (std::vector<std::string>{"wan_lb: error on sending icmp packet: 105"}));
}

TEST_F(Echoes, unreachable_network_is_not_told) {
    {
        const FailCall none(Call::sendmmsg, ENETUNREACH);
        const Outbox::Collecting pass(outbox);
        outbox.take(echo(1));
    }
    EXPECT_TRUE(told().empty());
}

TEST_F(Echoes, failures_are_told_echo_by_echo_the_record_first) {
    {
        const FailCall no_tracking(Call::mnl_socket_open, EMFILE);
        const FailCall second_lost(Call::sendto, ENOBUFS, 2);
        const Outbox::Collecting pass(outbox);
        outbox.take(echo(1, false));
        outbox.take(echo(2, false));
        outbox.take(echo(3));
    }
    EXPECT_EQ(sent(), (Bytes{1, 3}));
    EXPECT_EQ(told(), (std::vector<std::string>{no_record, no_record,
                                                "wan_lb: error on sending icmp packet: 105"}));
}

}  // namespace

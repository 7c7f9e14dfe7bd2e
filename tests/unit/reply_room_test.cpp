// The room of a reply socket, and what is told of replies that found none. A datagram socket of the
// loopback stands for the raw one: the kernel counts both alike.

#include "probe/reply_room.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>

#include "base/fd.h"
#include "probe/lb_test.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/given_clock.h"

namespace {

struct Room : testing::Test {
    Room() {
        sockaddr_in loopback{};
        loopback.sin_family = AF_INET;
        loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof loopback;
        auto* const address = reinterpret_cast<sockaddr*>(&loopback);
        EXPECT_EQ(bind(near.get(), address, length), 0);
        EXPECT_EQ(getsockname(near.get(), address, &length), 0);
        EXPECT_EQ(connect(far.get(), address, length), 0);
        LBTest::_recv_icmp_sock.set(ns_name, near.get());
    }
    ~Room() override { LBTest::_recv_icmp_sock.set(ns_name, 0); }

    /// Leaves room for a few datagrams only, whatever the test's rights.
    void make_small() {
        const int bytes = 4096;
        setsockopt(near.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    void send(int datagrams) {
        for (int i = 0; i < datagrams; ++i) {
            EXPECT_EQ(::send(far.get(), "", 1, 0), 1);
        }
    }
    /// Sends more than there is room for; how many were lost.
    std::uint32_t overflow() {
        const std::uint32_t before = host::dropped_packets(near.get());
        send(100);
        return host::dropped_packets(near.get()) - before;
    }
    void report() { room.report_drops(ipv4_probes, ns_name); }

    const std::string ns_name = "room";
    const Fd near{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const Fd far{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ReplyRoom room;
    GivenClock clock;
    CapturedLog log;
};

TEST_F(Room, is_asked_for_once_and_anew_for_another_number_of_probes) {
    const faults::FailCall counted(faults::Call::setsockopt, 0, 99);
    room.make(ipv4_probes, ns_name, 10);
    const int once = counted.calls();
    EXPECT_GE(once, 1);
    room.make(ipv4_probes, ns_name, 10);
    EXPECT_EQ(counted.calls(), once);
    room.make(ipv4_probes, ns_name, 11);
    EXPECT_GT(counted.calls(), once);
}

TEST_F(Room, grows_with_the_probes_and_has_a_least_size) {
    EXPECT_EQ(host::make_room(near.get(), 1).wanted, 16 << 20);
    EXPECT_EQ(host::make_room(near.get(), 5000).wanted, 5000 * 4096);
    EXPECT_EQ(host::make_room(near.get(), 2'000'000'000).wanted, 256 << 20);
}

TEST_F(Room, without_the_right_is_what_the_limit_of_the_machine_grants) {
    const faults::FailCall no_right(faults::Call::setsockopt, EPERM, 1);
    const host::ReceiverRoom granted = host::make_room(near.get(), 65'000);
    EXPECT_EQ(no_right.calls(), 2);
    EXPECT_GT(granted.granted, 0);
    EXPECT_LT(granted.granted, granted.wanted);
}

TEST_F(Room, with_the_right_is_not_asked_for_within_the_limit_as_well) {
    const int some = 1 << 20;
    if (setsockopt(near.get(), SOL_SOCKET, SO_RCVBUFFORCE, &some, sizeof some) != 0) {
        GTEST_SKIP() << "needs the right to go beyond the machine's limit";
    }
    const faults::FailCall counted(faults::Call::setsockopt, 0, 99);
    host::make_room(near.get(), 1);
    EXPECT_EQ(counted.calls(), 1);
}

TEST_F(Room, nothing_is_told_while_nothing_is_lost) {
    room.make(ipv4_probes, ns_name, 1);
    send(10);
    report();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Room, losses_are_told_at_once_and_then_once_an_hour) {
    if (const auto got = host::make_room(near.get(), 1); got.granted < got.wanted) {
        GTEST_SKIP() << "needs the right to go beyond the machine's limit";
    }
    room.make(ipv4_probes, ns_name, 1);
    make_small();
    const auto first = overflow();
    ASSERT_GT(first, 0U);
    report();
    const auto line = [](std::uint32_t count, const char* bytes) {
        return LogLine{4, "%WAN-W-WARN: wan_lb: " + std::to_string(count) +
                              " ipv4 replies dropped unread, more at once than " + bytes +
                              " bytes hold; who sends them shows: tcpdump -n icmp"};
    };
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{line(first, "16777216")}));

    auto later = overflow();
    report();
    clock.advance_ms(3'599'999);
    report();
    EXPECT_EQ(log.lines().size(), 1U);
    later += overflow();
    clock.advance_ms(1);
    report();
    EXPECT_EQ(log.lines().back(), line(later, "16777216"));
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(Room, losses_behind_a_limit_name_the_command_that_lifts_it) {
    {
        const faults::FailCall no_right(faults::Call::setsockopt, EPERM);
        room.make(ipv4_probes, ns_name, 65'000);
    }
    int granted = 0;
    socklen_t size = sizeof granted;
    getsockopt(near.get(), SOL_SOCKET, SO_RCVBUF, &granted, &size);
    make_small();
    const auto lost = overflow();
    report();
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{4, "%WAN-W-WARN: wan_lb: " + std::to_string(lost) +
                                      " ipv4 replies dropped unread, for their room is " +
                                      std::to_string(granted) + " of 266240000 bytes; run: " +
                                      "sysctl -w net.core.rmem_max=133120000, then restart"}}));
}

}  // namespace

// Whole runs of the extended ping over a tunnel's socket, with a scripted far end and a given
// clock.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <functional>
#include <utility>

#include "host/clock.h"
#include "host/linux/clock_source.h"
#include "probe/lb_test_ping.h"
#include "probe/reply_socket.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

constexpr std::uint32_t packet_id = 0x7001;
const std::string namespace_name = "extended ping";

/// The far end of the tunnel. It acts when the prober looks at the clock: the first look after an
/// echo went out begins the wait for its answer, and only then the far end takes the echo. So no
/// thread and no real time is involved.
class FarEnd {
  public:
    using Act = std::function<void(FarEnd&, std::uint16_t sequence)>;

    explicit FarEnd(Act act) : act_(std::move(act)) {
        playing_ = this;
        set_clock_source({.monotonic = look});
    }
    ~FarEnd() {
        set_clock_source({});
        playing_ = nullptr;
    }
    FarEnd(const FarEnd&) = delete;
    FarEnd& operator=(const FarEnd&) = delete;

    void pass_ms(std::int64_t passed_ms) { now_ms_ += passed_ms; }
    /// Time passes once the prober has looked at what came so far.
    void pass_later_ms(std::int64_t passed_ms) { later_ms_ = passed_ms; }
    void send(const Bytes& datagram) { deliver(replies.far, datagram); }
    void answer_after(std::int64_t rtt_ms, std::uint16_t sequence) {
        pass_ms(rtt_ms);
        send(echo_reply4(packet_id, sequence));
    }

    DatagramPair echoes;
    DatagramPair replies;
    std::vector<Bytes> received;

  private:
    static timespec look() {
        const std::int64_t now_ms = playing_->now_ms_;
        playing_->now_ms_ += std::exchange(playing_->later_ms_, 0);
        playing_->take_echo();
        return {.tv_sec = now_ms / 1000, .tv_nsec = static_cast<long>(now_ms % 1000 * 1'000'000)};
    }
    void take_echo() {
        Bytes echo(100);
        const ssize_t length = recv(echoes.far.get(), echo.data(), echo.size(), MSG_DONTWAIT);
        if (length > 7) {
            echo.resize(static_cast<std::size_t>(length));
            received.push_back(echo);
            act_(*this, static_cast<std::uint16_t>(echo[6] << 8 | echo[7]));
        }
    }

    inline static FarEnd* playing_ = nullptr;
    Act act_;
    std::int64_t now_ms_ = 1'000'000;
    std::int64_t later_ms_ = 0;
};

void answer_in_5_ms(FarEnd& far_end, std::uint16_t sequence) {
    far_end.answer_after(5, sequence);
}

/// Answers in 5 ms, but loses the fifth echo.
void lose_the_fifth(FarEnd& far_end, std::uint16_t sequence) {
    if (sequence == 4) {
        far_end.pass_ms(1000);
    } else {
        far_end.answer_after(5, sequence);
    }
}

struct ExtendedPing : testing::Test {
    ExtendedPing() {
        health.success_ct = 9;
        health.failure_ct = 9;
        probe.ns_name = namespace_name;
        probe.last_loss = 77;  // of a run before
    }
    ~ExtendedPing() override { LBTest::_recv_icmp_sock.set(namespace_name, 0); }

    int run(FarEnd& far_end, const std::string& target = "127.0.0.1") {
        LBTest::_recv_icmp_sock.set(namespace_name, far_end.replies.near.get());
        return probe.send_for_tunnel(far_end.echoes.near.get(), health, target, packet_id, ctx);
    }
    int successes() const { return health.get_success_ct_by_str("127.0.0.1"); }
    int failures() const { return health.get_failure_ct_by_str("127.0.0.1"); }
    void expect_recorded_failure() {
        EXPECT_EQ(failures(), 1);
        EXPECT_EQ(probe.last_result, 2);
    }

    CapturedLog log;
    TestContext ctx{false, namespace_name};
    LBHealth health{"lo", false};
    LBTestPING probe;
};

TEST_F(ExtendedPing, all_answered_alike_is_a_success) {
    FarEnd far_end(answer_in_5_ms);
    EXPECT_EQ(run(far_end), 0);
    EXPECT_EQ(successes(), 1);
    EXPECT_EQ(probe.last_result, 1);
    EXPECT_EQ(probe.last_loss, 0);
    EXPECT_EQ(probe.last_rtt, 5);
    EXPECT_EQ(probe.last_jitter, 0);
}

TEST_F(ExtendedPing, one_of_ten_lost_counts_with_its_whole_wait) {
    FarEnd far_end(lose_the_fifth);
    EXPECT_EQ(run(far_end), 0);
    expect_recorded_failure();
    EXPECT_EQ(probe.last_loss, 10);
    EXPECT_EQ(probe.last_rtt, 104);
    EXPECT_EQ(probe.last_jitter, 896);
}

TEST_F(ExtendedPing, result_at_a_limit_fails_and_below_all_three_succeeds) {
    struct Limits {
        int loss, rtt, jitter, result;
    };
    for (const Limits& limits : std::array{Limits{11, 105, 897, 1}, Limits{10, 105, 897, 2},
                                           Limits{11, 104, 897, 2}, Limits{11, 105, 896, 2}}) {
        FarEnd far_end(lose_the_fifth);
        probe.loss = limits.loss;
        probe.rtt = limits.rtt;
        probe.jitter = limits.jitter;
        run(far_end);
        EXPECT_EQ(probe.last_result, limits.result)
            << limits.loss << ' ' << limits.rtt << ' ' << limits.jitter;
    }
}

TEST_F(ExtendedPing, loss_limit_of_zero_fails_every_run) {
    FarEnd far_end(answer_in_5_ms);
    probe.loss = 0;
    run(far_end);
    expect_recorded_failure();
}

TEST_F(ExtendedPing, lost_first_echo_ends_the_run) {
    FarEnd far_end([](FarEnd& end, std::uint16_t) { end.pass_ms(1000); });
    EXPECT_EQ(run(far_end), -1);
    expect_recorded_failure();
    EXPECT_EQ(far_end.received.size(), 1U);
    EXPECT_EQ(probe.last_loss, 77);
}

TEST_F(ExtendedPing, mean_is_of_the_configured_count) {
    FarEnd far_end([](FarEnd& end, std::uint16_t sequence) {
        end.answer_after(sequence == 0 ? 8 : 1, sequence);
    });
    probe.count = 3;
    run(far_end);
    EXPECT_EQ(probe.last_rtt, 3);  // 10 / 3
    EXPECT_EQ(probe.last_jitter, 5);
}

TEST_F(ExtendedPing, sequence_counts_up_and_the_packet_identifier_stays) {
    FarEnd far_end(answer_in_5_ms);
    probe.count = 3;
    run(far_end);
    ASSERT_EQ(far_end.received.size(), 3U);
    for (std::uint8_t i = 0; i < 3; ++i) {
        const Bytes& echo = far_end.received[i];
        ASSERT_EQ(echo.size(), 24U);
        EXPECT_EQ(Bytes(echo.begin(), echo.begin() + 2), (Bytes{8, 0}));
        const Bytes expected{0, i, 0, 0, 0x70, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(Bytes(echo.begin() + 6, echo.end()), expected);
        std::uint32_t sum = 0;
        for (std::size_t word = 0; word < echo.size(); word += 2) {
            sum += static_cast<std::uint32_t>(echo[word] << 8 | echo[word + 1]);
        }
        EXPECT_EQ(sum % 0xffff, 0U);  // a right checksum sums up to all ones
    }
}

/// Changes the answer to the first echo of a run at one offset; there is no other. The echo counts
/// as lost, which ends the run with -1; taken for its answer, it would bring the run to a verdict.
int run_with_answer_changed(std::size_t offset, std::uint8_t value, ExtendedPing& test) {
    FarEnd far_end([offset, value](FarEnd& end, std::uint16_t sequence) {
        Bytes answer = echo_reply4(packet_id, sequence);
        answer[offset] = value;
        end.send(answer);
        end.pass_later_ms(1000);
    });
    test.probe.count = 1;
    return test.run(far_end);
}

TEST_F(ExtendedPing, answer_of_another_source_is_refused) {
    EXPECT_EQ(run_with_answer_changed(15, 2, *this), -1);
}

TEST_F(ExtendedPing, answer_with_another_packet_identifier_is_refused) {
    EXPECT_EQ(run_with_answer_changed(31, 2, *this), -1);
}

TEST_F(ExtendedPing, answer_with_another_sequence_is_refused) {
    EXPECT_EQ(run_with_answer_changed(27, 2, *this), -1);
}

TEST_F(ExtendedPing, icmp_type_of_an_answer_is_not_looked_at) {
    FarEnd far_end([](FarEnd& end, std::uint16_t sequence) {
        Bytes answer = echo_reply4(packet_id, sequence);
        answer[20] = 3;
        end.send(answer);
    });
    run(far_end);
    EXPECT_EQ(probe.last_result, 1);
}

TEST_F(ExtendedPing, late_answer_to_an_earlier_echo_does_not_count) {
    FarEnd far_end([](FarEnd& end, std::uint16_t sequence) {
        if (sequence == 1) {
            end.pass_ms(1000);
            return;
        }
        if (sequence == 2) {
            end.send(echo_reply4(packet_id, 1));
        }
        end.answer_after(5, sequence);
    });
    probe.count = 4;
    probe.loss = 26;
    run(far_end);
    EXPECT_EQ(probe.last_loss, 25);
    EXPECT_EQ(probe.last_rtt, (3 * 5 + 1000) / 4);
}

TEST_F(ExtendedPing, answer_that_the_receiver_thread_took_counts) {
    FarEnd far_end([](FarEnd& end, std::uint16_t sequence) {
        end.pass_ms(5);
        offer_to_waiting_ping(namespace_name, echo_reply4(packet_id, sequence));
    });
    run(far_end);
    EXPECT_EQ(probe.last_result, 1);
    EXPECT_EQ(probe.last_rtt, 5);
}

TEST_F(ExtendedPing, replies_to_echo_probes_reach_them) {
    timespec last_sent{};
    const auto before_the_run = register_probe(ipv4_probes, "extended ping", "a", last_sent);
    const auto during_the_run = register_probe(ipv4_probes, "extended ping", "b", last_sent);
    FarEnd far_end([during_the_run](FarEnd& end, std::uint16_t sequence) {
        end.send(echo_reply4(static_cast<std::uint32_t>(*during_the_run)));
        end.answer_after(5, sequence);
    });
    far_end.send(echo_reply4(static_cast<std::uint32_t>(*before_the_run)));
    run(far_end);
    EXPECT_EQ(probe.last_result, 1);
    for (const char* target : {"a", "b"}) {
        EXPECT_EQ(collect_probe(ipv4_probes, "extended ping", target, 0, monotonic_now()),
                  ProbeOutcome::answered);
    }
}

TEST_F(ExtendedPing, failed_send_ends_the_run) {
    FarEnd far_end(answer_in_5_ms);
    const faults::FailCall third_lost(faults::Call::sendto, ENOBUFS, 3);
    EXPECT_EQ(run(far_end), -1);
    EXPECT_EQ(errno, ENOBUFS);
    expect_recorded_failure();
    EXPECT_EQ(far_end.received.size(), 2U);
    EXPECT_EQ(probe.last_loss, 77);
}

TEST_F(ExtendedPing, wait_of_broken_seconds_is_invalid_on_a_tunnel) {
    FarEnd far_end(answer_in_5_ms);
    probe.ping_timeout = {.tv_sec = 1, .tv_nsec = 1'000'000};
    EXPECT_EQ(run(far_end), -1);
    expect_recorded_failure();
}

TEST_F(ExtendedPing, run_of_no_echoes_fails) {
    for (const int count : {0, -1}) {
        FarEnd far_end(answer_in_5_ms);
        probe.count = count;
        probe.last_result = 0;
        run(far_end);
        EXPECT_EQ(probe.last_result, 2);
        EXPECT_TRUE(far_end.received.empty());
    }
}

TEST_F(ExtendedPing, host_name_is_resolved_and_then_refused) {
    FarEnd far_end(answer_in_5_ms);
    EXPECT_EQ(run(far_end, "localhost"), -1);
    EXPECT_EQ(health.get_failure_ct_by_str("localhost"), 1);
    EXPECT_EQ(probe.last_result, 2);
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{{4, "%WAN-W-ERR: inet_aton() failed: Invalid argument"}}));
}

TEST_F(ExtendedPing, without_a_name_fails_without_a_message) {
    FarEnd far_end(answer_in_5_ms);
    health.name.clear();
    EXPECT_EQ(run(far_end), -1);
    expect_recorded_failure();
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ExtendedPing, in_an_ipv6_context_fails_on_both_paths_without_a_message) {
    TestContext ctx6(true, namespace_name);
    errno = 0;
    EXPECT_EQ(probe.send_for_tunnel(0, health, "127.0.0.1", packet_id, ctx6), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    errno = 0;
    EXPECT_EQ(probe.send_for_interfaces(0, health, "127.0.0.1", "192.0.2.1", packet_id, ctx6), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(failures(), 2);
    EXPECT_EQ(probe.last_result, 2);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ExtendedPing, leaves_nothing_in_flight) {
    const std::size_t before = LBTest::_results.size();
    FarEnd far_end(lose_the_fifth);
    run(far_end);
    EXPECT_EQ(LBTest::_results.size(), before);
}

}  // namespace

// The life of a probe in flight: entered, answered or not, collected.

#include "probe/probes_in_flight.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "host/clock.h"
#include "probe/lb_test.h"
#include "probe/reply_socket.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/given_clock.h"

namespace {

PktData probe(const std::string& interface, const std::string& target) {
    return {.interface = interface, .status = PktData::sent, .send_time = {}, .target = target};
}

TEST(PendingProbes, are_found_by_path_and_by_identifier) {
    PendingProbes probes;
    probes.insert(7, probe("eth0", "a"));
    EXPECT_EQ(probes.find("eth0", "a"), 7);
    ASSERT_NE(probes.find(7), nullptr);
    EXPECT_EQ(probes.find(7)->target, "a");
    EXPECT_EQ(probes.find("eth0", "b"), std::nullopt);
    EXPECT_EQ(probes.find("eth1", "a"), std::nullopt);
    EXPECT_EQ(probes.find(8), nullptr);
}

TEST(PendingProbes, identifier_still_in_flight_keeps_its_entry) {
    PendingProbes probes;
    probes.insert(7, probe("eth0", "a"));
    probes.insert(7, probe("eth1", "b"));
    EXPECT_EQ(probes.find(7)->interface, "eth0");
    EXPECT_EQ(probes.find("eth1", "b"), std::nullopt);
    EXPECT_EQ(probes.size(), 1U);
}

TEST(PendingProbes, answer_marks_only_its_own_entry) {
    PendingProbes probes;
    probes.insert(1, probe("eth0", "a"));
    probes.insert(2, probe("eth0", "b"));
    probes.mark_answered(2);
    probes.mark_answered(2);
    probes.mark_answered(99);
    EXPECT_EQ(probes.find(1)->status, PktData::sent);
    EXPECT_EQ(probes.find(2)->status, PktData::answered);
}

TEST(PendingProbes, erased_entry_is_gone_both_ways) {
    PendingProbes probes;
    probes.insert(1, probe("eth0", "a"));
    probes.erase(1);
    probes.erase(1);
    EXPECT_EQ(probes.find(1), nullptr);
    EXPECT_EQ(probes.find("eth0", "a"), std::nullopt);
    EXPECT_EQ(probes.size(), 0U);
}

class Probing : public testing::Test {
  protected:
    ~Probing() override {
        for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
            family->results.clear();
        }
    }

    std::optional<int> send(const ProbeFamily& family = ipv4_probes,
                            const std::string& target = "a") {
        return register_probe(family, "eth0", target, last_sent);
    }
    ProbeOutcome collect(int timeout_ms, const ProbeFamily& family = ipv4_probes) {
        return collect_probe(family, "eth0", "a", timeout_ms, monotonic_now());
    }

    /// A datagram comes in, as the receiver takes it.
    void take_in(const ProbeFamily& family, std::span<const std::uint8_t> datagram) {
        const ResultsLock lock(family, family.receiver_name);
        mark_answered_probe(family, datagram);
    }

    GivenClock clock;
    timespec last_sent{};
};

TEST_F(Probing, identifiers_run_up_to_32766_and_round_again) {
    LBTest::_packet_id = 32765;
    EXPECT_EQ(next_packet_id(ipv4_probes), 32766);
    EXPECT_EQ(next_packet_id(ipv4_probes), 0);
    EXPECT_EQ(next_packet_id(ipv4_probes), 1);
}

TEST_F(Probing, second_probe_of_a_pair_in_flight_is_refused) {
    EXPECT_TRUE(send());
    last_sent = {};
    EXPECT_FALSE(send());
    EXPECT_EQ(last_sent.tv_sec, 0);
    EXPECT_TRUE(send(ipv4_probes, "b"));
}

TEST_F(Probing, probe_is_stamped_with_the_monotonic_clock) {
    send();
    EXPECT_EQ(last_sent.tv_sec, 1000);
}

TEST_F(Probing, age_of_exactly_the_timeout_is_still_pending) {
    send();
    clock.advance_ms(5000);
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
    clock.advance_ms(1);
    EXPECT_EQ(collect(5000), ProbeOutcome::timed_out);
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, answered_probe_is_collected_once_however_late) {
    const auto id = send();
    take_in(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)));
    clock.advance_ms(60'000);
    EXPECT_EQ(collect(5000), ProbeOutcome::answered);
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, nothing_in_flight_is_nothing_to_collect) {
    EXPECT_EQ(collect(0), ProbeOutcome::nothing);
}

TEST_F(Probing, reply_after_the_timeout_is_ignored) {
    const auto id = send();
    clock.advance_ms(5001);
    EXPECT_EQ(collect(5000), ProbeOutcome::timed_out);
    take_in(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)));
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, second_reply_with_the_same_identifier_changes_nothing) {
    const auto id = send();
    take_in(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)));
    take_in(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)));
    EXPECT_EQ(collect(5000), ProbeOutcome::answered);
}

TEST_F(Probing, other_types_of_message_do_not_count) {
    const auto id = static_cast<std::uint32_t>(*send());
    take_in(ipv4_probes, reply4(id, 8));
    take_in(ipv4_probes, reply4(id, 3));
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, short_datagrams_are_ignored) {
    const Bytes whole = reply4(static_cast<std::uint32_t>(*send()));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        take_in(ipv4_probes, std::span(whole).first(length));
    }
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, reply_with_ip_options_is_misread) {
    Bytes reply = reply4(static_cast<std::uint32_t>(*send()));
    reply[0] = 0x46;
    reply.insert(reply.begin() + 20, {1, 1, 1, 1});
    take_in(ipv4_probes, reply);
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, ipv6_replies_start_with_the_icmp_header) {
    const auto id = static_cast<std::uint32_t>(*send(ipv6_probes));
    take_in(ipv6_probes, reply6(id, 128));
    EXPECT_EQ(collect(5000, ipv6_probes), ProbeOutcome::nothing);
    take_in(ipv6_probes, reply6(id));
    EXPECT_EQ(collect(5000, ipv6_probes), ProbeOutcome::answered);
}

TEST_F(Probing, probe_that_cannot_be_registered_is_reported_and_not_sent) {
    std::vector<LogLine> lines;
    bool was_sent = true;
    {
        const CapturedLog log;
        {
            const faults::FailCall no_lock(faults::Call::pthread_mutex_lock, EINVAL);
            errno = 0;
            was_sent = send().has_value();
        }
        lines = log.lines();
    }
    EXPECT_FALSE(was_sent);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(
        lines[0].text.starts_with("%WAN-W-ERR: <send> pthread_mutex_lock for ipv4 "
                                  "failed!!!!! rc = 22, errno = "));
}

TEST_F(Probing, probe_whose_table_cannot_be_unlocked_is_taken_back_and_not_sent) {
    for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
        const CapturedLog log;
        bool was_sent = true;
        {
            const faults::FailCall no_unlock(faults::Call::pthread_mutex_unlock, EPERM, 1);
            was_sent = send(*family).has_value();
        }
        pthread_mutex_unlock(&family->result_mutex);  // the call that failed had no effect
        EXPECT_FALSE(was_sent);
        EXPECT_EQ(family->results.size(), 0U);
        ASSERT_EQ(log.lines().size(), 1U);
        const std::string expected = std::string("%WAN-W-ERR: <send> pthread_mutex_unlock for ") +
                                     family->word + " failed!!!!! rc = 1, errno = ";
        EXPECT_TRUE(log.lines()[0].text.starts_with(expected)) << log.lines()[0].text;
    }
}

TEST_F(Probing, step_is_carried_out_though_the_table_cannot_be_locked) {
    const auto id = send();
    ProbeOutcome outcome = ProbeOutcome::nothing;
    {
        const CapturedLog log;
        const faults::FailCall no_lock(faults::Call::pthread_mutex_lock, EINVAL);
        const faults::FailCall no_unlock(faults::Call::pthread_mutex_unlock, EPERM);
        take_in(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)));
        outcome = collect(5000);
    }
    EXPECT_EQ(outcome, ProbeOutcome::answered);
}

TEST_F(Probing, identifier_still_in_flight_after_a_wrap_keeps_its_probe) {
    const auto first = send();
    LBTest::_packet_id = *first - 1;
    EXPECT_EQ(send(ipv4_probes, "b"), first);
    EXPECT_EQ(LBTest::_results.find(*first)->target, "a");
    EXPECT_EQ(LBTest::_results.size(), 1U);
}

TEST_F(Probing, families_count_and_keep_their_probes_apart) {
    const int of_ipv4 = LBTest::_packet_id;
    EXPECT_TRUE(send(ipv4_probes));
    EXPECT_TRUE(send(ipv6_probes));
    EXPECT_EQ(LBTest::_packet_id, of_ipv4 + 1);
}

TEST_F(Probing, lock_failures_name_family_and_function) {
    std::vector<LogLine> lines;
    {
        const CapturedLog log;
        {
            const faults::FailCall no_lock(faults::Call::pthread_mutex_lock, EINVAL);
            const faults::FailCall no_unlock(faults::Call::pthread_mutex_unlock, EPERM);
            collect(5000);
            take_in(ipv6_probes, reply6(1));
        }
        lines = log.lines();
    }
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_TRUE(lines[0].text.starts_with("%WAN-W-ERR: <recv> pthread_mutex_lock for ipv4 failed"));
    EXPECT_TRUE(
        lines[1].text.starts_with("%WAN-W-ERR: <recv> pthread_mutex_unlock for ipv4 failed"));
    EXPECT_TRUE(
        lines[2].text.starts_with("%WAN-W-ERR: <recv_icmp6> pthread_mutex_lock for ipv6 failed"));
    EXPECT_TRUE(
        lines[3].text.starts_with("%WAN-W-ERR: <recv_icmp6> pthread_mutex_unlock for ipv6 failed"));
}

}  // namespace

#include "probe/probe_family.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "net/fd.h"
#include "net/sockets.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"
#include "probe/reply_mailbox.h"
#include "probe/reply_receiver.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/given_clock.h"

namespace {

/// An IPv4 message with this word where our identifiers stand.
Bytes reply4(std::uint32_t word, std::uint8_t type = 0) {
    Bytes datagram = echo_reply4(word);
    datagram[20] = type;
    return datagram;
}

/// The same for IPv6: from the ICMPv6 header on.
Bytes reply6(std::uint32_t word, std::uint8_t type = 129) {
    const Bytes whole = reply4(word, type);
    return {whole.begin() + 20, whole.end()};
}

class Probing : public testing::Test {
  protected:
    ~Probing() override {
        for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
            for (int id = 0; id < packet_id_count; ++id) {
                family->results.erase(id);
            }
        }
    }

    std::optional<int> send(const ProbeFamily& family = ipv4_probes,
                            const std::string& target = "a") {
        return register_probe(family, "eth0", target, last_sent);
    }
    ProbeOutcome collect(int timeout_ms, const ProbeFamily& family = ipv4_probes) {
        return collect_probe(family, "eth0", "a", timeout_ms);
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
    take_reply(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)), "test");
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
    take_reply(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)), "test");
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, second_reply_with_the_same_identifier_changes_nothing) {
    const auto id = send();
    take_reply(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)), "test");
    take_reply(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)), "test");
    EXPECT_EQ(collect(5000), ProbeOutcome::answered);
}

TEST_F(Probing, other_types_of_message_do_not_count) {
    const auto id = static_cast<std::uint32_t>(*send());
    take_reply(ipv4_probes, reply4(id, 8), "test");
    take_reply(ipv4_probes, reply4(id, 3), "test");
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, short_datagrams_are_ignored) {
    const Bytes whole = reply4(static_cast<std::uint32_t>(*send()));
    for (std::size_t length = 0; length < whole.size(); ++length) {
        take_reply(ipv4_probes, std::span(whole).first(length), "test");
    }
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, reply_with_ip_options_is_misread) {
    Bytes reply = reply4(static_cast<std::uint32_t>(*send()));
    reply[0] = 0x46;
    reply.insert(reply.begin() + 20, {1, 1, 1, 1});
    take_reply(ipv4_probes, reply, "test");
    EXPECT_EQ(collect(5000), ProbeOutcome::nothing);
}

TEST_F(Probing, ipv6_replies_start_with_the_icmp_header) {
    const auto id = static_cast<std::uint32_t>(*send(ipv6_probes));
    take_reply(ipv6_probes, reply6(id, 128), "test");
    EXPECT_EQ(collect(5000, ipv6_probes), ProbeOutcome::nothing);
    take_reply(ipv6_probes, reply6(id), "test");
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
        take_reply(ipv4_probes, reply4(static_cast<std::uint32_t>(*id)), "recv_icmp");
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
            take_reply(ipv6_probes, reply6(1), "recv_icmp6");
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

TEST(ProbeSockets, first_failed_one_is_reported_once_and_leaves_zero) {
    const CapturedLog log;
    {
        const faults::FailCall no_socket(faults::Call::socket, EMFILE);
        set_up_namespace(ipv4_probes, "no sockets");
    }
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{{4, "%WAN-W-ERR: wan_lb: failed to acquired socket"}}));
    EXPECT_EQ(LBTest::_send_icmp_sock.get("no sockets"), 0);
    set_up_namespace(ipv4_probes, "no sockets");  // is not tried again
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(LBTest::_send_ip_sock.get("no sockets"), 0);
}

/// The descriptors of a namespace in the order in which they are opened.
std::array<int, 3> sockets_of(const ProbeFamily& family, const std::string& ns_name) {
    return {family.send_raw_sock.get(ns_name), family.send_frame_sock.get(ns_name),
            family.recv_sock.get(ns_name)};
}

bool may_open_raw_sockets() {
    return open_raw_icmp_socket(AF_INET, IPPROTO_ICMP, pass_nothing()).is_open();
}

TEST(ProbeSockets, failed_one_leaves_zero_and_those_behind_it_unopened) {
    if (!may_open_raw_sockets()) {
        GTEST_SKIP() << "needs the right to open raw sockets";
    }
    for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
        for (std::size_t failing = 0; failing < 3; ++failing) {
            const std::string name = "failing " + std::to_string(failing);
            const CapturedLog log;
            {
                const faults::FailCall no_socket(faults::Call::socket, EMFILE,
                                                 static_cast<int>(failing) + 1);
                set_up_namespace(*family, name);
                EXPECT_EQ(no_socket.calls(), static_cast<int>(failing) + 1);
            }
            EXPECT_EQ(log.lines(),
                      (std::vector<LogLine>{{4, "%WAN-W-ERR: wan_lb: failed to acquired socket"}}));
            const auto sockets = sockets_of(*family, name);
            for (std::size_t i = 0; i < 3; ++i) {
                EXPECT_EQ(sockets[i] > 0, i < failing) << family->word << ' ' << failing << i;
            }
            close_namespace(*family, name);
        }
    }
}

TEST(ProbeSockets, are_closed_for_good_with_a_probe_of_their_namespace) {
    struct Probe : LBTest {
        void send(LBHealth&, context*) override {}
        std::string dump(context*) override { return ""; }
        std::string name() override { return ""; }
    };
    const std::string name = "closing";
    std::array<int, 3> opened{};
    {
        Probe probe;
        probe.ns_name = name;
        LBTest::_initialized.set(name, true);
        std::size_t i = 0;
        for (auto* table :
             {&LBTest::_send_icmp_sock, &LBTest::_send_ip_sock, &LBTest::_recv_icmp_sock}) {
            opened.at(i) = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            table->set(name, opened.at(i++));
        }
    }
    for (const int closed : opened) {
        EXPECT_EQ(fcntl(closed, F_GETFD), -1);
    }
    set_up_namespace(ipv4_probes, name);
    EXPECT_EQ(sockets_of(ipv4_probes, name), (std::array<int, 3>{}));
}

bool within_seconds(int seconds, const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(Receiver, marks_replies_and_ends_when_its_socket_does) {
    const CapturedLog log;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Fd near(ends[0]);
    Fd far(ends[1]);
    const std::string name = "receiver";
    LBTest::_recv_icmp_sock.set(name, near.get());
    timespec last_sent{};
    const auto id = register_probe(ipv4_probes, "eth9", "r", last_sent);

    start_receiver(ipv4_probes, name);
    const Bytes reply = reply4(static_cast<std::uint32_t>(*id));
    ASSERT_EQ(::send(far.get(), reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));

    EXPECT_TRUE(within_seconds(10, [] {
        return collect_probe(ipv4_probes, "eth9", "r", 100'000) == ProbeOutcome::answered;
    }));
    far = Fd();
    EXPECT_TRUE(within_seconds(10, [&name] { return !LBTest::_received.get(name); }));
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, "%WAN-W-ERR: recv for ipv4 failed!!!!!"}}));
    LBTest::_recv_icmp_sock.set(name, 0);
}

TEST(Receiver, answers_that_wait_in_the_socket_are_taken_by_the_worker) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const Fd near(ends[0]);
    const Fd far(ends[1]);
    LBTest::_recv_icmp_sock.set("standstill", near.get());
    timespec last_sent{};
    for (const char* target : {"first", "second"}) {
        const auto id = register_probe(ipv4_probes, "eth9", target, last_sent);
        const Bytes reply = reply4(static_cast<std::uint32_t>(*id));
        ASSERT_EQ(::send(far.get(), reply.data(), reply.size(), 0),
                  static_cast<ssize_t>(reply.size()));
    }
    take_waiting_replies(ipv4_probes, "standstill");
    constexpr int long_over_ms = -1;
    EXPECT_EQ(collect_probe(ipv4_probes, "eth9", "first", long_over_ms), ProbeOutcome::answered);
    EXPECT_EQ(collect_probe(ipv4_probes, "eth9", "second", long_over_ms), ProbeOutcome::answered);
    LBTest::_recv_icmp_sock.set("standstill", 0);
}

TEST(Receiver, failed_wait_is_reported_and_lets_the_next_one_start) {
    for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
        const std::string word = family->word;
        const CapturedLog log;
        family->recv_sock.set("wait", 1'000'000);  // no such descriptor
        start_receiver(*family, "wait");
        EXPECT_TRUE(within_seconds(10, [family] { return !family->received.get("wait"); }));
        EXPECT_EQ(log.lines(),
                  (std::vector<LogLine>{{4, "%WAN-W-ERR: select for " + word + " failed!!!!!"}}));
    }
}

TEST(Receiver, that_ended_is_started_anew_by_the_next_collection) {
    for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
        const std::string name = "anew";
        const CapturedLog log;
        DatagramPair replies;
        family->recv_sock.set(name, replies.near.get());
        timespec last_sent{};
        const auto id =
            static_cast<std::uint32_t>(*register_probe(*family, "eth9", "anew", last_sent));
        deliver(replies.far, family == &ipv4_probes ? reply4(id) : reply6(id));
        {
            const faults::FailCall broken(faults::Call::recv, EIO, 1);
            start_receiver(*family, name);
            EXPECT_TRUE(within_seconds(10, [&] { return !family->received.get(name); }));
        }
        EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, std::string("%WAN-W-ERR: recv for ") +
                                                             family->word + " failed!!!!!"}}));

        start_receiver(*family, name);
        EXPECT_TRUE(within_seconds(10, [family] {
            return collect_probe(*family, "eth9", "anew", 100'000) == ProbeOutcome::answered;
        }));
        replies.far = Fd();
        EXPECT_TRUE(within_seconds(10, [&] { return !family->received.get(name); }));
        family->recv_sock.set(name, 0);
    }
}

TEST(Receiver, thread_that_cannot_be_created_is_reported_and_not_tried_again) {
    const CapturedLog log;
    const faults::FailCall no_thread(faults::Call::pthread_create, EAGAIN);
    for (const auto* family : {&ipv4_probes, &ipv6_probes}) {
        start_receiver(*family, "no thread");
        start_receiver(*family, "no thread");
    }
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{{4, "%WAN-W-ERR: Can't create new thread for icmp recv"},
                                    {4, "%WAN-W-ERR: Can't create new thread for icmp6 recv"}}));
}

TEST(Mailbox, wakes_for_the_awaited_echo_only) {
    ReplyMailbox mailbox("mail");
    mailbox.expect({.source = {.s_addr = htonl(INADDR_LOOPBACK)}, .packet_id = 5, .sequence = 0});
    hand_to_waiting_ping("mail", reply4(6));
    hand_to_waiting_ping("other", reply4(5));
    char buffer[8];
    EXPECT_EQ(read(mailbox.wake(), buffer, sizeof buffer), -1);
    hand_to_waiting_ping("mail", reply4(5, 3));  // the type is not looked at
    EXPECT_EQ(read(mailbox.wake(), buffer, sizeof buffer), 8);
    hand_to_waiting_ping("mail", reply4(5));  // no longer awaited
    EXPECT_EQ(read(mailbox.wake(), buffer, sizeof buffer), -1);
}

TEST(ExpectedEcho, compares_source_identifier_and_sequence) {
    const Bytes datagram = echo_reply4(5, 3);
    ExpectedEcho echo{.source = {}, .packet_id = 5, .sequence = 3};
    EXPECT_FALSE(echo.matches(datagram));
    echo.source.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_TRUE(echo.matches(datagram));
    echo.sequence = 2;
    EXPECT_FALSE(echo.matches(datagram));
    echo.sequence = 3;
    echo.packet_id = 6;
    EXPECT_FALSE(echo.matches(datagram));
    EXPECT_FALSE(echo.matches(std::span(datagram).first(31)));
}

}  // namespace

#include "probe/echo_waiter.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "platform/clock.h"
#include "probe/lb_test.h"
#include "probe/probe_family.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"

namespace {

constexpr EchoWait long_wait{.seconds = 20};
constexpr EchoWait short_wait{.microseconds = 30'000};

struct Waiting : testing::Test {
    Waiting() { mailbox.expect(echo); }
    ~Waiting() override {
        if (in_flight) {
            LBTest::_results.erase(*in_flight);
        }
    }

    EchoAnswer await(const EchoWait& wait) {
        return await_echo(replies.near.get(), echo, mailbox, wait);
    }
    /// The identifier of an echo probe that waits for its reply.
    std::uint32_t send_echo_probe() {
        timespec last_sent{};
        in_flight = register_probe(ipv4_probes, "echo waiter", "a", last_sent);
        return static_cast<std::uint32_t>(*in_flight);
    }
    ProbeOutcome collect() { return collect_probe(ipv4_probes, "echo waiter", "a", 100'000); }

    const std::string ns_name = "echo waiter";
    const ExpectedEcho echo{
        .source = {.s_addr = htonl(INADDR_LOOPBACK)}, .packet_id = 40'000, .sequence = 3};
    const Bytes answer = echo_reply4(40'000, 3);
    DatagramPair replies;
    ReplyMailbox mailbox{ns_name};
    std::optional<int> in_flight;
};

TEST_F(Waiting, answer_ends_the_wait_with_what_is_left_of_it) {
    deliver(replies.far, answer);
    const EchoAnswer got = await(long_wait);
    EXPECT_TRUE(got.is_in_time);
    EXPECT_GT(got.remaining_us, 0);
    EXPECT_LT(got.remaining_us, 20'000'000);
}

TEST_F(Waiting, answer_that_the_receiver_thread_read_is_handed_over) {
    hand_to_waiting_ping(ns_name, answer);
    EXPECT_TRUE(await(long_wait).is_in_time);
}

TEST_F(Waiting, answer_to_the_echo_before_is_forgotten_with_it) {
    hand_to_waiting_ping(ns_name, answer);
    mailbox.expect(echo);
    EXPECT_FALSE(await(short_wait).is_in_time);
}

TEST_F(Waiting, silence_lasts_the_whole_wait) {
    const timespec begin = monotonic_now();
    EXPECT_FALSE(await(short_wait).is_in_time);
    EXPECT_GE(elapsed_ms(begin, monotonic_now()), 29);  // each side is rounded down
}

TEST_F(Waiting, datagrams_for_others_do_not_end_the_wait) {
    deliver(replies.far, echo_reply4(40'000, 2));
    deliver(replies.far, echo_reply4(39'999, 3));
    EXPECT_FALSE(await(short_wait).is_in_time);
}

TEST_F(Waiting, reply_to_an_echo_probe_is_passed_on) {
    deliver(replies.far, echo_reply4(send_echo_probe()));
    deliver(replies.far, answer);
    EXPECT_TRUE(await(long_wait).is_in_time);
    EXPECT_EQ(collect(), ProbeOutcome::answered);
}

TEST_F(Waiting, what_came_before_a_run_is_passed_on_and_leaves_the_socket_empty) {
    deliver(replies.far, answer);
    deliver(replies.far, echo_reply4(send_echo_probe()));
    pass_on_waiting_replies(replies.near.get());
    EXPECT_EQ(collect(), ProbeOutcome::answered);
    EXPECT_FALSE(await(short_wait).is_in_time);
}

TEST_F(Waiting, invalid_wait_fails_though_the_answer_is_in) {
    deliver(replies.far, answer);
    EXPECT_FALSE(await({.seconds = 1, .microseconds = 500'000'000}).is_in_time);
}

TEST_F(Waiting, wait_of_no_length_looks_once) {
    EXPECT_FALSE(await({}).is_in_time);
    deliver(replies.far, answer);
    EXPECT_TRUE(await({}).is_in_time);
}

TEST_F(Waiting, socket_that_fails_ends_the_wait_early) {
    deliver(replies.far, answer);
    const faults::FailCall broken(faults::Call::recv, ENOTSOCK);
    const timespec begin = monotonic_now();
    EXPECT_FALSE(await(long_wait).is_in_time);
    EXPECT_LT(elapsed_ms(begin, monotonic_now()), 20'000);
}

TEST_F(Waiting, interrupted_and_empty_reads_are_tried_again) {
    deliver(replies.far, answer);
    for (const int error : {EINTR, EAGAIN}) {
        const faults::FailCall once(faults::Call::recv, error, 1);
        EXPECT_TRUE(await(long_wait).is_in_time) << error;
        deliver(replies.far, answer);
    }
}

}  // namespace

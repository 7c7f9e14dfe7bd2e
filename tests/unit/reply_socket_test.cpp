// The probes' sockets and the one way of a reply: thread, worker and waiting extended ping.

#include "probe/reply_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <thread>

#include "base/fd.h"
#include "host/clock.h"
#include "host/packets.h"
#include "probe/lb_test.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"

namespace {

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
    const host::OpenedSocket opened = host::open_echo_sender(false);
    if (opened.is_open()) {
        host::close_socket(opened.number);
    }
    return opened.is_open();
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
        return collect_probe(ipv4_probes, "eth9", "r", 100'000, monotonic_now()) ==
               ProbeOutcome::answered;
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
    EXPECT_EQ(drain(ipv4_probes, "standstill", datagrams_at_once), Drained::all);
    constexpr int long_over_ms = -1;
    EXPECT_EQ(collect_probe(ipv4_probes, "eth9", "first", long_over_ms, monotonic_now()),
              ProbeOutcome::answered);
    EXPECT_EQ(collect_probe(ipv4_probes, "eth9", "second", long_over_ms, monotonic_now()),
              ProbeOutcome::answered);
    LBTest::_recv_icmp_sock.set("standstill", 0);
}

/// Loopback sockets, of which the kernel counts what waits in them.
struct UdpPair {
    UdpPair() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(near.get(), generic, size), 0);
        EXPECT_EQ(getsockname(near.get(), generic, &size), 0);
        EXPECT_EQ(connect(far.get(), generic, size), 0);
    }
    bool is_something_waiting() const {
        int size = 0;
        return ioctl(near.get(), FIONREAD, &size) == 0 && size > 0;
    }
    Fd near{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    Fd far{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

/// A receiver thread on such a pair. Left running, it would go on beside the tests that follow,
/// with a number that they may get.
class RunningReceiver {
  public:
    explicit RunningReceiver(const std::string& name) : name_(name) {
        LBTest::_recv_icmp_sock.set(name_, replies.near.get());
        start_receiver(ipv4_probes, name_);
    }
    ~RunningReceiver() {
        const faults::FailCall broken(faults::Call::recvmmsg, EIO, 1);
        shutdown(replies.near.get(), SHUT_RDWR);
        EXPECT_TRUE(within_seconds(10, [this] { return !LBTest::_received.get(name_); }));
        LBTest::_recv_icmp_sock.set(name_, 0);
    }
    RunningReceiver(const RunningReceiver&) = delete;
    RunningReceiver& operator=(const RunningReceiver&) = delete;

    bool reads_all() const {
        return within_seconds(8, [this] { return !replies.is_something_waiting(); });
    }

    const UdpPair replies;

  private:
    std::string name_;
};

TEST(Receiver, takes_a_flood_off_before_the_room_is_gone) {
    const CapturedLog log;
    const RunningReceiver receiver("flood");
    const Fd& near = receiver.replies.near;
    if (const auto room = host::make_room(near.get(), 1); room.granted < room.wanted) {
        GTEST_SKIP() << "only root may ask for such room";
    }
    const Bytes reply = reply4(packet_id_count);
    deliver(receiver.replies.far, reply);
    ASSERT_TRUE(receiver.reads_all());

    // A few would be left to the worker, whom nobody plays here, for ten seconds.
    for (int i = 0; i < 10'000; ++i) {
        deliver(receiver.replies.far, reply);
    }
    EXPECT_TRUE(receiver.reads_all());
    EXPECT_EQ(host::dropped_packets(near.get()), 0U);
}

TEST(Receiver, leaves_nothing_unread_where_the_room_is_smaller_than_asked_for) {
    const CapturedLog log;
    const RunningReceiver receiver("small room");
    for (int i = 0; i < 20; ++i) {
        deliver(receiver.replies.far, reply4(packet_id_count));
        ASSERT_TRUE(receiver.reads_all()) << i;
    }
}

TEST(Receiver, tells_that_the_worker_could_not_read) {
    const CapturedLog log;
    const UdpPair replies;
    const std::string name = "worker's";
    LBTest::_recv_icmp_sock.set(name, replies.near.get());
    start_receiver(ipv4_probes, name);
    {
        const faults::FailCall broken(faults::Call::recvmmsg, EIO, 1);
        drain(ipv4_probes, name, datagrams_at_once);
        deliver(replies.far, reply4(packet_id_count));
        EXPECT_TRUE(within_seconds(10, [&] { return !LBTest::_received.get(name); }));
    }
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, "%WAN-W-ERR: recv for ipv4 failed!!!!!"}}));
    LBTest::_recv_icmp_sock.set(name, 0);
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
            const faults::FailCall broken(faults::Call::recvmmsg, EIO, 1);
            start_receiver(*family, name);
            EXPECT_TRUE(within_seconds(10, [&] { return !family->received.get(name); }));
        }
        EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, std::string("%WAN-W-ERR: recv for ") +
                                                             family->word + " failed!!!!!"}}));

        start_receiver(*family, name);
        EXPECT_TRUE(within_seconds(10, [family] {
            return collect_probe(*family, "eth9", "anew", 100'000, monotonic_now()) ==
                   ProbeOutcome::answered;
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

constexpr EchoWait long_wait{.seconds = 20};
constexpr EchoWait short_wait{.microseconds = 30'000};

struct Waiting : testing::Test {
    Waiting() {
        LBTest::_recv_icmp_sock.set(ns_name, replies.near.get());
        ping.expect(echo);
    }
    ~Waiting() override {
        LBTest::_recv_icmp_sock.set(ns_name, 0);
        LBTest::_results.clear();
    }

    EchoAnswer await(const EchoWait& wait) { return ping.await(wait); }
    /// The identifier of an echo probe that waits for its reply.
    std::uint32_t send_echo_probe() {
        timespec last_sent{};
        return static_cast<std::uint32_t>(
            register_probe(ipv4_probes, "echo waiter", "a", last_sent).value());
    }
    ProbeOutcome collect() {
        return collect_probe(ipv4_probes, "echo waiter", "a", 100'000, monotonic_now());
    }

    const std::string ns_name = "echo waiter";
    const ExpectedEcho echo{.source = {127, 0, 0, 1}, .packet_id = 40'000, .sequence = 3};
    const Bytes answer = echo_reply4(40'000, 3);
    DatagramPair replies;
    WaitingPing ping{ns_name};
};

TEST_F(Waiting, answer_ends_the_wait_with_what_is_left_of_it) {
    deliver(replies.far, answer);
    const EchoAnswer got = await(long_wait);
    EXPECT_TRUE(got.is_in_time);
    EXPECT_GT(got.remaining_us, 0);
    EXPECT_LT(got.remaining_us, 20'000'000);
}

TEST_F(Waiting, answer_that_the_receiver_thread_read_is_handed_over) {
    offer_to_waiting_ping(ns_name, answer);
    EXPECT_TRUE(await(long_wait).is_in_time);
}

TEST_F(Waiting, answer_to_the_echo_before_is_forgotten_with_it) {
    offer_to_waiting_ping(ns_name, answer);
    ping.expect(echo);
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
    drain(ipv4_probes, ns_name, datagrams_at_once);
    ping.expect(echo);
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
    const faults::FailCall broken(faults::Call::recvmmsg, ENOTSOCK);
    const timespec begin = monotonic_now();
    EXPECT_FALSE(await(long_wait).is_in_time);
    EXPECT_LT(elapsed_ms(begin, monotonic_now()), 20'000);
}

TEST_F(Waiting, interrupted_and_empty_reads_are_tried_again) {
    deliver(replies.far, answer);
    for (const int error : {EINTR, EAGAIN}) {
        const faults::FailCall once(faults::Call::recvmmsg, error, 1);
        EXPECT_TRUE(await(long_wait).is_in_time) << error;
        deliver(replies.far, answer);
    }
}

TEST_F(Waiting, other_namespaces_and_other_echoes_do_not_end_the_wait) {
    offer_to_waiting_ping("other", answer);
    offer_to_waiting_ping(ns_name, echo_reply4(40'001, 3));
    EXPECT_FALSE(await(short_wait).is_in_time);
}

TEST_F(Waiting, answer_of_any_type_counts) {
    offer_to_waiting_ping(ns_name, [this] {
        Bytes unreachable = answer;
        unreachable[20] = 3;
        return unreachable;
    }());
    EXPECT_TRUE(await(long_wait).is_in_time);
}

TEST(ExpectedEcho, compares_source_identifier_and_sequence) {
    const Bytes datagram = echo_reply4(5, 3);
    ExpectedEcho echo{.source = {}, .packet_id = 5, .sequence = 3};
    EXPECT_FALSE(echo.matches(datagram));
    echo.source = {127, 0, 0, 1};
    EXPECT_TRUE(echo.matches(datagram));
    echo.sequence = 2;
    EXPECT_FALSE(echo.matches(datagram));
    echo.sequence = 3;
    echo.packet_id = 6;
    EXPECT_FALSE(echo.matches(datagram));
    EXPECT_FALSE(echo.matches(std::span(datagram).first(31)));
}

}  // namespace

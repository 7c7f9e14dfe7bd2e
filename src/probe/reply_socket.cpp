#include "probe/reply_socket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "host/clock.h"
#include "host/log.h"
#include "host/watchdog.h"
#include "wire/frames.h"

// Opening and closing

namespace {

/// Keeps the socket in its table; a failed one is logged and becomes 0 (B134), the number that no
/// socket of this process ever has, for good (B62).
bool keep_socket(NamespaceTable<int>& table, const std::string& ns_name,
                 const host::OpenedSocket& opened) {
    if (!opened.is_open()) {
        LOG_ERROR("wan_lb: failed to acquired socket");
        table.set(ns_name, 0);
        return false;
    }
    table.set(ns_name, opened.number);
    return true;
}

/// One mutex guards the one table of a family, whatever the namespace: made ready with the first.
void make_mutex_ready(const ProbeFamily& family) {
    static std::set<const pthread_mutex_t*> ready;
    if (ready.insert(&family.result_mutex).second &&
        pthread_mutex_init(&family.result_mutex, nullptr) != 0) {
        LOG_ERROR("wan_lb: error mutex initialization");
    }
}

}  // namespace

void set_up_namespace(const ProbeFamily& family, const std::string& ns_name) {
    // The second worker of a namespace waits here until the first has opened the sockets.
    static std::mutex set_up;
    const std::lock_guard guard(set_up);
    if (family.initialized.exchange(ns_name, true)) {
        return;
    }
    make_mutex_ready(family);
    const bool can_send =
        keep_socket(family.send_raw_sock, ns_name, host::open_echo_sender(family.is_ipv6)) &&
        keep_socket(family.send_frame_sock, ns_name, host::open_frame_sender());
    if (can_send) {
        keep_socket(family.recv_sock, ns_name,
                    host::open_reply_receiver(family.is_ipv6, packet_id_count));
    }
}

void close_namespace(const ProbeFamily& family, const std::string& ns_name) {
    for (auto* table : {&family.recv_sock, &family.send_raw_sock, &family.send_frame_sock}) {
        if (const int open_socket = table->exchange(ns_name, 0); open_socket != 0) {
            host::close_socket(open_socket);
        }
    }
}

// The one way of a reply

void mark_answered_probe(const ProbeFamily& family, std::span<const std::uint8_t> datagram) {
    if (datagram.size() < family.id_offset + sizeof(Be32) ||
        datagram[family.type_offset] != family.reply_type) {
        return;
    }
    const std::uint32_t packet_id = read_at<Be32>(datagram, family.id_offset);
    family.results.mark_answered(static_cast<int>(packet_id));
}

namespace {

/// How many are taken in one hold of the table, so that a registering worker waits microseconds.
constexpr std::size_t replies_in_a_hold = 64;

/// What one look at the socket gave.
struct Crowd {
    std::span<const host::PacketFront> replies;
    bool is_last = false;    ///< the socket is empty
    bool has_ended = false;  ///< it gives no more
};

/// Taken and marked in one hold: whoever finds the socket empty finds all marked.
Crowd take_and_mark(const ProbeFamily& family, int reply_socket,
                    std::span<host::PacketFront> places) {
    const ResultsLock lock(family, family.receiver_name);
    const host::Transfer taken = host::receive_many(reply_socket, places);
    if (taken.count < 0) {
        return {.replies = {},
                .is_last = taken.error == EAGAIN,
                .has_ended = taken.error != EAGAIN && taken.error != EINTR};
    }
    Crowd crowd{.replies = places.first(static_cast<std::size_t>(taken.count)),
                .is_last = static_cast<std::size_t>(taken.count) < places.size()};
    for (std::size_t i = 0; i < crowd.replies.size() && !crowd.has_ended; ++i) {
        // Without content is what a closed socket gives.
        crowd.has_ended = crowd.replies[i].size == 0;
        mark_answered_probe(family, crowd.replies[i].content());
    }
    return crowd;
}

/// Whether reading has failed, whoever read: the receiver thread tells it and ends.
NamespaceTable<bool>& failures_of(const ProbeFamily& family) {
    static NamespaceTable<bool> ipv4;
    static NamespaceTable<bool> ipv6;
    return family.is_ipv6 ? ipv6 : ipv4;
}

}  // namespace

Drained drain(const ProbeFamily& family, const std::string& ns_name, int at_most) {
    std::array<host::PacketFront, replies_in_a_hold> replies;
    const int reply_socket = family.recv_sock.get(ns_name);
    for (int count = 0; count < at_most;) {
        const Crowd crowd = take_and_mark(family, reply_socket, replies);
        if (!family.is_ipv6) {
            for (const host::PacketFront& reply : crowd.replies) {
                offer_to_waiting_ping(ns_name, reply.content());
            }
        }
        if (crowd.has_ended) {
            failures_of(family).set(ns_name, true);
            return Drained::failed;
        }
        if (crowd.is_last) {
            return Drained::all;
        }
        count += std::max(static_cast<int>(crowd.replies.size()), 1);
    }
    return Drained::enough;
}

// The receiver thread

namespace {

void* receive_for(const ProbeFamily& family, void* argument) {
    const std::unique_ptr<std::string> taken_over(static_cast<std::string*>(argument));
    const std::string& ns_name = *taken_over;
    NamespaceTable<bool>& failures = failures_of(family);
    // A host without threads calls these after this body has returned.
    const auto read = [&family, &failures, ns_name] {
        Drained drained = failures.get(ns_name) ? Drained::failed : Drained::enough;
        while (drained == Drained::enough) {
            drained = drain(family, ns_name, datagrams_at_once);
        }
        if (drained != Drained::failed) {
            return true;
        }
        failures.set(ns_name, false);
        LOG_ERROR("recv for %s failed!!!!!", family.word);
        family.received.set(ns_name, false);
        return false;
    };
    const auto end = [&family, ns_name] {
        LOG_ERROR("select for %s failed!!!!!", family.word);
        family.received.set(ns_name, false);
    };
    // Nobody waits for this thread: the worker reads the socket before it judges, an extended ping
    // while it waits.
    host::watch_receiver(
        family.recv_sock.get(ns_name),
        {.on_readable = read, .on_wait_failed = end, .is_left_to_others = [&failures, ns_name] {
             return !failures.get(ns_name);
         }});
    return nullptr;
}

}  // namespace

void* recv_icmp(void* ns_name) {
    return receive_for(ipv4_probes, ns_name);
}

void* recv_icmp6(void* ns_name) {
    return receive_for(ipv6_probes, ns_name);
}

void start_receiver(const ProbeFamily& family, const std::string& ns_name) {
    if (family.received.exchange(ns_name, true)) {
        return;
    }
    failures_of(family).set(ns_name, false);
    auto argument = std::make_unique<std::string>(ns_name);
    switch (host::start_receiver_thread(family.receiver, argument.get())) {
        case DetachedStart::not_created:
            LOG_ERROR("Can't create new thread for %s recv", family.protocol_word);
            return;
        case DetachedStart::not_detached:
            LOG_ERROR("Can't detach thread for %s recv", family.protocol_word);
            break;
        case DetachedStart::started:
            break;
    }
    argument.release();  // the thread's own from its start on
}

// Extended pings that wait

namespace {

std::mutex waiting_lock;
std::map<std::string, WaitingPing*> waiting;  // by namespace; guarded by waiting_lock
std::atomic<int> waiting_count{0};            // spares readers the lock while nobody waits

std::int64_t in_us(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000 + time.tv_nsec / 1000;
}

/// A wait may outlast the watchdog's patience; its worker is at work all the same.
constexpr std::int64_t progress_every_us = 1'000'000;

}  // namespace

// B63: the ICMP type is not looked at.
bool ExpectedEcho::matches(std::span<const std::uint8_t> datagram) const {
    if (datagram.size() < sizeof(Ipv4Header) + sizeof(IcmpEcho)) {
        return false;
    }
    const auto ip = read_at<Ipv4Header>(datagram, 0);
    const auto icmp = read_at<IcmpEcho>(datagram, sizeof(Ipv4Header));
    return ip.source == source && icmp.packet_id == packet_id && icmp.sequence == sequence;
}

WaitingPing::WaitingPing(const std::string& ns_name) : ns_name_(ns_name) {
    const std::lock_guard guard(waiting_lock);
    waiting[ns_name_] = this;
    ++waiting_count;
}

WaitingPing::~WaitingPing() {
    const std::lock_guard guard(waiting_lock);
    waiting.erase(ns_name_);
    --waiting_count;
}

void WaitingPing::expect(const ExpectedEcho& echo) {
    const std::lock_guard guard(waiting_lock);
    if (is_rung_) {
        bell_.silence();
        is_rung_ = false;
    }
    echo_ = echo;
    is_awaited_ = true;
    is_answered_ = false;
}

void WaitingPing::offer(std::span<const std::uint8_t> datagram) {
    if (is_awaited_ && echo_.matches(datagram)) {
        is_awaited_ = false;
        is_answered_ = true;
        // Who reads the socket itself looks for the answer afterwards.
        is_rung_ = !is_reading_;
        if (is_rung_) {
            bell_.ring();
        }
    }
}

void offer_to_waiting_ping(const std::string& ns_name, std::span<const std::uint8_t> datagram) {
    if (waiting_count == 0) {
        return;
    }
    const std::lock_guard guard(waiting_lock);
    const auto found = waiting.find(ns_name);
    if (found != waiting.end()) {
        found->second->offer(datagram);
    }
}

bool WaitingPing::is_answered() const {
    const std::lock_guard guard(waiting_lock);
    return is_answered_;
}

bool WaitingPing::read_replies() {
    const auto set_reading = [this](bool is_reading) {
        const std::lock_guard guard(waiting_lock);
        is_reading_ = is_reading;
    };
    set_reading(true);
    const Drained drained = drain(ipv4_probes, ns_name_, datagrams_at_once);
    set_reading(false);
    return drained != Drained::failed;
}

EchoAnswer WaitingPing::await(const EchoWait& wait) {
    if (!wait.is_valid()) {
        return {};
    }
    const int reply_socket = ipv4_probes.recv_sock.get(ns_name_);
    const std::int64_t deadline_us = in_us(monotonic_now()) + wait.total_us();
    const auto remaining_us = [deadline_us] {
        return std::max<std::int64_t>(deadline_us - in_us(monotonic_now()), 0);
    };
    while (true) {
        // The last look waits no more: an answer that is in when the time is up still counts, also
        // where the worker was kept from the processor meanwhile.
        const std::int64_t left_us = remaining_us();
        const host::Woken woken =
            host::wait_for_packet(reply_socket, bell_, std::min(left_us, progress_every_us));
        const bool has_failed =
            woken == host::Woken::failed || (woken == host::Woken::by_packet && !read_replies());
        if (is_answered()) {
            return {.is_in_time = true, .remaining_us = remaining_us()};
        }
        if (has_failed || left_us == 0) {
            return {};
        }
        if (left_us > progress_every_us) {
            report_progress();
        }
    }
}

#include "probe/probe_family.h"

#include <linux/filter.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include "net/detached_thread.h"
#include "net/frames.h"
#include "net/sockets.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "probe/lb_test.h"
#include "probe/lb_test6.h"
#include "probe/reply_receiver.h"

namespace {

// What a raw ICMP socket delivers: the whole IPv4 datagram (the header is taken to be 20 bytes
// long), or for IPv6 the message from its ICMPv6 header on.
constexpr std::size_t ipv4_header_size = sizeof(Ipv4Header);

}  // namespace

const ProbeFamily ipv4_probes{
    .word = "ipv4",
    .protocol_word = "icmp",
    .receiver_name = "recv_icmp",
    .receiver = recv_icmp,
    .domain = AF_INET,
    .protocol = IPPROTO_ICMP,
    .reply_type = icmp_echo_reply,
    .type_offset = ipv4_header_size + offsetof(IcmpEcho, type),
    .id_offset = ipv4_header_size + offsetof(IcmpEcho, packet_id),
    .initialized = LBTest::_initialized,
    .send_raw_sock = LBTest::_send_icmp_sock,
    .send_frame_sock = LBTest::_send_ip_sock,
    .recv_sock = LBTest::_recv_icmp_sock,
    .received = LBTest::_received,
    .packet_id = LBTest::_packet_id,
    .result_mutex = LBTest::_ipv4_result_mutex,
    .results = LBTest::_results,
};

const ProbeFamily ipv6_probes{
    .word = "ipv6",
    .protocol_word = "icmp6",
    .receiver_name = "recv_icmp6",
    .receiver = recv_icmp6,
    .domain = AF_INET6,
    .protocol = IPPROTO_ICMPV6,
    .reply_type = icmp6_echo_reply,
    .type_offset = offsetof(IcmpEcho, type),
    .id_offset = offsetof(IcmpEcho, packet_id),
    .initialized = LBTest6::_initialized,
    .send_raw_sock = LBTest6::_send_icmp6_sock,
    .send_frame_sock = LBTest6::_send_ipv6_sock,
    .recv_sock = LBTest6::_recv_icmp6_sock,
    .received = LBTest6::_received,
    .packet_id = LBTest6::_packet_id,
    .result_mutex = LBTest6::_ipv6_result_mutex,
    .results = LBTest6::_results,
};

namespace {

/// Passes only what can carry one of our identifiers where a reply carries it. The type is left to
/// the readers: an extended ping takes any.
std::array<sock_filter, 4> pass_our_identifiers(const ProbeFamily& family) {
    return {
        sock_filter{BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(family.id_offset)},
        sock_filter{BPF_JMP | BPF_JGE | BPF_K, 0, 1, packet_id_count},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
    };
}

/// Keeps the descriptor in its table; a failed one is logged and becomes 0, the number that no
/// socket of this process ever has.
bool keep_socket(NamespaceTable<int>& table, const std::string& ns_name, Fd opened) {
    if (!opened.is_open()) {
        LOG_ERROR("wan_lb: failed to acquired socket");
        table.set(ns_name, 0);
        return false;
    }
    table.set(ns_name, opened.release());
    return true;
}

Fd reusable(Fd opened) {
    const int on = 1;
    if (opened.is_open()) {
        setsockopt(opened.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    return opened;
}

void log_lock_failure(const ProbeFamily& family, const char* function, int rc) {
    LOG_ERROR("<%s> pthread_mutex_lock for %s failed!!!!! rc = %d, errno = %d (%s)", function,
              family.word, rc, errno, strerror(errno));
}

void log_unlock_failure(const ProbeFamily& family, const char* function, int rc) {
    LOG_ERROR("<%s> pthread_mutex_unlock for %s failed!!!!! rc = %d, errno = %d (%s)", function,
              family.word, rc, errno, strerror(errno));
}

}  // namespace

bool lock_results(const ProbeFamily& family, const char* function) {
    const int rc = pthread_mutex_lock(&family.result_mutex);
    if (rc != 0) {
        log_lock_failure(family, function, rc);
    }
    return rc == 0;
}

bool unlock_results(const ProbeFamily& family, const char* function) {
    const int rc = pthread_mutex_unlock(&family.result_mutex);
    if (rc != 0) {
        log_unlock_failure(family, function, rc);
    }
    return rc == 0;
}

namespace {

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
        keep_socket(
            family.send_raw_sock, ns_name,
            reusable(open_raw_icmp_socket(family.domain, family.protocol, pass_nothing()))) &&
        keep_socket(family.send_frame_sock, ns_name, reusable(open_send_only_packet_socket()));
    if (can_send) {
        keep_socket(
            family.recv_sock, ns_name,
            open_raw_icmp_socket(family.domain, family.protocol, pass_our_identifiers(family)));
    }
}

void close_namespace(const ProbeFamily& family, const std::string& ns_name) {
    for (auto* table : {&family.recv_sock, &family.send_raw_sock, &family.send_frame_sock}) {
        if (const int open_socket = table->exchange(ns_name, 0); open_socket != 0) {
            close(open_socket);
        }
    }
}

int next_packet_id(const ProbeFamily& family) {
    int before = family.packet_id.load();
    int next = (before + 1) % packet_id_count;
    while (!family.packet_id.compare_exchange_weak(before, next)) {
        next = (before + 1) % packet_id_count;
    }
    return next;
}

std::optional<int> register_probe(const ProbeFamily& family, const std::string& interface,
                                  const std::string& target, timespec& last_sent) {
    if (!lock_results(family, "send")) {
        return std::nullopt;
    }
    std::optional<int> registered;
    if (!family.results.find(interface, target)) {
        last_sent = monotonic_now();
        registered = next_packet_id(family);
        family.results.insert(*registered, {.interface = interface,
                                            .status = PktData::sent,
                                            .send_time = last_sent,
                                            .target = target});
    }
    if (!unlock_results(family, "send")) {
        if (registered) {
            family.results.erase(*registered);
        }
        return std::nullopt;
    }
    return registered;
}

namespace {

ProbeOutcome judge(const PktData& probe, int timeout_ms) {
    if (probe.status == PktData::answered) {
        return ProbeOutcome::answered;
    }
    const bool is_late = elapsed_ms(probe.send_time, monotonic_now()) > timeout_ms;
    return probe.status == PktData::sent && is_late ? ProbeOutcome::timed_out
                                                    : ProbeOutcome::nothing;
}

}  // namespace

ProbeOutcome collect_probe(const ProbeFamily& family, const std::string& interface,
                           const std::string& target, int timeout_ms) {
    // A lock that fails costs its message; the step is carried out all the same, or the target
    // would keep its verdict for ever.
    lock_results(family, "recv");
    ProbeOutcome outcome = ProbeOutcome::nothing;
    if (const auto packet_id = family.results.find(interface, target)) {
        outcome = judge(*family.results.find(*packet_id), timeout_ms);
        if (outcome != ProbeOutcome::nothing) {
            family.results.erase(*packet_id);
        }
    }
    unlock_results(family, "recv");
    return outcome;
}

void start_receiver(const ProbeFamily& family, const std::string& ns_name) {
    if (family.received.exchange(ns_name, true)) {
        return;
    }
    auto argument = std::make_unique<std::string>(ns_name);
    switch (start_detached(family.receiver, argument.get())) {
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

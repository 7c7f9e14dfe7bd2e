#include "probe/lb_test.h"

#include <optional>

#include "config/live_state.h"
#include "host/clock.h"
#include "probe/host_view.h"
#include "probe/reply_socket.h"
#include "wire/frames.h"

NamespaceTable<bool> LBTest::_initialized;
NamespaceTable<int> LBTest::_send_icmp_sock;
NamespaceTable<int> LBTest::_send_ip_sock;
NamespaceTable<int> LBTest::_recv_icmp_sock;
NamespaceTable<bool> LBTest::_received;
pthread_mutex_t LBTest::_ipv4_result_mutex;
PendingProbes LBTest::_results;
std::atomic<int> LBTest::_packet_id{0};

NamespaceTable<bool> LBTest6::_initialized;
NamespaceTable<int> LBTest6::_send_icmp6_sock;
NamespaceTable<int> LBTest6::_send_ipv6_sock;
NamespaceTable<int> LBTest6::_recv_icmp6_sock;
NamespaceTable<bool> LBTest6::_received;
pthread_mutex_t LBTest6::_ipv6_result_mutex;
PendingProbes LBTest6::_results;
std::atomic<int> LBTest6::_packet_id{0};

// The reply socket delivers the whole IPv4 datagram (B51: the header is taken to be 20 bytes long),
// or for IPv6 the message from its ICMPv6 header on.
const ProbeFamily ipv4_probes{
    .is_ipv6 = false,
    .word = "ipv4",
    .protocol_word = "icmp",
    .receiver_name = "recv_icmp",
    .receiver = recv_icmp,
    .reply_type = icmp_echo_reply,
    .type_offset = sizeof(Ipv4Header) + offsetof(IcmpEcho, type),
    .id_offset = sizeof(Ipv4Header) + offsetof(IcmpEcho, packet_id),
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
    .is_ipv6 = true,
    .word = "ipv6",
    .protocol_word = "icmp6",
    .receiver_name = "recv_icmp6",
    .receiver = recv_icmp6,
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

Probe::~Probe() {
    close_namespace(family_, ns_name);
}

void Probe::init(context* ctx) {
    set_up_namespace(family_, *ctx->ns_name);
}

std::string Probe::status() {
    return status_text;
}

void Probe::recv(LBHealth& health, context* ctx) {
    if (ctx->ipv6 != family_.is_ipv6) {
        return;
    }
    start_receiver(family_, ns_name);
    const bool is_drained = ctx->view != nullptr && ctx->view->drained_at;
    const ProbeOutcome outcome =
        collect_probe(family_, health.name, target, timeout,
                      is_drained ? *ctx->view->drained_at : monotonic_now());
    if (outcome != ProbeOutcome::nothing) {
        record(health, ctx, outcome == ProbeOutcome::answered ? 0 : -1, target);
    }
}

void Probe::name_once(const context& ctx) {
    const LiveStateWriter hold;
    if (status_text.empty()) {
        status_text = name();
        ns_name = *ctx.ns_name;
    }
}

const std::string& Probe::resolve_target(LBHealth& health) {
    if (target.empty() && !health.effective_nexthop().empty()) {
        const LiveStateWriter hold;
        target = health.effective_nexthop();
        if (health.history.last_resp.empty()) {
            health.history.last_resp[target] = -1;
        }
    }
    return target;
}

std::string Probe::status_line() {
    return name() + "\tTarget: " + target;
}

void Probe::publish_status() {
    const std::string line = status_line();
    if (status_text != line) {
        const LiveStateWriter hold;
        status_text = line;
    }
}

std::string Probe::dump_line() const {
    return "target: " + target + ", resp_time: " + std::to_string(static_cast<unsigned>(timeout));
}

void Probe::record(LBHealth& health, context* ctx, int result, const std::string& of_target) {
    health.put(result, ctx, of_target);
    const LiveStateWriter hold;
    last_result = result == 0 ? 1 : 2;
}

std::optional<int> Probe::begin_echo(LBHealth& health, timespec& last_sent) {
    resolve_target(health);
    publish_status();
    return target.empty() ? std::nullopt : register_probe(family_, health.name, target, last_sent);
}

#pragma once

#include <cerrno>
#include <string>

#include "config/lb_health.h"
#include "config/live_state.h"
#include "platform/log.h"
#include "probe/probe_family.h"

/// Steps that the probes of both families share; `Test` is an `LBTest` or an `LBTest6`. All run on
/// the worker that owns the probe.

/// Names the probe and its namespace, unless the sibling worker did so already: that one may be
/// using them by now.
template <class Test>
void name_probe(Test& test, const context& ctx) {
    const LiveStateWriter hold;
    if (test.status_text.empty()) {
        test.status_text = test.name();
        test.ns_name = *ctx.ns_name;
    }
}

/// The probe's target. A probe without one takes the interface's next hop for good as soon as that
/// is known, and the interface counts as down until this target is proven.
template <class Test>
const std::string& resolve_target(Test& test, LBHealth& health) {
    if (test.target.empty() && !health.effective_nexthop().empty()) {
        const LiveStateWriter hold;
        test.target = health.effective_nexthop();
        if (health.history.last_resp.empty()) {
            health.history.last_resp[test.target] = -1;
        }
    }
    return test.target;
}

template <class Test>
std::string status_line(Test& test) {
    return test.name() + "\tTarget: " + test.target;
}

template <class Test>
void publish_status(Test& test) {
    const std::string line = status_line(test);
    if (test.status_text != line) {
        const LiveStateWriter hold;
        test.status_text = line;
    }
}

template <class Test>
std::string dump_line(const Test& test) {
    return "target: " + test.target +
           ", resp_time: " + std::to_string(static_cast<unsigned>(test.timeout));
}

/// Hands an outcome to the interface: 0 success, -1 failure.
template <class Test>
void record_result(Test& test, LBHealth& health, context* ctx, int result,
                   const std::string& target) {
    health.put(result, ctx, target);
    const LiveStateWriter hold;
    test.last_result = result == 0 ? 1 : 2;
}

/// The collection step of the echo probes.
template <class Test>
void collect(const ProbeFamily& family, Test& test, LBHealth& health, context* ctx) {
    start_receiver(family, test.ns_name);
    const ProbeOutcome outcome = collect_probe(family, health.name, test.target, test.timeout);
    if (outcome != ProbeOutcome::nothing) {
        const std::string target = test.target;
        record_result(test, health, ctx, outcome == ProbeOutcome::answered ? 0 : -1, target);
    }
}

/// The cycle's step of the echo probes: one echo, unless the one before is still in flight.
template <class Test>
void send_echo(const ProbeFamily& family, Test& test, LBHealth& health, const std::string& nexthop,
               context* ctx) {
    const std::string target = resolve_target(test, health);
    publish_status(test);
    if (target.empty()) {
        return;
    }
    const auto packet_id = register_probe(family, health.name, target, test.last_sent);
    if (packet_id) {
        test.send(health.name, target, health.source_address, nexthop, *packet_id, ctx);
    }
}

/// Reports a probe that did not go out; errno is the send's. A network that is unreachable is an
/// everyday state of an uplink and stays silent.
inline void report_failed_send(const ProbeFamily& family, int sent) {
    const int error = errno;
    if (sent < 0 && error != ENETUNREACH) {
        plain_syslog(7, "wan_lb: error on sending %s packet: %d", family.protocol_word, error);
    }
}

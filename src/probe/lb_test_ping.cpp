#include "probe/lb_test_ping.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <functional>

#include "config/interface_name.h"
#include "config/live_state.h"
#include "host/clock.h"
#include "host/log.h"
#include "host/watchdog.h"
#include "probe/host_view.h"
#include "probe/reply_socket.h"
#include "probe/send_path.h"
#include "wire/checksum.h"
#include "wire/frame_builder.h"

namespace {

/// A run may take many times a cycle; its worker is at work all the same.
constexpr int progress_every_ms = 1000;

}  // namespace

int ts2msecs(const timespec* time) {
    return static_cast<int>(time->tv_sec) * 1000 + static_cast<int>(time->tv_nsec / 1'000'000);
}

LBTestPING::LBTestPING() {
    spare_flag = true;
}

void LBTestPING::init(context* ctx) {
    LBTest::init(ctx);
    name_once(*ctx);
}

std::string LBTestPING::name() {
    return "ping extended";
}

std::string LBTestPING::dump(context* /*ctx*/) {
    return dump_line();
}

void LBTestPING::recv(LBHealth& /*health*/, context* /*ctx*/) {}

void LBTestPING::send(LBHealth& health, context* ctx) {
    const timespec now = monotonic_now();
    const bool has_run = period_start.tv_sec != 0 || period_start.tv_nsec != 0;
    // B64, B138: stamped by the first run only, also where nothing leaves. The second comes a
    // period later, and from then on every cycle runs.
    if (!has_run) {
        period_start = now;
    } else if (elapsed_ms(period_start, now) < std::int64_t{period} * 1000) {
        return;
    }
    const std::string to = resolve_target(health);
    publish_status();
    if (!to.empty()) {
        send(health, to, health.effective_nexthop(), next_packet_id(ipv4_probes), ctx);
    }
}

void LBTestPING::send(LBHealth& health, const std::string& to, const std::string& nexthop, int id,
                      context* ctx) {
    ctx->view->outbox.send_waiting();
    report_failed_send(
        family_, pings_through_tunnel(health.name)
                     ? ping_into_tunnel(_send_icmp_sock.get(ns_name), health, to, id, ctx)
                     : ping_by_frames(_send_ip_sock.get(ns_name), health, to, nexthop, id, ctx));
}

/// What a run of echoes needs besides the probe itself.
struct LBTestPING::Run {
    LBHealth& health;
    context* ctx;
    const std::string& target;
    ExpectedEcho expected;
    EchoWait wait;
    /// Sends the run's echo with that sequence number.
    std::function<host::Transfer(std::uint16_t sequence)> send_echo;
};

host::Transfer LBTestPING::ping_by_frames(int sock, LBHealth& health, const std::string& to,
                                          const std::string& nexthop, int id, context* ctx) {
    if (ctx->ipv6) {
        return fail_run(health, ctx, to, {.count = -1, .error = EAFNOSUPPORT});
    }
    const FramePath4 path = find_frame_path4(health.name, health.source_address, nexthop, to, ctx);
    switch (path.reached) {
        case FramePath4::Step::ready:
            break;
        case FramePath4::Step::failed:
            return fail_run(health, ctx, to, {.count = -1, .error = path.error});
        case FramePath4::Step::source_absent:
            // B72: no verdict. The target keeps what the runs before proved.
            LOG_WARNING("Address '%s' not present on any interface", path.own.source_text.c_str());
            return {.count = -1, .error = path.error};
    }
    EchoFrame4 frame =
        echo_frame4(path.next_hop_mac, path.own.link.mac, path.own.source, path.target,
                    host::echo_identifier(), static_cast<std::uint32_t>(id));
    create_conntrack_record(path.own.source_text, to, ctx);
    const int wait_ms = ts2msecs(&ping_timeout);
    return run_echoes(
        {.health = health,
         .ctx = ctx,
         .target = to,
         .expected = {.source = path.target, .packet_id = static_cast<std::uint32_t>(id)},
         .wait = {.seconds = wait_ms / 1000, .microseconds = wait_ms % 1000 * 1000},
         .send_echo = [&frame, &path, sock](std::uint16_t sequence) {
             set_sequence(frame.icmp, sequence);
             return host::send_frame(sock, path.own.link.index, path.own.link.mac, bytes_of(frame));
         }});
}

host::Transfer LBTestPING::ping_into_tunnel(int sock, LBHealth& health, const std::string& to,
                                            int id, context* ctx) {
    if (ctx->ipv6) {
        return fail_run(health, ctx, to, {.count = -1, .error = EAFNOSUPPORT});
    }
    const TunnelPath path = open_tunnel_path(sock, health.name, to, false);
    const host::Transfer failed{.count = -1, .error = path.error};
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return fail_run(health, ctx, to, failed);
        case TunnelPath::Step::unresolved:
            LOG_WARNING("Error in resolving configured hostname: %s", to.c_str());
            return fail_run(health, ctx, to, failed);
        case TunnelPath::Step::not_bound:
            LOG_WARNING("Failure to bind to interface: %s", shown_ifname(health.name, ctx).c_str());
            return fail_run(health, ctx, to, failed);
    }
    const auto destination = digits_destination(to);
    if (!destination) {
        return fail_run(health, ctx, to, {.count = -1, .error = EINVAL});
    }
    TunnelEcho4 message = tunnel_echo4(host::echo_identifier(), 0, static_cast<std::uint32_t>(id));
    return run_echoes(
        {.health = health,
         .ctx = ctx,
         .target = to,
         .expected = {.source = *destination, .packet_id = static_cast<std::uint32_t>(id)},
         // B71: the nanoseconds stand where microseconds belong, on tunnels only. A wait that is no
         // whole number of seconds is therefore invalid there.
         .wait = {.seconds = ping_timeout.tv_sec, .microseconds = ping_timeout.tv_nsec},
         .send_echo = [&message, &destination, sock](std::uint16_t sequence) {
             set_sequence(message.icmp, sequence);
             return host::send_echo(sock, *destination, bytes_of(message));
         }});
}

/// Sends the echoes, each after the answer to the one before, and records the verdict.
host::Transfer LBTestPING::run_echoes(const Run& run) {
    const auto fail = [this, &run](const host::Transfer& reason) {
        return fail_run(run.health, run.ctx, run.target, reason);
    };
    if (count <= 0) {  // B70
        return fail({.count = 0, .error = 0});
    }
    const int wait_ms = ts2msecs(&ping_timeout);
    WaitingPing waiting(ns_name);
    // Where no receiver thread reads the socket, what came since the last run would leave no room
    // for the first answer.
    drain(ipv4_probes, ns_name, datagrams_at_once);
    timespec reported = monotonic_now();
    PingRun measured;
    while (measured.sent < count) {
        ExpectedEcho expected = run.expected;
        expected.sequence = static_cast<std::uint16_t>(measured.sent);
        waiting.expect(expected);
        const host::Transfer sent = run.send_echo(expected.sequence);
        if (sent.count < 0) {
            return fail(sent);
        }
        ++measured.sent;
        const EchoAnswer answer = waiting.await(run.wait);
        if (elapsed_ms(reported, monotonic_now()) >= progress_every_ms) {
            report_progress();
            reported = monotonic_now();
        }
        if (answer.is_in_time) {
            measured.answered(wait_ms - EchoWait::whole_ms(answer.remaining_us));
        } else if (measured.sent == 1) {  // B66: without its first answer a run ends
            return fail({.count = -1, .error = ETIMEDOUT});
        } else {
            measured.lost(wait_ms);
        }
    }
    return judge_run(run, measured);
}

host::Transfer LBTestPING::fail_run(LBHealth& health, context* ctx, const std::string& to,
                                    const host::Transfer& reason) {
    record(health, ctx, -1, to);
    return reason;
}

/// Judges a run that was sent to its end.
host::Transfer LBTestPING::judge_run(const Run& run, const PingRun& measured) {
    {
        const LiveStateWriter hold;
        last_loss = measured.loss_percent();
        last_rtt = measured.mean_ms(count);
        last_jitter = measured.jitter_ms(count);
    }
    // B68: a limit that is reached has failed.
    const bool is_bad = last_loss >= loss || last_rtt >= rtt || last_jitter >= jitter;
    record(run.health, run.ctx, is_bad ? -1 : 0, run.target);
    return {.count = 0, .error = 0};
}

int LBTestPING::send_for_interfaces(int sock, LBHealth& health, const std::string& to,
                                    const std::string& nexthop, int id, context* ctx) {
    const host::Transfer result = ping_by_frames(sock, health, to, nexthop, id, ctx);
    errno = result.error;
    return result.count;
}

int LBTestPING::send_for_tunnel(int sock, LBHealth& health, const std::string& to, int id,
                                context* ctx) {
    const host::Transfer result = ping_into_tunnel(sock, health, to, id, ctx);
    errno = result.error;
    return result.count;
}

std::string LBTestPING::status(context* /*ctx*/) {
    return status_line();
}

unsigned short LBTestPING::in_checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBTestPING::icmp4_checksum(icmphdr header, unsigned char* payload, int length) {
    return ::icmp4_checksum(std::bit_cast<IcmpHeaderBytes>(header), payload, length);
}

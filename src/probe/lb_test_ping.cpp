#include "probe/lb_test_ping.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "host/conntrack_record.h"
#include "host/interface_name.h"
#include "net/checksum.h"
#include "net/frame_builder.h"
#include "net/sockets.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/watchdog.h"
#include "probe/echo_waiter.h"
#include "probe/frame_path.h"
#include "probe/probe_steps.h"
#include "probe/tunnel_path.h"

namespace {

/// A run may take many times a cycle; its worker is at work all the same.
constexpr int progress_every_ms = 1000;

/// Sends the run's echo with that sequence number; gives what sendto(2) returned.
using SendEcho = std::function<int(std::uint16_t sequence)>;

/// The run failed; `error` is the reason, as errno.
int fail_run(LBTestPING& test, LBHealth& health, context* ctx, const std::string& target,
             int result, int error) {
    record_result(test, health, ctx, -1, target);
    errno = error;
    return result;
}

/// Judges a run that was sent to its end.
int judge_run(LBTestPING& test, LBHealth& health, context* ctx, const std::string& target,
              const PingRun& run) {
    {
        const LiveStateWriter hold;
        test.last_loss = run.loss_percent();
        test.last_rtt = run.mean_ms(test.count);
        test.last_jitter = run.jitter_ms(test.count);
    }
    const bool is_bad =
        test.last_loss >= test.loss || test.last_rtt >= test.rtt || test.last_jitter >= test.jitter;
    record_result(test, health, ctx, is_bad ? -1 : 0, target);
    return 0;
}

/// Sends the echoes, each after the answer to the one before, and records the verdict.
int run_echoes(LBTestPING& test, LBHealth& health, context* ctx, const std::string& target,
               ExpectedEcho expected, const EchoWait& wait, const SendEcho& send_echo) {
    if (test.count <= 0) {
        return fail_run(test, health, ctx, target, 0, 0);
    }
    const int wait_ms = ts2msecs(&test.ping_timeout);
    const int reply_socket = LBTest::_recv_icmp_sock.get(test.ns_name);
    ReplyMailbox mailbox(test.ns_name);
    pass_on_waiting_replies(reply_socket);
    timespec reported = monotonic_now();
    PingRun run;
    while (run.sent < test.count) {
        expected.sequence = static_cast<std::uint16_t>(run.sent);
        mailbox.expect(expected);
        const int sent = send_echo(expected.sequence);
        if (sent < 0) {
            return fail_run(test, health, ctx, target, sent, errno);
        }
        ++run.sent;
        const EchoAnswer answer = await_echo(reply_socket, expected, mailbox, wait);
        if (elapsed_ms(reported, monotonic_now()) >= progress_every_ms) {
            report_progress();
            reported = monotonic_now();
        }
        if (answer.is_in_time) {
            run.answered(wait_ms - EchoWait::whole_ms(answer.remaining_us));
        } else if (run.sent == 1) {
            return fail_run(test, health, ctx, target, -1, ETIMEDOUT);
        } else {
            run.lost(wait_ms);
        }
    }
    return judge_run(test, health, ctx, target, run);
}

}  // namespace

int ts2msecs(const timespec* time) {
    return static_cast<int>(time->tv_sec) * 1000 + static_cast<int>(time->tv_nsec / 1'000'000);
}

LBTestPING::LBTestPING() {
    spare_flag = true;
}

void LBTestPING::init(context* ctx) {
    set_up(ctx);
}

std::string LBTestPING::name() {
    return "ping extended";
}

std::string LBTestPING::status(context* /*ctx*/) {
    return status_line(*this);
}

std::string LBTestPING::dump(context* /*ctx*/) {
    return dump_line(*this);
}

void LBTestPING::recv(LBHealth& /*health*/, context* /*ctx*/) {}

void LBTestPING::send(LBHealth& health, context* ctx) {
    const timespec now = monotonic_now();
    const bool has_run = period_start.tv_sec != 0 || period_start.tv_nsec != 0;
    // Stamped by the first run only: the second comes a period later, and from then on every cycle
    // runs. Operators have tuned their counts to that.
    if (!has_run) {
        period_start = now;
    } else if (elapsed_ms(period_start, now) < std::int64_t{period} * 1000) {
        return;
    }
    const std::string to = resolve_target(*this, health);
    publish_status(*this);
    if (!to.empty()) {
        send(health, to, health.effective_nexthop(), next_packet_id(ipv4_probes), ctx);
    }
}

void LBTestPING::send(LBHealth& health, const std::string& to, const std::string& nexthop, int id,
                      context* ctx) {
    const int result =
        pings_through_tunnel(health.name)
            ? send_for_tunnel(_send_icmp_sock.get(ns_name), health, to, id, ctx)
            : send_for_interfaces(_send_ip_sock.get(ns_name), health, to, nexthop, id, ctx);
    report_failed_send(ipv4_probes, result);
}

int LBTestPING::send_for_interfaces(int sock, LBHealth& health, const std::string& to,
                                    const std::string& nexthop, int id, context* ctx) {
    if (ctx->ipv6) {
        return fail_run(*this, health, ctx, to, -1, EAFNOSUPPORT);
    }
    const FramePath4 path = find_frame_path4(health.name, health.source_address, nexthop, to, ctx);
    switch (path.reached) {
        case FramePath4::Step::ready:
            break;
        case FramePath4::Step::failed:
            return fail_run(*this, health, ctx, to, -1, errno);
        case FramePath4::Step::source_absent:
            // No verdict: the target keeps what the runs before proved.
            LOG_WARNING("Address '%s' not present on any interface", path.source_text.c_str());
            errno = EADDRNOTAVAIL;
            return -1;
    }
    EchoFrame4 frame =
        echo_frame4(path.next_hop_mac, path.link.mac, path.source, path.target,
                    static_cast<std::uint16_t>(getpid()), static_cast<std::uint32_t>(id));
    create_conntrack_record(path.source_text, to, ctx);
    const int wait_ms = ts2msecs(&ping_timeout);
    const EchoWait wait{.seconds = wait_ms / 1000, .microseconds = wait_ms % 1000 * 1000};
    return run_echoes(*this, health, ctx, to,
                      {.source = path.target, .packet_id = static_cast<std::uint32_t>(id)}, wait,
                      [&frame, &path, sock](std::uint16_t sequence) {
                          set_sequence(frame.icmp, sequence);
                          return send_frame(sock, path.link.index, path.link.mac, bytes_of(frame));
                      });
}

int LBTestPING::send_for_tunnel(int sock, LBHealth& health, const std::string& to, int id,
                                context* ctx) {
    if (ctx->ipv6) {
        return fail_run(*this, health, ctx, to, -1, EAFNOSUPPORT);
    }
    const TunnelPath path = open_tunnel_path(sock, health.name, to, AF_INET);
    const int error = errno;
    switch (path.reached) {
        case TunnelPath::Step::ready:
            break;
        case TunnelPath::Step::not_sendable:
            return fail_run(*this, health, ctx, to, -1, error);
        case TunnelPath::Step::unresolved:
            LOG_WARNING("Error in resolving configured hostname: %s", to.c_str());
            return fail_run(*this, health, ctx, to, -1, error);
        case TunnelPath::Step::not_bound:
            LOG_WARNING("Failure to bind to interface: %s", shown_ifname(health.name, ctx).c_str());
            return fail_run(*this, health, ctx, to, -1, error);
    }
    const auto destination = dotted_destination(to);
    if (!destination) {
        return fail_run(*this, health, ctx, to, -1, EINVAL);
    }
    TunnelEcho4 message =
        tunnel_echo4(static_cast<std::uint16_t>(getpid()), 0, static_cast<std::uint32_t>(id));
    // The nanoseconds stand where microseconds belong: routers have always done so, and a wait that
    // is no whole number of seconds is therefore invalid on tunnels.
    const EchoWait wait{.seconds = ping_timeout.tv_sec, .microseconds = ping_timeout.tv_nsec};
    return run_echoes(
        *this, health, ctx, to,
        {.source = destination->sin_addr, .packet_id = static_cast<std::uint32_t>(id)}, wait,
        [&message, &destination, sock](std::uint16_t sequence) {
            set_sequence(message.icmp, sequence);
            return send_datagram(sock, *destination, bytes_of(message));
        });
}

unsigned short LBTestPING::in_checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBTestPING::icmp4_checksum(icmphdr header, unsigned char* payload, int length) {
    return ::icmp4_checksum(header, payload, length);
}

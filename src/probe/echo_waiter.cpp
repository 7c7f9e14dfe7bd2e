#include "probe/echo_waiter.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <span>

#include "platform/clock.h"
#include "platform/watchdog.h"
#include "probe/probe_family.h"
#include "probe/reply_receiver.h"

namespace {

std::int64_t in_us(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000 + time.tv_nsec / 1000;
}

enum class Look { nothing, answered, failed };

/// Reads what the socket holds, until the awaited answer. The receiver thread may have been faster,
/// so an empty socket is nothing to wonder about.
Look read_answer(int reply_socket, const ExpectedEcho& echo) {
    std::array<std::uint8_t, largest_datagram> buffer;
    for (int i = 0; i < datagrams_at_once; ++i) {
        const ssize_t length = recv(reply_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno == EAGAIN ? Look::nothing : Look::failed;
        }
        const std::span datagram(buffer.data(), static_cast<std::size_t>(length));
        if (echo.matches(datagram)) {
            return Look::answered;
        }
        take_reply(ipv4_probes, datagram, "send");
    }
    return Look::nothing;
}

/// Waits until something is in, for `patience_us` at most, and looks whether it is the answer.
Look look_for_answer(int reply_socket, const ExpectedEcho& echo, const ReplyMailbox& mailbox,
                     std::int64_t patience_us) {
    std::array<pollfd, 2> readable{
        pollfd{.fd = mailbox.wake(), .events = POLLIN, .revents = 0},
        pollfd{.fd = reply_socket, .events = POLLIN, .revents = 0},
    };
    const timespec patience{.tv_sec = patience_us / 1'000'000,
                            .tv_nsec = patience_us % 1'000'000 * 1000};
    const int ready = ppoll(readable.data(), readable.size(), &patience, nullptr);
    if (ready < 0) {
        return errno == EINTR ? Look::nothing : Look::failed;
    }
    if ((readable[0].revents & POLLIN) != 0) {
        return Look::answered;
    }
    return ready > 0 ? read_answer(reply_socket, echo) : Look::nothing;
}

/// A wait may outlast the watchdog's patience; its worker is at work all the same.
constexpr std::int64_t progress_every_us = 1'000'000;

}  // namespace

void pass_on_waiting_replies(int reply_socket) {
    constexpr ExpectedEcho nobody{};
    read_answer(reply_socket, nobody);
}

EchoAnswer await_echo(int reply_socket, const ExpectedEcho& echo, const ReplyMailbox& mailbox,
                      const EchoWait& wait) {
    if (!wait.is_valid()) {
        return {};
    }
    const std::int64_t deadline_us = in_us(monotonic_now()) + wait.total_us();
    const auto remaining_us = [deadline_us] {
        return std::max<std::int64_t>(deadline_us - in_us(monotonic_now()), 0);
    };
    while (true) {
        // The last look waits no more: an answer that is in when the time is up still counts, also
        // where the worker was kept from the processor meanwhile.
        const std::int64_t left_us = remaining_us();
        switch (
            look_for_answer(reply_socket, echo, mailbox, std::min(left_us, progress_every_us))) {
            case Look::answered:
                return {.is_in_time = true, .remaining_us = remaining_us()};
            case Look::failed:
                return {};
            case Look::nothing:
                break;
        }
        if (left_us == 0) {
            return {};
        }
        if (left_us > progress_every_us) {
            report_progress();
        }
    }
}

#include "probe/echo_waiter.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <span>

#include "platform/clock.h"
#include "probe/probe_family.h"
#include "probe/reply_receiver.h"

namespace {

std::int64_t in_us(const timespec& time) {
    return static_cast<std::int64_t>(time.tv_sec) * 1'000'000 + time.tv_nsec / 1000;
}

enum class ReplySocket { empty, answered, failed };

/// Reads what the socket holds, until the awaited answer. The receiver thread may have been faster,
/// so an empty socket is nothing to wonder about.
ReplySocket read_answer(int reply_socket, const ExpectedEcho& echo) {
    std::array<std::uint8_t, largest_datagram> buffer;
    for (int i = 0; i < datagrams_at_once; ++i) {
        const ssize_t length = recv(reply_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno == EAGAIN ? ReplySocket::empty : ReplySocket::failed;
        }
        const std::span datagram(buffer.data(), static_cast<std::size_t>(length));
        if (echo.matches(datagram)) {
            return ReplySocket::answered;
        }
        take_reply(ipv4_probes, datagram, "send");
    }
    return ReplySocket::empty;
}

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
    while (true) {
        const std::int64_t remaining_us = deadline_us - in_us(monotonic_now());
        if (remaining_us <= 0) {
            return {};
        }
        std::array<pollfd, 2> readable{
            pollfd{.fd = mailbox.wake(), .events = POLLIN, .revents = 0},
            pollfd{.fd = reply_socket, .events = POLLIN, .revents = 0},
        };
        const timespec time_left{.tv_sec = remaining_us / 1'000'000,
                                 .tv_nsec = remaining_us % 1'000'000 * 1000};
        const int ready = ppoll(readable.data(), readable.size(), &time_left, nullptr);
        if (ready < 0 && errno != EINTR) {
            return {};
        }
        if (ready <= 0) {
            continue;
        }
        const bool was_handed_over = (readable[0].revents & POLLIN) != 0;
        const ReplySocket read =
            was_handed_over ? ReplySocket::answered : read_answer(reply_socket, echo);
        if (read == ReplySocket::failed) {
            return {};
        }
        if (read == ReplySocket::answered) {
            return {.is_in_time = true, .remaining_us = deadline_us - in_us(monotonic_now())};
        }
    }
}

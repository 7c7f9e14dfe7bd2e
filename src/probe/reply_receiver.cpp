#include "probe/reply_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <memory>

#include "net/bytes.h"
#include "platform/log.h"
#include "probe/reply_mailbox.h"

namespace {

void mark_reply(const ProbeFamily& family, std::span<const std::uint8_t> datagram) {
    if (datagram.size() < family.id_offset + sizeof(Be32) ||
        datagram[family.type_offset] != family.reply_type) {
        return;
    }
    const std::uint32_t packet_id = read_at<Be32>(datagram, family.id_offset);
    family.results.mark_answered(static_cast<int>(packet_id));
}

/// Takes a datagram off the reply socket and marks what it answers, in one step: whoever finds the
/// socket empty finds every probe marked whose answer has come. Gives recv(2)'s result; never
/// waits.
ssize_t take_datagram(const ProbeFamily& family, int reply_socket, std::span<std::uint8_t> buffer) {
    lock_results(family, family.receiver_name);
    const ssize_t length = recv(reply_socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    const int error = errno;
    if (length > 0) {
        mark_reply(family, buffer.first(static_cast<std::size_t>(length)));
    }
    unlock_results(family, family.receiver_name);
    errno = error;
    return length;
}

/// Reads until the socket fails.
void read_replies(const ProbeFamily& family, const std::string& ns_name) {
    std::array<std::uint8_t, largest_datagram> buffer;
    pollfd readable{.fd = family.recv_sock.get(ns_name), .events = POLLIN, .revents = 0};
    while (true) {
        if (poll(&readable, 1, -1) <= 0 || (readable.revents & POLLNVAL) != 0) {
            LOG_ERROR("select for %s failed!!!!!", family.word);
            return;
        }
        const ssize_t length = take_datagram(family, readable.fd, buffer);
        if (length < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;  // the worker was faster
        }
        if (length <= 0) {
            LOG_ERROR("recv for %s failed!!!!!", family.word);
            return;
        }
        if (&family == &ipv4_probes) {
            hand_to_waiting_ping(ns_name, {buffer.data(), static_cast<std::size_t>(length)});
        }
    }
}

void* receive_for(const ProbeFamily& family, void* argument) {
    const std::unique_ptr<std::string> ns_name(static_cast<std::string*>(argument));
    read_replies(family, *ns_name);
    family.received.set(*ns_name, false);
    return nullptr;
}

}  // namespace

void take_reply(const ProbeFamily& family, std::span<const std::uint8_t> datagram,
                const char* function) {
    lock_results(family, function);
    mark_reply(family, datagram);
    unlock_results(family, function);
}

void take_waiting_replies(const ProbeFamily& family, const std::string& ns_name) {
    const int reply_socket = family.recv_sock.get(ns_name);
    // What identifies a probe lies at the front of a datagram; the rest need not be copied.
    std::array<std::uint8_t, 64> front;
    for (int i = 0; i < datagrams_at_once; ++i) {
        if (take_datagram(family, reply_socket, front) <= 0) {
            return;
        }
    }
}

void* recv_icmp(void* ns_name) {
    return receive_for(ipv4_probes, ns_name);
}

void* recv_icmp6(void* ns_name) {
    return receive_for(ipv6_probes, ns_name);
}

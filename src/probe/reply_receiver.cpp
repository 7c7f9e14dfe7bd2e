#include "probe/reply_receiver.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <memory>

#include "net/bytes.h"
#include "platform/log.h"
#include "probe/reply_mailbox.h"

namespace {

constexpr std::size_t largest_datagram = 65535;

/// Reads until the socket fails.
void read_replies(const ProbeFamily& family, const std::string& ns_name) {
    std::array<std::uint8_t, largest_datagram> buffer;
    pollfd readable{.fd = family.recv_sock.get(ns_name), .events = POLLIN, .revents = 0};
    while (true) {
        if (poll(&readable, 1, -1) <= 0 || (readable.revents & POLLNVAL) != 0) {
            LOG_ERROR("select for %s failed!!!!!", family.word);
            return;
        }
        const ssize_t length = recv(readable.fd, buffer.data(), buffer.size(), 0);
        if (length <= 0) {
            LOG_ERROR("recv for %s failed!!!!!", family.word);
            return;
        }
        const std::span datagram(buffer.data(), static_cast<std::size_t>(length));
        take_reply(family, datagram, family.receiver_name);
        if (&family == &ipv4_probes) {
            hand_to_waiting_ping(ns_name, datagram);
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
    if (datagram.size() < family.id_offset + sizeof(Be32) ||
        datagram[family.type_offset] != family.reply_type) {
        return;
    }
    const std::uint32_t packet_id = read_at<Be32>(datagram, family.id_offset);
    lock_results(family, function);
    family.results.mark_answered(static_cast<int>(packet_id));
    unlock_results(family, function);
}

void* recv_icmp(void* ns_name) {
    return receive_for(ipv4_probes, ns_name);
}

void* recv_icmp6(void* ns_name) {
    return receive_for(ipv6_probes, ns_name);
}

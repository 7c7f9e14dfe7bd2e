#include "host/packets.h"

#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>

#include "base/fd.h"
#include "host/linux/filters.h"
#include "host/linux/frame_receiver.h"

namespace {

bool attach_filter(const Fd& to, std::span<const sock_filter> filter) {
    const sock_fprog program{static_cast<unsigned short>(filter.size()),
                             const_cast<sock_filter*>(filter.data())};
    return setsockopt(to.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

/// Without a protocol the kernel hands a packet socket (packet(7)) no frame.
Fd open_packet_socket() {
    return Fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
}

}  // namespace

// Binding to the protocol comes after the filter.
Fd open_frame_receiver(std::uint16_t protocol, std::span<const sock_filter> filter) {
    Fd receiver = open_packet_socket();
    if (!receiver.is_open() || !attach_filter(receiver, filter)) {
        return Fd();
    }
    sockaddr_ll any_interface{};
    any_interface.sll_family = AF_PACKET;
    any_interface.sll_protocol = htons(protocol);
    const bool is_bound = bind(receiver.get(), reinterpret_cast<const sockaddr*>(&any_interface),
                               sizeof any_interface) == 0;
    return is_bound ? std::move(receiver) : Fd();
}

namespace host {

namespace {

/// Hands a socket over to the daemon's tables; one that is not open leaves its error.
OpenedSocket hand_over(Fd opened) {
    const int error = errno;
    return opened.is_open() ? OpenedSocket{.number = opened.release(), .error = 0}
                            : OpenedSocket{.number = -1, .error = error};
}

Fd reusable(Fd opened) {
    const int on = 1;
    if (opened.is_open()) {
        setsockopt(opened.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    return opened;
}

/// A raw socket (raw(7)) receives from its first moment on, so what slipped in before the filter
/// is thrown away.
Fd open_raw_socket(bool is_ipv6, std::span<const sock_filter> filter) {
    Fd raw(socket(is_ipv6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_CLOEXEC,
                  is_ipv6 ? int{protocol_icmp6} : int{protocol_icmp}));
    if (!raw.is_open() || !attach_filter(raw, filter)) {
        return Fd();
    }
    std::array<char, 1> byte;
    while (recv(raw.get(), byte.data(), byte.size(), MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
    return raw;
}

template <class Address>
Transfer send_to(int number, const Address& destination, std::span<const std::uint8_t> message) {
    const auto sent = sendto(number, message.data(), message.size(), 0,
                             reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
    return {.count = static_cast<int>(sent), .error = sent < 0 ? errno : 0};
}

}  // namespace

OpenedSocket open_frame_sender() {
    return hand_over(reusable(open_packet_socket()));
}

OpenedSocket open_echo_sender(bool is_ipv6) {
    return hand_over(reusable(open_raw_socket(is_ipv6, filters::pass_nothing)));
}

OpenedSocket open_reply_receiver(bool is_ipv6, std::uint32_t identifiers) {
    return hand_over(open_raw_socket(is_ipv6, filters::pass_identifiers(is_ipv6, identifiers)));
}

OpenedSocket open_arp_receiver() {
    return hand_over(open_frame_receiver(ETH_P_ARP, filters::pass_arp_replies));
}

// Bound to IPv6 rather than to all protocols: a tap on all protocols would run its filter for every
// packet that enters or leaves the router. What it does not see that way is what the router itself
// sends, and its own advertisements tell of no next hop.
OpenedSocket open_advertisement_receiver() {
    return hand_over(open_frame_receiver(ETH_P_IPV6, filters::pass_advertisements));
}

void close_socket(int number) {
    close(number);
}

Transfer send_frame(int frame_sender, int interface_index, const MacAddress& own_mac,
                    std::span<const std::uint8_t> frame) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = interface_index;
    address.sll_halen = static_cast<unsigned char>(own_mac.size());
    std::copy(own_mac.begin(), own_mac.end(), address.sll_addr);
    return send_to(frame_sender, address, frame);
}

Transfer send_echo(int echo_sender, const Ipv4Bytes& to, std::span<const std::uint8_t> message) {
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_addr = std::bit_cast<in_addr>(to);
    return send_to(echo_sender, destination, message);
}

Transfer send_echo6(int echo_sender, const Ipv6Bytes& to, std::uint32_t scope,
                    std::span<const std::uint8_t> message) {
    sockaddr_in6 destination{};
    destination.sin6_family = AF_INET6;
    destination.sin6_addr = std::bit_cast<in6_addr>(to);
    destination.sin6_scope_id = scope;
    return send_to(echo_sender, destination, message);
}

int bind_to_interface(int number, const std::string& ifname) {
    const auto length = static_cast<socklen_t>(ifname.size());
    return setsockopt(number, SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(), length) == 0 ? 0 : errno;
}

std::uint16_t echo_identifier() {
    return static_cast<std::uint16_t>(getpid());
}

Transfer receive(int receiver, std::span<std::uint8_t> buffer) {
    const auto length = recv(receiver, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return {.count = static_cast<int>(length), .error = length < 0 ? errno : 0};
}

Bell::Bell() : number_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Bell::~Bell() {
    if (number_ >= 0) {
        close(number_);
    }
}

void Bell::ring() {
    eventfd_write(number_, 1);
}

void Bell::silence() {
    eventfd_t forgotten = 0;
    eventfd_read(number_, &forgotten);
}

Woken wait_for_packet(int receiver, const Bell& bell, std::int64_t patience_us) {
    std::array<pollfd, 2> waited{
        pollfd{.fd = bell.number(), .events = POLLIN, .revents = 0},
        pollfd{.fd = receiver, .events = POLLIN, .revents = 0},
    };
    const timespec patience{.tv_sec = patience_us / 1'000'000,
                            .tv_nsec = patience_us % 1'000'000 * 1000};
    const int ready = ppoll(waited.data(), waited.size(), &patience, nullptr);
    if (ready < 0) {
        return errno == EINTR ? Woken::interrupted : Woken::failed;
    }
    if ((waited[0].revents & POLLIN) != 0) {
        return Woken::by_bell;
    }
    return ready > 0 ? Woken::by_packet : Woken::by_time;
}

DetachedStart start_receiver_thread(ThreadBody body, void* argument) {
    return start_detached(body, argument);
}

void watch_receiver(int receiver, const ReceiverWatch& watch) {
    pollfd readable{.fd = receiver, .events = POLLIN, .revents = 0};
    while (true) {
        if (poll(&readable, 1, -1) <= 0 || (readable.revents & POLLNVAL) != 0) {
            watch.on_wait_failed();
            return;
        }
        if (!watch.on_readable()) {
            return;
        }
    }
}

}  // namespace host

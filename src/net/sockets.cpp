#include "net/sockets.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

namespace {

bool attach_filter(int number, std::span<const sock_filter> filter) {
    const sock_fprog program{static_cast<unsigned short>(filter.size()),
                             const_cast<sock_filter*>(filter.data())};
    return setsockopt(number, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

void drain(int number) {
    std::array<char, 1> byte;
    while (recv(number, byte.data(), byte.size(), MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
}

}  // namespace

std::span<const sock_filter> pass_nothing() {
    static constexpr std::array<sock_filter, 1> program{sock_filter{BPF_RET | BPF_K, 0, 0, 0}};
    return program;
}

Fd open_send_only_packet_socket() {
    return Fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
}

Fd open_packet_receiver(std::uint16_t protocol, std::span<const sock_filter> filter) {
    // Protocol 0 receives nothing; binding to the real one comes after the filter.
    Fd receiver = open_send_only_packet_socket();
    if (!receiver.is_open() || !attach_filter(receiver.get(), filter)) {
        return Fd();
    }
    sockaddr_ll any_interface{};
    any_interface.sll_family = AF_PACKET;
    any_interface.sll_protocol = htons(protocol);
    if (bind(receiver.get(), reinterpret_cast<const sockaddr*>(&any_interface),
             sizeof any_interface) != 0) {
        return Fd();
    }
    return receiver;
}

Fd open_raw_icmp_socket(int domain, int protocol, std::span<const sock_filter> filter) {
    // A raw socket receives from its first moment on, so what slipped in before the filter goes.
    Fd raw(socket(domain, SOCK_RAW | SOCK_CLOEXEC, protocol));
    if (!raw.is_open() || !attach_filter(raw.get(), filter)) {
        return Fd();
    }
    drain(raw.get());
    return raw;
}

namespace {

template <class Address>
int send_to(int number, const Address& destination, std::span<const std::uint8_t> message) {
    return static_cast<int>(sendto(number, message.data(), message.size(), 0,
                                   reinterpret_cast<const sockaddr*>(&destination),
                                   sizeof destination));
}

}  // namespace

int send_datagram(int raw_socket, const sockaddr_in& destination,
                  std::span<const std::uint8_t> message) {
    return send_to(raw_socket, destination, message);
}

int send_datagram(int raw_socket, const sockaddr_in6& destination,
                  std::span<const std::uint8_t> message) {
    return send_to(raw_socket, destination, message);
}

int send_frame(int packet_socket, int interface_index, const MacAddress& own_mac,
               std::span<const std::uint8_t> frame) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = interface_index;
    address.sll_halen = static_cast<unsigned char>(own_mac.size());
    std::copy(own_mac.begin(), own_mac.end(), address.sll_addr);
    return send_to(packet_socket, address, frame);
}

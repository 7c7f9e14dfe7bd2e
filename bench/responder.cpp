// The fast far end of a bench: answers every ICMP echo request on an interface at the link level,
// as cheaply as one process can. Runs until it is killed.
//
//     responder INTERFACE

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "host/linux/frame_receiver.h"
#include "wire/bytes.h"
#include "wire/checksum.h"
#include "wire/frames.h"

namespace {

constexpr std::size_t longest_frame = 2048;

/// IPv4 without options, ICMP, echo request.
constexpr std::array<sock_filter, 6> pass_echo_requests{
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame4, ip) + 9},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 3, IPPROTO_ICMP},
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame4, icmp)},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, icmp_echo_request},
    sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
    sock_filter{BPF_RET | BPF_K, 0, 0, 0},
};

/// Turns a request into its reply: addresses swapped, type 0, checksums as they then are.
void turn_round(std::span<std::uint8_t> bytes) {
    auto frame = read_at<EchoFrame4>(bytes, 0);
    std::swap(frame.ethernet.destination, frame.ethernet.source);
    std::swap(frame.ip.source, frame.ip.destination);
    frame.icmp.type = icmp_echo_reply;
    frame.icmp.checksum = 0;
    std::memcpy(bytes.data(), &frame, sizeof frame);
    const std::span<std::uint8_t> message =
        bytes.subspan(offsetof(EchoFrame4, icmp), frame.ip.total_length - sizeof(Ipv4Header));
    const Be16 sum{internet_checksum(message)};
    std::memcpy(message.data() + offsetof(IcmpEcho, checksum), &sum, sizeof sum);
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 2) {
        fprintf(stderr, "usage: responder INTERFACE\n");
        return 1;
    }
    const Fd link = open_frame_receiver(ETH_P_IP, pass_echo_requests);
    sockaddr_ll place{};
    place.sll_family = AF_PACKET;
    place.sll_protocol = htons(ETH_P_IP);
    place.sll_ifindex = static_cast<int>(if_nametoindex(argv[1]));
    if (!link.is_open() || place.sll_ifindex == 0 ||
        bind(link.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
        perror("responder");
        return 1;
    }
    const int room = 8 << 20;
    setsockopt(link.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    puts("ready");
    fflush(stdout);
    std::array<std::uint8_t, longest_frame> buffer;
    while (true) {
        const ssize_t length = recv(link.get(), buffer.data(), buffer.size(), 0);
        if (length < static_cast<ssize_t>(sizeof(EchoFrame4))) {
            continue;
        }
        const std::span frame(buffer.data(), static_cast<std::size_t>(length));
        turn_round(frame);
        send(link.get(), frame.data(), frame.size(), 0);
    }
}

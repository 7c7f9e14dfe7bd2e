// The fast far end of a bench: answers every ICMP and ICMPv6 echo request on an interface at the
// link level, as cheaply as one process can. Runs until it is killed. With `awake` it never sleeps,
// so that no request is the one that wakes it: that would be paid by its sender, who on a router
// has nothing to do with the far end's sleep.
//
//     responder INTERFACE [awake]

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include "host/linux/frame_receiver.h"
#include "wire/bytes.h"
#include "wire/frames.h"

namespace {

constexpr std::size_t longest_frame = 2048;

constexpr std::uint32_t ethertype_at = 12;

/// IPv4 without options, ICMP, echo request; or IPv6 without extension headers, the same of ICMPv6.
constexpr std::array<sock_filter, 13> pass_echo_requests{
    sock_filter{BPF_LD | BPF_H | BPF_ABS, 0, 0, ethertype_at},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 5, 0, ETH_P_IPV6},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 9, ETH_P_IP},
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame4, ip) + 9},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 7, IPPROTO_ICMP},
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame4, icmp)},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 4, 5, icmp_echo_request},
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame6, ip) + 6},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 3, IPPROTO_ICMPV6},
    sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(EchoFrame6, icmp)},
    sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, icmp6_echo_request},
    sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
    sock_filter{BPF_RET | BPF_K, 0, 0, 0},
};

/// Turns a request into its reply: addresses swapped, another type, and the checksum that belongs
/// to it.
template <class Frame>
void turn_round(std::span<std::uint8_t> bytes, std::uint8_t reply_type) {
    auto frame = read_at<Frame>(bytes, 0);
    std::swap(frame.ethernet.destination, frame.ethernet.source);
    std::swap(frame.ip.source, frame.ip.destination);
    // RFC 1624: of all that the checksum covers only the type has changed.
    const auto inverted = [](unsigned word) { return ~word & 0xffffU; };
    unsigned sum =
        inverted(frame.icmp.checksum) + inverted(frame.icmp.type * 0x100U) + reply_type * 0x100U;
    while (sum > 0xffffU) {
        sum = (sum & 0xffffU) + (sum >> 16U);
    }
    frame.icmp.checksum = Be16{static_cast<std::uint16_t>(inverted(sum))};
    frame.icmp.type = reply_type;
    std::memcpy(bytes.data(), &frame, sizeof frame);
}

}  // namespace

int main(int argc, char* argv[]) {
    const bool is_awake = argc == 3 && std::strcmp(argv[2], "awake") == 0;
    if (argc != 2 && !is_awake) {
        fprintf(stderr, "usage: responder INTERFACE [awake]\n");
        return 1;
    }
    const OpenedFd opened = open_frame_receiver(ETH_P_ALL, pass_echo_requests);
    if (!opened.is_open()) {
        fprintf(stderr, "responder: %s\n", strerror(opened.error));
        return 1;
    }
    const Fd& link = opened.fd;
    sockaddr_ll place{};
    place.sll_family = AF_PACKET;
    place.sll_protocol = htons(ETH_P_ALL);
    place.sll_ifindex = static_cast<int>(if_nametoindex(argv[1]));
    if (place.sll_ifindex == 0 ||
        bind(link.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
        perror("responder");
        return 1;
    }
    const int room = 8 << 20;
    setsockopt(link.get(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    puts("ready");
    fflush(stdout);
    const int flags = is_awake ? MSG_DONTWAIT : 0;
    std::array<std::uint8_t, longest_frame> buffer;
    while (true) {
        const ssize_t length = recv(link.get(), buffer.data(), buffer.size(), flags);
        if (length < static_cast<ssize_t>(sizeof(EchoFrame4))) {
            continue;
        }
        const std::span frame(buffer.data(), static_cast<std::size_t>(length));
        if (read_at<Be16>(frame, ethertype_at) == ETH_P_IPV6) {
            turn_round<EchoFrame6>(frame, icmp6_echo_reply);
        } else {
            turn_round<EchoFrame4>(frame, icmp_echo_reply);
        }
        send(link.get(), frame.data(), frame.size(), 0);
    }
}

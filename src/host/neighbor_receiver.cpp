#include "host/neighbor_receiver.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/neighbor_netlink.h"
#include "net/frames.h"
#include "net/sockets.h"
#include "platform/log.h"

std::span<const sock_filter> pass_advertisements() {
    // A load beyond the frame's end drops it: the last one asks for room for the MAC.
    static constexpr std::array<sock_filter, 9> program{
        sock_filter{BPF_LD | BPF_H | BPF_ABS, 0, 0, offsetof(EthernetHeader, ethertype)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 6, ethertype_ipv6},
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0,
                    offsetof(NeighborAdvertisement, ip) + offsetof(Ipv6Header, next_header)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 4, IPPROTO_ICMPV6},
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(NeighborAdvertisement, type)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 2, icmp6_neighbor_advertisement},
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, sizeof(NeighborAdvertisement) - 1},
        sock_filter{BPF_RET | BPF_K, 0, 0, sizeof(NeighborAdvertisement)},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0},
    };
    return program;
}

Fd open_neighbor_receiver() {
    return open_packet_receiver(ETH_P_IPV6, pass_advertisements());
}

bool take_neighbor_frame(std::span<const std::uint8_t> frame, AskedAddresses& asked) {
    if (frame.size() < sizeof(NeighborAdvertisement)) {
        return true;
    }
    const auto advertisement = read_at<NeighborAdvertisement>(frame, 0);
    const bool is_advertisement = advertisement.ethernet.ethertype == ethertype_ipv6 &&
                                  advertisement.ip.next_header == IPPROTO_ICMPV6 &&
                                  advertisement.type == icmp6_neighbor_advertisement;
    if (!is_advertisement) {
        return true;
    }
    std::array<char, INET6_ADDRSTRLEN> target{};
    if (inet_ntop(AF_INET6, advertisement.target.data(), target.data(), target.size()) == nullptr) {
        fprintf(stderr, "inet_ntop() failed.\nError message: %s", strerror(errno));
        return false;
    }
    const std::string ifname = asked.find_or_enter(target.data());
    if (!ifname.empty()) {
        add_neighbor_entry(target.data(), ifname, advertisement.option_mac);
    }
    return true;
}

void* recv_neighbor(void* targets) {
    const AskedAddressesRef asked = take_asked_addresses(targets);
    if (!asked->receiver.is_open()) {
        LOG_ERROR("<%s> socket() for _recv_sock failed ", "recv_neighbor");
        return nullptr;
    }
    switch (receive_frames(asked->receiver.get(), take_neighbor_frame, *asked)) {
        case ReceiverEnd::wait_failed:
            LOG_ERROR("select() failed");
            break;
        case ReceiverEnd::receive_failed:
            LOG_ERROR("recv() failed");
            break;
        case ReceiverEnd::handler_ended:
            break;
    }
    return nullptr;
}

#include "probe/lb_neighbor.h"

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "base/address_text.h"
#include "host/addresses.h"
#include "host/links.h"
#include "host/log.h"
#include "wire/checksum.h"
#include "wire/frame_builder.h"

NamespaceTable<int> LBNeighbor::_send_sock;
NamespaceTable<bool> LBNeighbor::is_start_recv;

namespace {

void log_receiver_without_socket() {
    LOG_ERROR("<%s> socket() for _recv_sock failed ", "recv_neighbor");
}

const NextHopFamily neighbor_family{
    .send_sock = LBNeighbor::_send_sock,
    .is_start_recv = LBNeighbor::is_start_recv,
    .open_receiver = host::open_advertisement_receiver,
    .receiver = recv_neighbor,
    .handle = handle_advertisement,
    .log_name = "neigh",
    .log_no_receiver_socket = log_receiver_without_socket,
};

/// A number that no socket of this process ever has.
constexpr int no_socket = 0;

std::optional<host::Link> find_link(const std::string& ifname) {
    const host::Link link = host::ask_link(ifname);
    errno = link.error;  // what the next line prints
    switch (link.failed) {
        case host::Link::Step::none:
            return link;
        case host::Link::Step::socket:
            perror("socket() failed to get socket descriptor for using ioctl() ");
            break;
        case host::Link::Step::mac:
            perror("ioctl() failed to get source MAC address ");
            break;
        case host::Link::Step::index:
            perror("if_nametoindex() failed to obtain interface index ");
            break;
    }
    return std::nullopt;
}

std::optional<Ipv6Bytes> to_binary(const std::string& text) {
    const auto binary = parse_ipv6(text);
    if (!binary) {
        fprintf(stderr, "inet_pton() failed.\nError message: %s", strerror(0));
    }
    return binary;
}

/// The solicited-node multicast group; the frame builder puts the target's last bytes in.
std::optional<Ipv6Bytes> solicited_node_group() {
    const host::Resolved group = host::resolve("ff02::1:ff00:2", true);
    if (group.status != 0) {
        fprintf(stderr, "getaddrinfo() failed: %s\n", host::resolver_text(group.status).c_str());
        return std::nullopt;
    }
    const Ipv6Text text = to_text(group.ipv6);
    if (text.error != 0) {
        fprintf(stderr, "inet_ntop() failed.\nError message: %s", strerror(text.error));
        return std::nullopt;
    }
    return to_binary(text.text);
}

}  // namespace

LBNeighbor::LBNeighbor() : NextHopProber(neighbor_family) {}

void LBNeighbor::init(std::string ns_name) {
    if (!open(std::move(ns_name))) {
        LOG_ERROR("<%s> socket() fo _send_sock failed ", "init");
    }
}

int LBNeighbor::check_neighbor_exist(unsigned char* mac) {
    return view.find_neighbor(address, mac);
}

std::optional<MacAddress> LBNeighbor::find_mac() {
    MacAddress mac{};
    if (check_neighbor_exist(mac.data()) == 1) {
        return mac;
    }
    send_request();
    receive_reply();
    return check_neighbor_exist(mac.data()) == 1 ? std::make_optional(mac) : std::nullopt;
}

void LBNeighbor::send_request() {
    prepare_receiver();
    const auto link = find_link(ifname);
    if (!link) {
        return;
    }
    const auto group = solicited_node_group();
    const auto target = group ? to_binary(address) : std::nullopt;
    const auto sender = target ? to_binary(source) : std::nullopt;
    if (!sender) {
        return;
    }
    const NeighborSolicitation frame = neighbor_solicitation(link->mac, *sender, *group, *target);
    const int socket = _send_sock.get(nsname);
    const host::Transfer sent = host::send_frame(socket, link->index, link->mac, bytes_of(frame));
    if (sent.count > 0) {
        return;
    }
    errno = sent.error;  // what the next line prints
    perror("sendto() failed");
    // B83: later sends of this namespace fail too. The table forgets the closed number, which may
    // soon name another socket.
    if (socket > no_socket) {
        host::close_socket(socket);
    }
    _send_sock.set(nsname, no_socket);
}

void LBNeighbor::receive_reply() {
    start_receiver();
}

bool handle_advertisement(std::span<const std::uint8_t> frame, AskedAddresses& targets) {
    if (frame.size() < sizeof(NeighborAdvertisement)) {
        return true;
    }
    const auto advertisement = read_at<NeighborAdvertisement>(frame, 0);
    const bool is_advertisement = advertisement.ethernet.ethertype == ethertype_ipv6 &&
                                  advertisement.ip.next_header == protocol_icmp6 &&
                                  advertisement.type == icmp6_neighbor_advertisement;
    if (!is_advertisement) {
        return true;
    }
    const Ipv6Text target = to_text(advertisement.target);
    if (target.error != 0) {
        fprintf(stderr, "inet_ntop() failed.\nError message: %s", strerror(target.error));
        return false;
    }
    const std::string ifname = targets.find_or_enter(target.text);
    if (!ifname.empty()) {
        add_neighbor_entry(target.text, ifname, advertisement.option_mac);
    }
    return true;
}

void* recv_neighbor(void* targets) {
    const std::unique_ptr<NextHopReceiver> receiver(static_cast<NextHopReceiver*>(targets));
    if (receiver->socket < 0) {
        log_receiver_without_socket();
        return nullptr;
    }
    receive_answers(
        neighbor_family, *receiver, [] { LOG_ERROR("select() failed"); },
        [] { LOG_ERROR("recv() failed"); });
    return nullptr;
}

unsigned short LBNeighbor::checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBNeighbor::icmp6_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* payload,
                                          int length) {
    return ::icmp6_checksum(std::bit_cast<Ipv6Header>(ip), std::bit_cast<IcmpHeaderBytes>(header),
                            payload, length);
}

#include "host/lb_neighbor.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "host/neighbor_netlink.h"
#include "host/neighbor_receiver.h"
#include "net/checksum.h"
#include "net/fd.h"
#include "net/frame_builder.h"
#include "net/interface.h"
#include "net/resolve.h"
#include "net/sockets.h"
#include "platform/log.h"

NamespaceTable<int> LBNeighbor::_send_sock;
NamespaceTable<bool> LBNeighbor::is_start_recv;

namespace {

/// A number that no socket of this process ever has.
constexpr int no_socket = 0;

std::optional<LinkAnswer> ask_source_link(const std::string& ifname) {
    const LinkAnswer link = ask_link(ifname);
    errno = link.error;
    switch (link.failed) {
        case LinkAnswer::Step::none:
            return link;
        case LinkAnswer::Step::socket:
            perror("socket() failed to get socket descriptor for using ioctl() ");
            break;
        case LinkAnswer::Step::mac:
            perror("ioctl() failed to get source MAC address ");
            break;
        case LinkAnswer::Step::index:
            perror("if_nametoindex() failed to obtain interface index ");
            break;
    }
    return std::nullopt;
}

std::optional<in6_addr> to_binary(const std::string& text) {
    in6_addr binary{};
    const int converted = inet_pton(AF_INET6, text.c_str(), &binary);
    if (converted != 1) {
        fprintf(stderr, "inet_pton() failed.\nError message: %s", strerror(converted));
        return std::nullopt;
    }
    return binary;
}

/// The solicited-node multicast group; the frame builder puts the target's last bytes in.
std::optional<in6_addr> solicited_node_group() {
    sockaddr_storage first{};
    const int status = resolve_host("ff02::1:ff00:2", AF_INET6, first);
    if (status != 0) {
        fprintf(stderr, "getaddrinfo() failed: %s\n", gai_strerror(status));
        return std::nullopt;
    }
    sockaddr_in6 group;
    std::memcpy(&group, &first, sizeof group);
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (inet_ntop(AF_INET6, &group.sin6_addr, text.data(), text.size()) == nullptr) {
        fprintf(stderr, "inet_ntop() failed.\nError message: %s", strerror(errno));
        return std::nullopt;
    }
    return to_binary(text.data());
}

}  // namespace

LBNeighbor::~LBNeighbor() {
    if (const int open_socket = _send_sock.exchange(nsname, no_socket); open_socket > no_socket) {
        close(open_socket);
    }
}

void LBNeighbor::init(std::string ns_name) {
    nsname = std::move(ns_name);
    Fd opened = open_send_only_packet_socket();
    if (!opened.is_open()) {
        LOG_ERROR("<%s> socket() fo _send_sock failed ", "init");
        _send_sock.set(nsname, -1);
        return;
    }
    _send_sock.set(nsname, opened.release());
    targets = std::make_shared<AskedAddresses>();
    is_start_recv.set(nsname, false);
}

void LBNeighbor::set_data(const std::string& next_hop, const std::string& source_address,
                          const std::string& interface) {
    address = next_hop;
    source = source_address;
    ifname = interface;
    if (targets) {
        targets->set(address, ifname);
    }
}

int LBNeighbor::check_neighbor_exist(unsigned char* mac) {
    return find_neighbor(address, mac);
}

void LBNeighbor::send_request() {
    if (targets && !is_start_recv.get(nsname) && !targets->receiver.is_open()) {
        targets->receiver = open_neighbor_receiver();
    }
    const auto link = ask_source_link(ifname);
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
    if (send_frame(socket, link->index, link->mac, bytes_of(frame)) > 0) {
        return;
    }
    perror("sendto() failed");
    // Later sends of this namespace fail too, as routers of this family have always had it. The
    // table forgets the closed number, which may soon name a stranger's socket.
    if (socket > no_socket) {
        close(socket);
    }
    _send_sock.set(nsname, no_socket);
}

void LBNeighbor::receive_reply() {
    if (!targets) {
        return;
    }
    switch (start_receiver_once(is_start_recv, nsname, recv_neighbor, targets)) {
        case DetachedStart::started:
            break;
        case DetachedStart::not_created:
            LOG_ERROR("Can't create new thread for neigh recv");
            break;
        case DetachedStart::not_detached:
            LOG_ERROR("Can't detach thread for neigh recv");
            break;
    }
}

unsigned short LBNeighbor::checksum(unsigned short* data, int length) {
    return internet_checksum(data, length);
}

unsigned short LBNeighbor::icmp6_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* payload,
                                          int length) {
    return ::icmp6_checksum(ip, header, payload, length);
}

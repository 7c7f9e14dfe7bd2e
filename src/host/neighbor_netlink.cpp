#include "host/neighbor_netlink.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>

#include "net/fd.h"
#include "net/interface.h"
#include "platform/log.h"

namespace {

constexpr std::size_t receive_buffer_size = 1'048'576;
constexpr std::uint16_t last_kept_attribute = 10;

/// How many entries the receivers of this process have written.
std::atomic<std::uint64_t> entries_written{0};

Fd open_route_netlink() {
    Fd opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!opened.is_open()) {
        LOG_ERROR("Cannot open netlink socket");
        return opened;
    }
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    if (bind(opened.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) < 0) {
        LOG_ERROR("Cannot bind netlink socket");
        return Fd();
    }
    return opened;
}

bool send_request(int netlink, iovec* iov, int count) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<std::size_t>(count);
    if (sendmsg(netlink, &message, 0) < 0) {
        LOG_ERROR("Cannot talk to rtnetlink");
        return false;
    }
    return true;
}

NetlinkAnswer read_error(std::span<const std::uint8_t> message) {
    if (message.size() < sizeof(nlmsghdr) + sizeof(nlmsgerr::error)) {
        return NetlinkAnswer::refused;
    }
    const int error = read_at<int>(message, sizeof(nlmsghdr));
    if (error == 0) {
        return NetlinkAnswer::acknowledged;
    }
    // Negated without a sign: the most negative number has no positive counterpart.
    const int reason = static_cast<int>(0U - static_cast<unsigned>(error));
    LOG_ERROR("RTNETLINK answers: %s\n", strerror(reason));
    return NetlinkAnswer::refused;
}

/// The attributes of a neighbour message by type; the first of each type counts.
using Attributes = std::array<std::span<const std::uint8_t>, last_kept_attribute + 1>;

Attributes read_attributes(std::span<const std::uint8_t> message) {
    Attributes attributes;
    std::size_t at = sizeof(nlmsghdr) + sizeof(ndmsg);
    while (at + sizeof(rtattr) <= message.size()) {
        const auto head = read_at<rtattr>(message, at);
        if (head.rta_len < sizeof(rtattr) || head.rta_len > message.size() - at) {
            break;
        }
        const auto value = message.subspan(at + sizeof(rtattr), head.rta_len - sizeof(rtattr));
        if (head.rta_type <= last_kept_attribute && attributes[head.rta_type].data() == nullptr) {
            attributes[head.rta_type] = value;
        }
        at += RTA_ALIGN(head.rta_len);
    }
    return attributes;
}

std::optional<Neighbor> read_neighbor(std::span<const std::uint8_t> message) {
    const Attributes attributes = read_attributes(message);
    const auto address = attributes[NDA_DST];
    const auto mac = attributes[NDA_LLADDR];
    if (address.size() < sizeof(in6_addr) || mac.size() < sizeof(MacAddress)) {
        return std::nullopt;
    }
    return Neighbor{.address = to_text(read_at<in6_addr>(address, 0)),
                    .mac = read_at<MacAddress>(mac, 0)};
}

/// Reads answers until they end; gives what ended them, or nothing when reading failed.
std::optional<NetlinkAnswer> read_answers(int netlink,
                                          const std::function<bool(const Neighbor&)>& take) {
    // Not cleared: the kernel fills what is read, and untouched pages cost nothing.
    thread_local const std::unique_ptr<std::uint8_t[]> buffer(
        new std::uint8_t[receive_buffer_size]);
    while (true) {
        const ssize_t length = recv(netlink, buffer.get(), receive_buffer_size, 0);
        if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (length <= 0) {
            return std::nullopt;
        }
        const NetlinkAnswer answer =
            walk_netlink_answers({buffer.get(), static_cast<std::size_t>(length)}, take);
        if (answer != NetlinkAnswer::go_on) {
            return answer;
        }
    }
}

int talk(iovec* iov, int count, const std::function<bool(const Neighbor&)>& take) {
    const Fd netlink = open_route_netlink();
    if (!netlink.is_open() || !send_request(netlink.get(), iov, count)) {
        return -1;
    }
    switch (read_answers(netlink.get(), take).value_or(NetlinkAnswer::refused)) {
        case NetlinkAnswer::found:
            return 1;
        case NetlinkAnswer::done:
        case NetlinkAnswer::acknowledged:
            return 0;
        case NetlinkAnswer::refused:
        case NetlinkAnswer::go_on:
            return -1;
    }
    return -1;
}

/// What the calling thread knows of the kernel's table in this pass.
struct KnownNeighbors {
    std::unordered_map<std::string, MacAddress> macs;
    std::uint64_t entries_written_before = 0;
};

std::optional<KnownNeighbors>& known_neighbors() {
    thread_local std::optional<KnownNeighbors> known;
    return known;
}

/// Dumps the IPv6 neighbour table; of several entries for an address the first counts.
std::optional<KnownNeighbors> dump_neighbors() {
    KnownNeighbors known{.macs = {}, .entries_written_before = entries_written.load()};
    nlmsghdr header{};
    header.nlmsg_len = NLMSG_LENGTH(sizeof(ndmsg));
    header.nlmsg_type = RTM_GETNEIGH;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    ndmsg body{};
    body.ndm_family = AF_INET6;
    std::array<iovec, 2> parts{iovec{&header, sizeof header}, iovec{&body, sizeof body}};
    const int status =
        talk(parts.data(), static_cast<int>(parts.size()), [&known](const Neighbor& neighbor) {
            known.macs.try_emplace(neighbor.address, neighbor.mac);
            return false;
        });
    return status < 0 ? std::nullopt : std::make_optional(std::move(known));
}

/// The MAC of an address in what is known; null where nothing is known or it is not among it.
const MacAddress* look_up(const std::optional<KnownNeighbors>& known, const std::string& address) {
    if (!known) {
        return nullptr;
    }
    const auto found = known->macs.find(address);
    return found == known->macs.end() ? nullptr : &found->second;
}

bool is_complete(const std::optional<KnownNeighbors>& known) {
    return known && known->entries_written_before == entries_written.load();
}

}  // namespace

NetlinkAnswer walk_netlink_answers(std::span<const std::uint8_t> received,
                                   const std::function<bool(const Neighbor&)>& take) {
    std::size_t at = 0;
    while (at + sizeof(nlmsghdr) <= received.size()) {
        const auto header = read_at<nlmsghdr>(received, at);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > received.size() - at) {
            return NetlinkAnswer::go_on;
        }
        const auto message = received.subspan(at, header.nlmsg_len);
        if (header.nlmsg_type == NLMSG_DONE) {
            return NetlinkAnswer::done;
        }
        if (header.nlmsg_type == NLMSG_ERROR) {
            return read_error(message);
        }
        const auto neighbor = read_neighbor(message);
        if (neighbor && take(*neighbor)) {
            return NetlinkAnswer::found;
        }
        at += NLMSG_ALIGN(std::size_t{header.nlmsg_len});
    }
    return NetlinkAnswer::go_on;
}

int neighbor_netlink_talk(iovec* iov, int count, unsigned char* mac, const std::string& address) {
    const int status = talk(iov, count, [mac, &address](const Neighbor& neighbor) {
        if (neighbor.address != address) {
            return false;
        }
        if (mac != nullptr) {
            std::copy(neighbor.mac.begin(), neighbor.mac.end(), mac);
        }
        return true;
    });
    return status == 1 && mac == nullptr ? -1 : status;
}

int addattr_l(nlmsghdr* message, int type, const void* data, int length) {
    const auto attribute_length = RTA_LENGTH(static_cast<std::size_t>(length));
    const std::size_t offset = NLMSG_ALIGN(message->nlmsg_len);
    if (offset + RTA_ALIGN(attribute_length) > std::size_t{neighbor_request_bound}) {
        fprintf(stderr, "addattr_l ERROR: message exceeded bound of %d\n", neighbor_request_bound);
        return -1;
    }
    rtattr head{};
    head.rta_type = static_cast<unsigned short>(type);
    head.rta_len = static_cast<unsigned short>(attribute_length);
    auto* const place = reinterpret_cast<std::uint8_t*>(message) + offset;
    std::memcpy(place, &head, sizeof head);
    if (length > 0) {
        std::memcpy(place + sizeof head, data, static_cast<std::size_t>(length));
    }
    message->nlmsg_len = static_cast<std::uint32_t>(offset + RTA_ALIGN(attribute_length));
    return 0;
}

void add_neighbor_entry(const std::string& address, const std::string& ifname,
                        const MacAddress& mac) {
    in6_addr binary{};
    if (inet_pton(AF_INET6, address.c_str(), &binary) != 1) {
        LOG_ERROR("inet_pton");
        return;
    }
    // Header, neighbour message and the two attributes: far below the bound of a request.
    constexpr std::size_t request_size =
        NLMSG_SPACE(sizeof(ndmsg)) + RTA_SPACE(sizeof(in6_addr)) + RTA_SPACE(sizeof(MacAddress));
    alignas(nlmsghdr) std::array<std::uint8_t, request_size> request{};
    auto* const header = reinterpret_cast<nlmsghdr*>(request.data());
    header->nlmsg_len = NLMSG_LENGTH(sizeof(ndmsg));
    header->nlmsg_type = RTM_NEWNEIGH;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE;
    ndmsg body{};
    body.ndm_family = AF_INET6;
    body.ndm_state = NUD_REACHABLE;
    if (addattr_l(header, NDA_DST, &binary, sizeof binary) != 0 ||
        addattr_l(header, NDA_LLADDR, mac.data(), static_cast<int>(mac.size())) != 0) {
        LOG_ERROR("rtnl_attr_add");
        return;
    }
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0) {
        LOG_ERROR("if_nametoindex() failed to obtain interface index %s", strerror(errno));
        return;
    }
    body.ndm_ifindex = static_cast<int>(index);
    std::memcpy(request.data() + NLMSG_HDRLEN, &body, sizeof body);
    iovec whole{request.data(), header->nlmsg_len};
    if (neighbor_netlink_talk(&whole, 1, nullptr, "") == 0) {
        ++entries_written;
    }
}

int find_neighbor(const std::string& address, unsigned char* mac) {
    auto& known = known_neighbors();
    const MacAddress* found = look_up(known, address);
    if (found == nullptr && !is_complete(known)) {
        known = dump_neighbors();
        found = look_up(known, address);
    }
    if (found == nullptr) {
        return known ? 0 : -1;
    }
    std::copy(found->begin(), found->end(), mac);
    return 1;
}

void forget_neighbors() {
    known_neighbors().reset();
}

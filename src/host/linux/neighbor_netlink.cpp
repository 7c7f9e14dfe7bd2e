#include "host/linux/neighbor_netlink.h"

#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "base/address_text.h"
#include "host/linux/netlink.h"
#include "host/log.h"

namespace {

using host::Neighbor;
using TakeNeighbor = std::function<bool(const Neighbor&)>;

constexpr std::size_t receive_buffer_size = 1'048'576;

Netlink open_route_netlink() {
    Netlink netlink(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    if (!netlink) {
        LOG_ERROR("Cannot open netlink socket");
        return netlink;
    }
    if (mnl_socket_bind(netlink.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        LOG_ERROR("Cannot bind netlink socket");
        netlink.reset();
    }
    return netlink;
}

/// A request may come in several buffers, which libmnl's own sending does not take.
bool send_request(const Netlink& netlink, iovec* iov, int count) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<std::size_t>(count);
    if (sendmsg(mnl_socket_get_fd(netlink.get()), &message, 0) < 0) {
        LOG_ERROR("Cannot talk to rtnetlink");
        return false;
    }
    return true;
}

NetlinkAnswer read_error(const nlmsghdr* message) {
    if (message->nlmsg_len < sizeof(nlmsghdr) + sizeof(nlmsgerr::error)) {
        return NetlinkAnswer::refused;
    }
    int error = 0;
    std::memcpy(&error, mnl_nlmsg_get_payload(message), sizeof error);
    if (error == 0) {
        return NetlinkAnswer::acknowledged;
    }
    // Negated without a sign: the most negative number has no positive counterpart.
    const int reason = static_cast<int>(0U - static_cast<unsigned>(error));
    LOG_ERROR("RTNETLINK answers: %s\n", strerror(reason));
    return NetlinkAnswer::refused;
}

/// The first attribute of each type that a neighbour message has, by type.
using Attributes = std::array<const nlattr*, NDA_LLADDR + 1>;

Attributes read_attributes(const nlmsghdr* message) {
    Attributes attributes{};
    const std::size_t payload_length = message->nlmsg_len - sizeof(nlmsghdr);
    if (payload_length < sizeof(ndmsg)) {
        return attributes;
    }
    const auto* at =
        static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(message, sizeof(ndmsg)));
    // By the message's exact length: its end rounded up to 4 may lie beyond the buffer.
    auto left = static_cast<int>(payload_length - sizeof(ndmsg));
    while (mnl_attr_ok(at, left)) {
        const std::uint16_t type = mnl_attr_get_type(at);
        if (type < attributes.size() && attributes[type] == nullptr) {
            attributes[type] = at;
        }
        left -= static_cast<int>(MNL_ALIGN(mnl_attr_get_len(at)));
        at = mnl_attr_next(at);
    }
    return attributes;
}

/// Copies what an attribute carries; false where it is missing or carries less.
template <class Value>
bool read_value(const nlattr* attribute, Value& value) {
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < sizeof value) {
        return false;
    }
    std::memcpy(&value, mnl_attr_get_payload(attribute), sizeof value);
    return true;
}

std::optional<Neighbor> read_neighbor(const nlmsghdr* message) {
    const Attributes attributes = read_attributes(message);
    Ipv6Bytes address{};
    Neighbor neighbor;
    if (!read_value(attributes[NDA_DST], address) ||
        !read_value(attributes[NDA_LLADDR], neighbor.mac)) {
        return std::nullopt;
    }
    neighbor.address = to_text(address).text;
    return neighbor;
}

/// Reads answers until they end; what ended them, or `refused` when reading failed.
NetlinkAnswer read_answers(const Netlink& netlink, const TakeNeighbor& take) {
    // Not cleared: the kernel fills what is read, and untouched pages cost nothing.
    const std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[receive_buffer_size]);
    while (true) {
        const ssize_t length =
            mnl_socket_recvfrom(netlink.get(), buffer.get(), receive_buffer_size);
        if (length < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (length <= 0) {
            return NetlinkAnswer::refused;
        }
        const NetlinkAnswer answer =
            walk_netlink_answers({buffer.get(), static_cast<std::size_t>(length)}, take);
        if (answer != NetlinkAnswer::go_on) {
            return answer;
        }
    }
}

/// 1 where `take` stopped at an entry, 0 at the end of the answers, -1 on an error.
int talk(iovec* iov, int count, const TakeNeighbor& take) {
    const Netlink netlink = open_route_netlink();
    if (!netlink || !send_request(netlink, iov, count)) {
        return -1;
    }
    switch (read_answers(netlink, take)) {
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

}  // namespace

// libmnl's callback runner is not used: it gives a dump up that was interrupted by a change of the
// table, where this walk takes what came.
NetlinkAnswer walk_netlink_answers(std::span<const std::uint8_t> received,
                                   const TakeNeighbor& take) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(received.data());
    auto left = static_cast<int>(received.size());
    while (is_whole(message, left)) {
        if (message->nlmsg_type == NLMSG_DONE) {
            return NetlinkAnswer::done;
        }
        if (message->nlmsg_type == NLMSG_ERROR) {
            return read_error(message);
        }
        const auto neighbor = read_neighbor(message);
        if (neighbor && take(*neighbor)) {
            return NetlinkAnswer::found;
        }
        message = mnl_nlmsg_next(message, &left);
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
    const auto size = static_cast<std::size_t>(length);
    const std::size_t space = MNL_ALIGN(MNL_ATTR_HDRLEN + size);
    if (MNL_ALIGN(message->nlmsg_len) + space > std::size_t{neighbor_request_bound}) {
        fprintf(stderr, "addattr_l ERROR: message exceeded bound of %d\n", neighbor_request_bound);
        return -1;
    }
    mnl_attr_put(message, static_cast<std::uint16_t>(type), size, data);
    return 0;
}

namespace host {

std::optional<std::vector<Neighbor>> dump_neighbors() {
    nlmsghdr header{};
    header.nlmsg_len = NLMSG_LENGTH(sizeof(ndmsg));
    header.nlmsg_type = RTM_GETNEIGH;
    header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    ndmsg body{};
    body.ndm_family = AF_INET6;
    std::array<iovec, 2> parts{iovec{&header, sizeof header}, iovec{&body, sizeof body}};
    std::vector<Neighbor> neighbors;
    const int status =
        talk(parts.data(), static_cast<int>(parts.size()), [&neighbors](const Neighbor& neighbor) {
            neighbors.push_back(neighbor);
            return false;
        });
    return status < 0 ? std::nullopt : std::make_optional(std::move(neighbors));
}

bool write_neighbor(const std::string& address, const std::string& ifname, const MacAddress& mac) {
    const auto binary = parse_ipv6(address);
    if (!binary) {
        LOG_ERROR("inet_pton");
        return false;
    }
    // Header, neighbour message and the two attributes: far below the bound of a request.
    alignas(nlmsghdr) std::array<std::uint8_t, 128> request{};
    nlmsghdr* const header = mnl_nlmsg_put_header(request.data());
    header->nlmsg_type = RTM_NEWNEIGH;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE;
    auto* const body = static_cast<ndmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ndmsg)));
    body->ndm_family = AF_INET6;
    body->ndm_state = NUD_REACHABLE;
    if (addattr_l(header, NDA_DST, binary->data(), static_cast<int>(binary->size())) != 0 ||
        addattr_l(header, NDA_LLADDR, mac.data(), static_cast<int>(mac.size())) != 0) {
        LOG_ERROR("rtnl_attr_add");
        return false;
    }
    const unsigned index = if_nametoindex(ifname.c_str());
    if (index == 0) {
        LOG_ERROR("if_nametoindex() failed to obtain interface index %s", strerror(errno));
        return false;
    }
    body->ndm_ifindex = static_cast<int>(index);
    iovec whole{request.data(), header->nlmsg_len};
    return neighbor_netlink_talk(&whole, 1, nullptr, "") == 0;
}

}  // namespace host

#include "lbroute/rtnetlink_messages.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace lbroute {

namespace {

constexpr unsigned int lower_up = 1U << 16;  // IFF_LOWER_UP, which <net/if.h> lacks

std::optional<Family> family_of(unsigned char number) {
    if (number == AF_INET) {
        return Family::ipv4;
    }
    return number == AF_INET6 ? std::make_optional(Family::ipv6) : std::nullopt;
}

/// The attributes of a message by type; those beyond the highest that is known are passed over.
class Attributes {
  public:
    Attributes(const nlmsghdr& message, unsigned int body_size) {
        const auto* const begin =
            static_cast<const std::uint8_t*>(mnl_nlmsg_get_payload_offset(&message, body_size));
        const auto* const end = reinterpret_cast<const std::uint8_t*>(&message) + message.nlmsg_len;
        if (begin < end) {
            walk({begin, end});
        }
    }
    explicit Attributes(std::span<const std::uint8_t> attributes) { walk(attributes); }

    bool has(std::size_t type) const { return found_[type] != nullptr; }

    /// Less than its size counts as missing.
    template <class Number>
    std::optional<Number> number(std::size_t type) const {
        if (!has(type) || mnl_attr_get_payload_len(found_[type]) < sizeof(Number)) {
            return std::nullopt;
        }
        Number value{};
        std::memcpy(&value, mnl_attr_get_payload(found_[type]), sizeof value);
        return value;
    }

    std::span<const std::uint8_t> data(std::size_t type) const {
        if (!has(type)) {
            return {};
        }
        return {static_cast<const std::uint8_t*>(mnl_attr_get_payload(found_[type])),
                mnl_attr_get_payload_len(found_[type])};
    }

    std::optional<Address> address(std::size_t type, Family family) const {
        Address address{.family = family};
        const auto bytes = data(type);
        if (bytes.size() != address.used_bytes().size()) {
            return std::nullopt;
        }
        std::copy(bytes.begin(), bytes.end(), address.bytes.begin());
        return address;
    }

  private:
    /// One more than the highest type that is asked for in any message.
    static constexpr std::size_t count = RTA_MAX + 1;
    static_assert(count > NHA_MAX && count > IFLA_IFNAME && count > IFA_LOCAL);

    void walk(std::span<const std::uint8_t> bytes) {
        while (bytes.size() >= sizeof(nlattr)) {
            const auto* const attribute = reinterpret_cast<const nlattr*>(bytes.data());
            if (attribute->nla_len < sizeof(nlattr) || attribute->nla_len > bytes.size()) {
                return;
            }
            keep(attribute);
            bytes = bytes.subspan(
                std::min<std::size_t>(bytes.size(), NLMSG_ALIGN(std::size_t{attribute->nla_len})));
        }
    }

    void keep(const nlattr* attribute) {
        const std::size_t type = mnl_attr_get_type(attribute);
        if (type < count) {
            found_[type] = attribute;
        }
    }

    std::array<const nlattr*, count> found_{};
};

template <class Body>
const Body* body_of(const nlmsghdr& message) {
    return message.nlmsg_len < NLMSG_LENGTH(sizeof(Body))
               ? nullptr
               : static_cast<const Body*>(mnl_nlmsg_get_payload(&message));
}

std::vector<PathHop> read_hops(std::span<const std::uint8_t> bytes, Family family) {
    std::vector<PathHop> hops;
    while (bytes.size() >= sizeof(rtnexthop)) {
        rtnexthop head{};
        std::memcpy(&head, bytes.data(), sizeof head);
        if (head.rtnh_len < sizeof head || head.rtnh_len > bytes.size()) {
            break;
        }
        const Attributes inside(bytes.subspan(sizeof head, head.rtnh_len - sizeof head));
        hops.push_back({.gateway = inside.address(RTA_GATEWAY, family),
                        .link = head.rtnh_ifindex,
                        .weight = head.rtnh_hops + 1,
                        .is_dead = (head.rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0});
        bytes = bytes.subspan(std::min<std::size_t>(bytes.size(), RTNH_ALIGN(head.rtnh_len)));
    }
    return hops;
}

}  // namespace

std::optional<Link> read_link(const nlmsghdr& message) {
    const auto* const body = body_of<ifinfomsg>(message);
    if (message.nlmsg_type != RTM_NEWLINK || body == nullptr || body->ifi_family != AF_UNSPEC) {
        return std::nullopt;
    }
    const Attributes attributes(message, sizeof *body);
    const auto name = attributes.data(IFLA_IFNAME);
    const auto* const text = reinterpret_cast<const char*>(name.data());
    return Link{.index = body->ifi_index,
                .name = {text, strnlen(text, name.size())},
                .is_up = (body->ifi_flags & IFF_UP) != 0,
                .has_carrier = (body->ifi_flags & lower_up) != 0,
                .is_ethernet = body->ifi_type == ARPHRD_ETHER};
}

std::optional<LinkAddress> read_address(const nlmsghdr& message) {
    const auto* const body = body_of<ifaddrmsg>(message);
    const auto family = body == nullptr ? std::nullopt : family_of(body->ifa_family);
    if (message.nlmsg_type != RTM_NEWADDR || !family || body->ifa_prefixlen > bits_of(*family)) {
        return std::nullopt;
    }
    const Attributes attributes(message, sizeof *body);
    const auto network = attributes.address(IFA_ADDRESS, *family);
    const auto own = attributes.address(IFA_LOCAL, *family);
    if (!network && !own) {
        return std::nullopt;
    }
    return LinkAddress{.link = static_cast<int>(body->ifa_index),
                       .address = own.value_or(network.value_or(Address{})),
                       .network = {network_of(network ? *network : *own, body->ifa_prefixlen),
                                   body->ifa_prefixlen}};
}

std::optional<KernelRoute> read_route(const nlmsghdr& message) {
    const auto* const body = body_of<rtmsg>(message);
    const auto family = body == nullptr ? std::nullopt : family_of(body->rtm_family);
    const bool is_of_interest = family && (body->rtm_flags & RTM_F_CLONED) == 0 &&
                                body->rtm_dst_len <= bits_of(*family) && body->rtm_tos == 0;
    if (!is_of_interest) {
        return std::nullopt;
    }
    const Attributes attributes(message, sizeof *body);
    KernelRoute route;
    route.prefix = {attributes.address(RTA_DST, *family).value_or(Address{.family = *family}),
                    body->rtm_dst_len};
    route.table = attributes.number<std::uint32_t>(RTA_TABLE).value_or(body->rtm_table);
    route.priority = attributes.number<std::uint32_t>(RTA_PRIORITY).value_or(0);
    route.protocol = body->rtm_protocol;
    route.type = body->rtm_type;
    route.group_id = attributes.number<std::uint32_t>(RTA_NH_ID).value_or(0);
    if (attributes.has(RTA_MULTIPATH)) {
        route.hops = read_hops(attributes.data(RTA_MULTIPATH), *family);
    } else if (attributes.has(RTA_OIF)) {
        route.hops = {{.gateway = attributes.address(RTA_GATEWAY, *family),
                       .link = attributes.number<int>(RTA_OIF).value_or(0),
                       .weight = 1,
                       .is_dead = (body->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0}};
    }
    return route;
}

namespace {

Group read_group(const Attributes& attributes, std::uint32_t id) {
    Group group;
    group.id = id;
    auto bytes = attributes.data(NHA_GROUP);
    while (bytes.size() >= sizeof(nexthop_grp)) {
        nexthop_grp entry{};
        std::memcpy(&entry, bytes.data(), sizeof entry);
        group.entries.push_back({entry.id, entry.weight + 1});
        bytes = bytes.subspan(sizeof entry);
    }
    group.is_resilient =
        attributes.number<std::uint16_t>(NHA_GROUP_TYPE).value_or(0) == NEXTHOP_GRP_TYPE_RES;
    if (attributes.has(NHA_RES_GROUP)) {
        constexpr std::uint32_t ticks_per_s = 100;
        const auto nest = attributes.data(NHA_RES_GROUP);
        const Attributes inside(nest);
        group.buckets = inside.number<std::uint16_t>(NHA_RES_GROUP_BUCKETS).value_or(0);
        group.idle_timer_s =
            inside.number<std::uint32_t>(NHA_RES_GROUP_IDLE_TIMER).value_or(0) / ticks_per_s;
        group.unbalanced_timer_s =
            inside.number<std::uint32_t>(NHA_RES_GROUP_UNBALANCED_TIMER).value_or(0) / ticks_per_s;
    }
    return group;
}

}  // namespace

std::optional<NextHopMessage> read_next_hop(const nlmsghdr& message) {
    const auto* const body = body_of<nhmsg>(message);
    if (message.nlmsg_type != RTM_NEWNEXTHOP || body == nullptr) {
        return std::nullopt;
    }
    const Attributes attributes(message, sizeof *body);
    NextHopMessage read{.id = attributes.number<std::uint32_t>(NHA_ID).value_or(0),
                        .protocol = body->nh_protocol,
                        .hop = std::nullopt,
                        .group = std::nullopt};
    const auto family = family_of(body->nh_family);
    if (attributes.has(NHA_GROUP)) {
        read.group = read_group(attributes, read.id);
    } else if (family) {
        const auto gateway = attributes.address(NHA_GATEWAY, *family);
        const auto link = attributes.number<int>(NHA_OIF);
        if (gateway && link) {
            read.hop = HopObject{.id = read.id, .gateway = *gateway, .link = *link};
        }
    }
    return read;
}

bool is_own_next_hop(const nlmsghdr& message) {
    const auto* const body = body_of<nhmsg>(message);
    return body != nullptr && body->nh_protocol == own_protocol;
}

std::uint32_t read_bucket(const nlmsghdr& message) {
    if (message.nlmsg_type != RTM_NEWNEXTHOPBUCKET || body_of<nhmsg>(message) == nullptr) {
        return 0;
    }
    const Attributes attributes(message, sizeof(nhmsg));
    const auto nest = attributes.data(NHA_RES_BUCKET);
    const Attributes inside(nest);
    return inside.number<std::uint32_t>(NHA_RES_BUCKET_NH_ID).value_or(0);
}

Answer read_answer(const nlmsghdr& message) {
    const auto* const body = body_of<nlmsgerr>(message);
    if (body == nullptr) {
        return {.error = EBADMSG, .reason = "an answer of the kernel that is cut short"};
    }
    Answer answer{.error = -body->error, .reason = {}};
    if (answer.error == 0) {
        return answer;
    }
    answer.reason = strerror(answer.error);
    // Behind the error stands the request, whole unless it was capped, then the kernel's words.
    std::size_t offset = sizeof *body;
    if ((message.nlmsg_flags & NLM_F_CAPPED) == 0) {
        offset += NLMSG_ALIGN(body->msg.nlmsg_len) - sizeof(nlmsghdr);
    }
    if ((message.nlmsg_flags & NLM_F_ACK_TLVS) != 0 && message.nlmsg_len >= NLMSG_LENGTH(offset)) {
        const Attributes attributes(message, static_cast<unsigned int>(offset));
        const auto words = attributes.data(NLMSGERR_ATTR_MSG);
        const auto* const text = reinterpret_cast<const char*>(words.data());
        if (!words.empty()) {
            answer.reason = std::string(text, strnlen(text, words.size()));
        }
    }
    return answer;
}

}  // namespace lbroute

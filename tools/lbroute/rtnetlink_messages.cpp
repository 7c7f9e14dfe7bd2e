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
#include <cstring>
#include <span>

namespace lbroute {

namespace {

constexpr unsigned int lower_up = 1U << 16;  // IFF_LOWER_UP, which <net/if.h> lacks

unsigned char family_number(Family family) {
    return family == Family::ipv4 ? AF_INET : AF_INET6;
}

std::optional<Family> family_of(unsigned char number) {
    if (number == AF_INET) {
        return Family::ipv4;
    }
    return number == AF_INET6 ? std::make_optional(Family::ipv6) : std::nullopt;
}

/// A message being written into room that suffices for it.
class Writer {
  public:
    Writer(std::size_t attributes_size, std::uint16_t type, std::uint16_t flags,
           std::uint32_t sequence)
        : room_(attributes_size + 256), header_(mnl_nlmsg_put_header(room_.data())) {
        header_->nlmsg_type = type;
        header_->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
        header_->nlmsg_seq = sequence;
    }

    template <class Body>
    Body& body() {
        return *static_cast<Body*>(mnl_nlmsg_put_extra_header(header_, sizeof(Body)));
    }
    void number(std::uint16_t type, std::uint32_t value) { mnl_attr_put_u32(header_, type, value); }
    void number16(std::uint16_t type, std::uint16_t value) {
        mnl_attr_put_u16(header_, type, value);
    }
    void data(std::uint16_t type, std::span<const std::uint8_t> bytes) {
        mnl_attr_put(header_, type, bytes.size(), bytes.data());
    }
    nlattr* open(std::uint16_t type) { return mnl_attr_nest_start(header_, type); }
    void close(nlattr* nest) { mnl_attr_nest_end(header_, nest); }
    nlmsghdr& header() { return *header_; }

    void append_to(Buffer& buffer) const {
        buffer.insert(buffer.end(), room_.begin(),
                      room_.begin() + static_cast<std::ptrdiff_t>(NLMSG_ALIGN(header_->nlmsg_len)));
    }

  private:
    Buffer room_;
    nlmsghdr* header_;
};

constexpr std::uint16_t create_new = NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
constexpr std::uint16_t replace = NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE;

struct Appender {
    Buffer& buffer;
    std::uint32_t sequence;

    void operator()(const AddHop& step) const {
        Writer writer(64, RTM_NEWNEXTHOP, create_new, sequence);
        auto& body = writer.body<nhmsg>();
        body.nh_family = family_number(step.hop.gateway.family);
        body.nh_protocol = own_protocol;
        writer.number(NHA_ID, step.hop.id);
        writer.data(NHA_GATEWAY, step.hop.gateway.used_bytes());
        writer.number(NHA_OIF, static_cast<std::uint32_t>(step.hop.link));
        writer.append_to(buffer);
    }

    void operator()(const PutGroup& step) const {
        const Group& group = step.group;
        std::vector<nexthop_grp> entries;
        for (const GroupEntry& entry : group.entries) {
            nexthop_grp written{};
            written.id = entry.id;
            written.weight = static_cast<std::uint8_t>(entry.weight - 1);
            entries.push_back(written);
        }
        const std::size_t size = entries.size() * sizeof(nexthop_grp);
        Writer writer(size + 128, RTM_NEWNEXTHOP, step.replaces ? replace : create_new, sequence);
        writer.body<nhmsg>().nh_protocol = own_protocol;  // a group has no family
        writer.number(NHA_ID, group.id);
        writer.data(NHA_GROUP, {reinterpret_cast<const std::uint8_t*>(entries.data()), size});
        writer.number16(NHA_GROUP_TYPE,
                        group.is_resilient ? NEXTHOP_GRP_TYPE_RES : NEXTHOP_GRP_TYPE_MPATH);
        if (group.is_resilient) {
            constexpr std::uint32_t ticks_per_s = 100;  // USER_HZ, as for every clock_t
            nlattr* const nest = writer.open(NHA_RES_GROUP);
            writer.number16(NHA_RES_GROUP_BUCKETS, group.buckets);
            writer.number(NHA_RES_GROUP_IDLE_TIMER, group.idle_timer_s * ticks_per_s);
            writer.number(NHA_RES_GROUP_UNBALANCED_TIMER, group.unbalanced_timer_s * ticks_per_s);
            writer.close(nest);
        }
        writer.append_to(buffer);
    }

    void operator()(const PutRoute& step) const {
        const KernelRoute& route = step.route;
        constexpr std::size_t hop_size = sizeof(rtnexthop) + 2 * sizeof(nlattr) + 16;
        Writer writer(128 + route.hops.size() * hop_size, RTM_NEWROUTE,
                      step.replaces ? replace : create_new, sequence);
        put_place(writer, route, RT_SCOPE_UNIVERSE, RTN_UNICAST);
        if (route.group_id != 0) {
            writer.number(RTA_NH_ID, route.group_id);
        } else if (route.hops.size() == 1 && route.hops[0].gateway) {
            writer.data(RTA_GATEWAY, route.hops[0].gateway->used_bytes());
            writer.number(RTA_OIF, static_cast<std::uint32_t>(route.hops[0].link));
        } else {
            put_hops(writer, route.hops);
        }
        writer.append_to(buffer);
    }

    void operator()(const RemoveRoute& step) const {
        Writer writer(128, RTM_DELROUTE, NLM_F_ACK, sequence);
        put_place(writer, step.route, RT_SCOPE_NOWHERE, 0);
        writer.append_to(buffer);
    }

    void operator()(const RemoveNextHop& step) const {
        Writer writer(64, RTM_DELNEXTHOP, NLM_F_ACK, sequence);
        writer.body<nhmsg>().nh_family = AF_UNSPEC;
        writer.number(NHA_ID, step.id);
        writer.append_to(buffer);
    }

  private:
    static void put_place(Writer& writer, const KernelRoute& route, unsigned char scope,
                          unsigned char type) {
        auto& body = writer.body<rtmsg>();
        body.rtm_family = family_number(route.prefix.address.family);
        body.rtm_dst_len = static_cast<unsigned char>(route.prefix.length);
        body.rtm_protocol = own_protocol;  // on removal: of that protocol alone
        body.rtm_scope = scope;
        body.rtm_type = type;
        body.rtm_table = RT_TABLE_UNSPEC;
        writer.data(RTA_DST, route.prefix.address.used_bytes());
        writer.number(RTA_TABLE, route.table);
        writer.number(RTA_PRIORITY, route.priority);
    }

    static void put_hops(Writer& writer, const std::vector<PathHop>& hops) {
        nlattr* const nest = writer.open(RTA_MULTIPATH);
        for (const PathHop& hop : hops) {
            auto& head = writer.body<rtnexthop>();
            const std::size_t begin = writer.header().nlmsg_len - sizeof(rtnexthop);
            head.rtnh_hops = static_cast<unsigned char>(hop.weight - 1);
            head.rtnh_ifindex = hop.link;
            if (hop.gateway) {
                writer.data(RTA_GATEWAY, hop.gateway->used_bytes());
            }
            head.rtnh_len = static_cast<unsigned short>(writer.header().nlmsg_len - begin);
        }
        writer.close(nest);
    }
};

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

void append_request(Buffer& buffer, const Step& step, std::uint32_t sequence) {
    std::visit(Appender{buffer, sequence}, step);
}

void append_dump(Buffer& buffer, Dump what, std::uint32_t selector, std::uint32_t sequence) {
    const auto routes = [&](Family family, std::uint32_t table, std::uint8_t protocol) {
        Writer writer(64, RTM_GETROUTE, NLM_F_DUMP, sequence);
        auto& body = writer.body<rtmsg>();
        body.rtm_family = family_number(family);
        body.rtm_protocol = protocol;
        if (table != 0) {
            writer.number(RTA_TABLE, table);
        }
        writer.append_to(buffer);
    };
    switch (what) {
        case Dump::links: {
            Writer writer(64, RTM_GETLINK, NLM_F_DUMP, sequence);
            writer.body<ifinfomsg>().ifi_family = AF_UNSPEC;
            writer.number(IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
            return writer.append_to(buffer);
        }
        case Dump::addresses: {
            Writer writer(64, RTM_GETADDR, NLM_F_DUMP, sequence);
            writer.body<ifaddrmsg>().ifa_family = AF_UNSPEC;
            return writer.append_to(buffer);
        }
        case Dump::next_hops: {
            Writer writer(64, RTM_GETNEXTHOP, NLM_F_DUMP, sequence);
            writer.body<nhmsg>().nh_family = AF_UNSPEC;
            return writer.append_to(buffer);
        }
        case Dump::own_routes4:
            return routes(Family::ipv4, 0, own_protocol);
        case Dump::own_routes6:
            return routes(Family::ipv6, 0, own_protocol);
        case Dump::routes4:
            return routes(Family::ipv4, selector, 0);
        case Dump::routes6:
            return routes(Family::ipv6, selector, 0);
        case Dump::buckets: {
            Writer writer(64, RTM_GETNEXTHOPBUCKET, NLM_F_DUMP, sequence);
            writer.body<nhmsg>().nh_family = AF_UNSPEC;
            writer.number(NHA_ID, selector);
            return writer.append_to(buffer);
        }
    }
}

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

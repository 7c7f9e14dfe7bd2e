#include "lbroute/rtnetlink_requests.h"

#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <span>
#include <variant>

namespace lbroute {

namespace {

unsigned char family_number(Family family) {
    return family == Family::ipv4 ? AF_INET : AF_INET6;
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
        body.nh_flags = step.is_on_link ? RTNH_F_ONLINK : 0;
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
        put_place(writer, route, RT_SCOPE_UNIVERSE, RTN_UNICAST,
                  route.hops.size() == 1 && route.hops[0].is_on_link ? RTNH_F_ONLINK : 0);
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
        put_place(writer, step.route, RT_SCOPE_NOWHERE, 0, 0);
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
                          unsigned char type, unsigned int flags) {
        auto& body = writer.body<rtmsg>();
        body.rtm_family = family_number(route.prefix.address.family);
        body.rtm_dst_len = static_cast<unsigned char>(route.prefix.length);
        body.rtm_protocol = own_protocol;  // on removal: of that protocol alone
        body.rtm_scope = scope;
        body.rtm_type = type;
        body.rtm_flags = flags;
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
            head.rtnh_flags = hop.is_on_link ? RTNH_F_ONLINK : 0;
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

}  // namespace lbroute

#include "lbroute/uplinks.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <system_error>

namespace lbroute {

namespace {

bool is_learning(const std::string& next_hop) {
    return next_hop == "dhcp" || next_hop == "tunnel";
}

void add_uplinks(Uplinks& uplinks, const std::map<std::string, LBHealth>& records, Family family) {
    for (const auto& [name, record] : records) {
        uplinks.uplinks.push_back({.interface = name,
                                   .namespace_name = record.namespace_name,
                                   .family = family,
                                   .next_hop = Address::parse(record.nexthop, family),
                                   .is_learning = is_learning(record.nexthop),
                                   .is_active = std::nullopt});
    }
}

/// Dumps hold no more of a namespace's name.
constexpr std::size_t longest_dumped_namespace = 32;

/// The rule for one family; a rule may have members of both.
UplinkRule rule_of(const LBRule& rule, Family family) {
    UplinkRule made{
        .namespace_name = rule.namespace_name, .family = family, .targets = {}, .members = {}};
    for (const auto& [text, metric] : rule.targets) {
        if (const auto prefix = prefix_of(text); prefix && prefix->address.family == family) {
            made.targets.insert(*prefix);
        }
    }
    for (const auto& [member, weight] : rule.interfaces) {
        if (member.second == (family == Family::ipv6) && weight != 0) {
            made.members.push_back({member.first, weight});
        }
    }
    return made;
}

auto place_of(const Uplink& uplink) {
    return std::tie(uplink.namespace_name, uplink.family, uplink.interface);
}

}  // namespace

const Uplink* Uplinks::find(const std::string& namespace_name, Family family,
                            const std::string& interface) const {
    const auto found = std::ranges::find_if(uplinks, [&](const Uplink& uplink) {
        return place_of(uplink) == std::tie(namespace_name, family, interface);
    });
    return found == uplinks.end() ? nullptr : &*found;
}

std::optional<Prefix> prefix_of(const std::string& text) {
    const auto slash = text.find('/');
    if (slash == std::string::npos) {
        return std::nullopt;
    }
    const std::string address_text = text.substr(0, slash);
    const Family family = address_text.find(':') == std::string::npos ? Family::ipv4 : Family::ipv6;
    const auto address = Address::parse(address_text, family);
    int length = -1;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data() + slash + 1, end, length);
    if (!address || error != std::errc() || stopped != end || length < 0 ||
        length > bits_of(family)) {
        return std::nullopt;
    }
    return Prefix{network_of(*address, length), length};
}

Uplinks uplinks_of(const LBData& configuration) {
    Uplinks uplinks;
    add_uplinks(uplinks, configuration.health, Family::ipv4);
    add_uplinks(uplinks, configuration.health6, Family::ipv6);
    std::ranges::sort(uplinks.uplinks, {}, [](const Uplink& uplink) { return place_of(uplink); });
    for (const auto& [place, work] : work_by_namespace(configuration)) {
        const auto& [name, is_ipv6] = place;
        uplinks.namespaces.insert(name);
        if (work.needs_worker()) {
            uplinks.watched.emplace(name, is_ipv6 ? Family::ipv6 : Family::ipv4);
        }
    }
    for (const auto& [name, rule] : configuration.rules) {
        for (const Family family : {Family::ipv4, Family::ipv6}) {
            UplinkRule made = rule_of(rule, family);
            if (!made.members.empty()) {
                uplinks.rules.push_back(std::move(made));
            }
        }
    }
    return uplinks;
}

Uplinks with_dumps(Uplinks configured, const std::vector<dumps::Interface>& dumped) {
    Uplinks uplinks = std::move(configured);
    for (const dumps::Interface& one : dumped) {
        const Family family = one.family == 4 ? Family::ipv4 : Family::ipv6;
        auto known = std::ranges::find_if(uplinks.uplinks, [&](const Uplink& uplink) {
            return uplink.family == family && uplink.interface == one.name &&
                   uplink.namespace_name.substr(0, longest_dumped_namespace) == one.namespace_name;
        });
        if (known == uplinks.uplinks.end()) {
            uplinks.uplinks.push_back({.interface = one.name,
                                       .namespace_name = one.namespace_name,
                                       .family = family,
                                       .next_hop = std::nullopt,
                                       .is_learning = false,
                                       .is_active = std::nullopt});
            known = std::prev(uplinks.uplinks.end());
        }
        known->next_hop = Address::parse(one.nexthop, family);
        known->is_learning = one.nexthop_from == "dhcp" || one.nexthop_from == "tunnel";
        known->is_active = one.is_active;
    }
    std::ranges::sort(uplinks.uplinks, {}, [](const Uplink& uplink) { return place_of(uplink); });
    return uplinks;
}

}  // namespace lbroute

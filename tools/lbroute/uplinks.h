#pragma once

#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config/lb_data.h"
#include "dumps/state.h"
#include "lbroute/address.h"

/// What is known of the router's uplinks and rules: from the daemon's configuration, and from its
/// dumps, which tell the next hops in force and who is active. Plain values; without a system call.
namespace lbroute {

struct Uplink {
    std::string interface;
    std::string namespace_name;  ///< empty: the default namespace
    Family family = Family::ipv4;
    std::optional<Address> next_hop;  ///< none while none is known, or its text is no address
    bool is_learning = false;         ///< by DHCP or from the tunnel: it may move without a word
    std::optional<bool> is_active;    ///< as the dumps tell; none where they do not

    bool operator==(const Uplink&) const = default;
};

struct Member {
    std::string interface;
    int weight = 0;

    bool operator==(const Member&) const = default;
};

/// A rule of one family: its members in the order of their names, those of weight 0 left out.
struct UplinkRule {
    std::string namespace_name;
    Family family = Family::ipv4;
    std::set<Prefix> targets;
    std::vector<Member> members;

    bool operator==(const UplinkRule&) const = default;
};

struct Uplinks {
    std::vector<Uplink> uplinks;    ///< ordered by namespace, family and interface
    std::vector<UplinkRule> rules;  ///< in the daemon's order: the later counts

    /// The namespaces that the configuration names, and the default one. The dumps add none: those
    /// of a daemon that was not started anew since, or of a family that nobody writes any more,
    /// name namespaces that have left.
    std::set<std::string> namespaces{""};
    /// What the daemon has a worker for: an uplink and a rule of the family are there.
    std::set<std::pair<std::string, Family>> watched;

    const Uplink* find(const std::string& namespace_name, Family family,
                       const std::string& interface) const;

    bool operator==(const Uplinks&) const = default;
};

/// "ADDRESS/LENGTH" of either family.
std::optional<Prefix> prefix_of(const std::string& text);

/// The uplinks and rules of a configuration as the daemon's loader leaves it.
Uplinks uplinks_of(const LBData& configuration);

/// The same with what the dumps tell beside it: a dump counts for the uplinks that it names.
Uplinks with_dumps(Uplinks configured, const std::vector<dumps::Interface>& dumped);

}  // namespace lbroute

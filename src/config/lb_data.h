#pragma once

#include <map>
#include <string>
#include <utility>

#include "config/context.h"
#include "config/lb_health.h"

/// One load-balancing rule.
class LBRule {
  public:
    LBRule() = default;
    LBRule(const LBRule&) = default;
    ~LBRule() = default;

    int failover = 0;            ///< 1: one interface at a time instead of a weighted multipath
    std::string namespace_name;  ///< empty: the default namespace
    std::map<std::string, int> targets;  ///< destination prefix -> metric, -1 for none
    /// Destination prefix -> next hop chosen in the last run of a failover rule. Written by the
    /// worker that `chooses_for` names (config/live_state.h).
    std::map<std::string, std::string> chosen_nexthops;
    /// (kernel interface name, is IPv6) -> weight; a member with weight 0 is never routed (B107).
    std::map<std::pair<std::string, bool>, int> interfaces;

    /// True when the rule has a member interface of the family.
    bool has_member(bool of_ipv6) const;
};

/// A rule is an IPv4 rule when its name holds "ipv4", else an IPv6 rule (B40). Its members decide
/// in which family it is routed (B109).
bool is_ipv4_rule(const std::string& rule_name);

/// True when the worker of the family keeps the rule's `chosen_nexthops`: the rule's own family, or
/// the other one where the rule has only members of that. So a worker never wipes what its sibling
/// in the same namespace chose.
bool chooses_for(const std::string& rule_name, const LBRule& rule, bool ipv6);

/// The configuration and the live state of all interfaces and rules; one copy serves all workers
/// under the rule of config/live_state.h.
class LBData {
  public:
    LBData() = default;
    LBData(const LBData&) = default;
    ~LBData() = default;

    std::map<std::string, LBRule> rules;              ///< by name, for example 1_ipv4 (B41)
    std::map<std::string, LBHealth> health;           ///< IPv4 interfaces by kernel name (B33)
    std::map<std::string, LBHealth> health6;          ///< IPv6 interfaces by kernel name
    std::map<std::string, std::string> last_routes4;  ///< per namespace: the text last written
    std::map<std::string, std::string> last_routes6;

    /// The interfaces of one family.
    std::map<std::string, LBHealth>& family(bool ipv6) { return ipv6 ? health6 : health; }
    const std::map<std::string, LBHealth>& family(bool ipv6) const {
        return ipv6 ? health6 : health;
    }

    using Changes = std::map<std::string, std::string>;

    /// The rest is defined in decision/lb_data_state.cpp and decision/next_hops.cpp.
    /// Starts a cycle: no interface of the worker has changed yet.
    void reset_state_changed(context* ctx);
    /// Reads the next hops of "dhcp" interfaces from the lease files of the DHCP clients.
    void update_dhcp_nexthop(context* ctx);
    /// Asks the kernel for the peers of "tunnel" interfaces.
    void update_tunnel_nexthop(context* ctx);

    /// What nothing in the daemon calls (B132). False for an unknown interface.
    bool is_active(const std::string& ifname, context* ctx) const;
    /// Empty for an unknown interface.
    std::string get_interface_namespace(const std::string& ifname, context* ctx) const;
    /// Interface name -> "ACTIVE" or "FAILED" of every interface of the worker's family that
    /// changed in this cycle.
    Changes state_changed(context* ctx);
    void check_state(Changes* changes, std::map<std::string, LBHealth>::iterator entry,
                     context* ctx);
    /// Prints interfaces and rules on standard output.
    void dump(context* ctx);
    void dump_h_iter(std::map<std::string, LBHealth>::iterator entry, context* ctx);
};

/// What one namespace holds of one family.
struct NamespaceWork {
    int interfaces = 0;
    int rules = 0;

    /// A worker serves the namespace and family.
    bool needs_worker() const { return interfaces != 0 && rules != 0; }
};
/// (namespace, is IPv6) -> what it holds; nothing where it holds neither.
using WorkByNamespace = std::map<std::pair<std::string, bool>, NamespaceWork>;
WorkByNamespace work_by_namespace(const LBData& data);

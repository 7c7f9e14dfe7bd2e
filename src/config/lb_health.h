#pragma once

#include <map>
#include <string>

#include "config/context.h"

class LBData;
class LBTest;
class LBTest6;

/// What is known of an interface's targets so far.
class LBHealthHistory {
  public:
    LBHealthHistory() = default;

    int last_success =
        0;  ///< s since the epoch: last evaluation that found the interface up; 0 never
    int last_failure = 0;  ///< s since the epoch: last evaluation that found it down; 0 never
    std::map<std::string, int> last_resp;  ///< confirmed result per target: 0 success, -1 failure

    /// What nothing in the daemon calls (B132). Records a result for a target.
    void push(int resp, context* ctx, const std::string& target);
    /// -1 when nothing is recorded, else the result of the first target.
    int get_last_resp(context* ctx);
};

/// One configured interface of one address family, with its probes and its running state.
///
/// The probes are created by the loader and live as long as the process: every copy of a record
/// points to the same ones, and no copy deletes them (B135). What changes after start-up follows
/// the rule of config/live_state.h.
class LBHealth {
  public:
    LBHealth(const std::string& ifname, bool is_ipv6);

    int success_ct = 0;  ///< successes in a row that make a target count as up; 0: none given (B39)
    int failure_ct = 0;  ///< failures in a row that make it count as down; 0 not configured
    std::string nexthop;       ///< an address, or "dhcp" or "tunnel"
    std::string nexthop_addr;  ///< learnt address for "dhcp" and "tunnel"
    LBHealthHistory history;
    bool active = false;
    bool state_changed = true;  ///< the state changed in this cycle
    int last_change = 0;        ///< s since the epoch; always 0 (B112)
    std::string name;           ///< kernel name, equal to the map key
    bool ipv6 = false;
    bool check_all = false;          ///< every target must be up, not just one
    std::string source_address;      ///< of the probes; empty: the interface's own
    std::map<int, LBTest*> tests;    ///< by the number of the health rule; IPv4 interfaces
    std::map<int, LBTest6*> tests6;  ///< the same for IPv6 interfaces
    std::string namespace_name;      ///< empty: the default namespace
    std::map<int, LBTest*>::iterator test_it{};    ///< cursor of the probe walk, reset by each walk
    std::map<int, LBTest6*>::iterator test6_it{};  ///< the same for `tests6`
    int spare = 5;                                 ///< used by nothing (B132)
    std::map<std::string, int> success_count;      ///< per target: current run of successes
    std::map<std::string, int> failure_count;      ///< per target: current run of failures

    /// The next hop in use: the learnt one for "dhcp" and "tunnel" (empty while none is known),
    /// else the configured one.
    const std::string& effective_nexthop() const;

    /// The current run for a target, 0 for a target never seen; inserts nothing.
    int get_success_ct_by_str(const std::string& target) const;
    int get_failure_ct_by_str(const std::string& target) const;

    /// Defined in probe/lb_path_test.cpp.
    /// Sends every probe of the record, in the order of their numbers.
    void send_test(context* ctx);
    /// Collects every probe of the record, in the order of their numbers.
    void recv_test(context* ctx);
    /// Defined in probe/evaluation.cpp.
    /// Records one probe outcome for a target: -1 failure, anything else success. The verdict moves
    /// only after `success_ct` or `failure_ct` equal outcomes in a row.
    void put(int result, context* ctx, const std::string& target);
    /// Derives the interface's state from its targets' verdicts; logs and flags a change.
    void status_check(LBData& data, context* ctx);
};

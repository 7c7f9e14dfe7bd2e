// What the dumps tell of the daemon: whether it lives, with this configuration, and what it has
// found of the uplinks.

#include <algorithm>
#include <string>
#include <tuple>

#include "dumps/freshness.h"
#include "lbcheck/live_judge.h"
#include "shared/dump_file.h"

namespace lbcheck {

namespace {

const dumps::Family* family_of(const dumps::State& dumps, int family) {
    for (const dumps::Family& one : dumps.families) {
        if (one.family == family) {
            return &one;
        }
    }
    return nullptr;
}

/// Whether what the family's dumps tell is of now.
bool is_told(const LiveFacts& facts, int family) {
    const dumps::Family* dumped = family_of(facts.dumps, family);
    return facts.dumps_problem.empty() && dumped != nullptr && !dumped->is_stale;
}

const dumps::Interface* dumped_of(const LiveFacts& facts, const dumps::Interface& expected) {
    const auto found =
        std::ranges::find_if(facts.dumps.interfaces, [&expected](const dumps::Interface& one) {
            return one.name == expected.name && one.family == expected.family;
        });
    return found == facts.dumps.interfaces.end() ? nullptr : &*found;
}

bool has_same_limits(const dumps::Probe& expected, const dumps::Probe& dumped) {
    const auto limits_of = [](const dumps::Probe& probe) {
        const dumps::Quality quality = probe.quality.value_or(dumps::Quality{});
        return std::tuple(probe.quality.has_value(), quality.loss_limit, quality.rtt_limit,
                          quality.jitter_limit);
    };
    return limits_of(expected) == limits_of(dumped);
}

/// Without a target of its own a probe asks the next hop.
bool asks_learnt_hop(const dumps::Interface& expected, const dumps::Probe& probe) {
    return expected.nexthop_from != "configured" && probe.target == expected.nexthop;
}

/// Apart from what the daemon learns while it runs: the next hop of a lease or tunnel, and the
/// source of an IPv6 uplink that is given none.
bool is_same(const dumps::Interface& expected, const dumps::Interface& dumped) {
    const auto settings_of = [](const dumps::Interface& one) {
        return std::tie(one.namespace_name, one.nexthop_from, one.success_ct, one.failure_ct);
    };
    const bool is_source_learnt = expected.family == 6 && expected.source_address.empty();
    return settings_of(expected) == settings_of(dumped) &&
           (expected.nexthop_from != "configured" || expected.nexthop == dumped.nexthop) &&
           (is_source_learnt || expected.source_address == dumped.source_address) &&
           std::ranges::equal(
               expected.probes, dumped.probes,
               [&expected](const dumps::Probe& one, const dumps::Probe& other) {
                   return has_same_limits(one, other) &&
                          (asks_learnt_hop(expected, one) || one.target == other.target);
               });
}

bool is_same(const dumps::Rule& expected, const dumps::Rule& dumped) {
    const auto member_of = [](const dumps::Member& one) {
        return std::tie(one.interface, one.family, one.weight);
    };
    return std::tie(expected.number, expected.family, expected.namespace_name,
                    expected.is_failover) ==
               std::tie(dumped.number, dumped.family, dumped.namespace_name, dumped.is_failover) &&
           std::ranges::equal(expected.members, dumped.members, {}, member_of, member_of);
}

/// Rules and routes; dumps of which a part is stale tell nothing.
bool are_rules_same(const LiveFacts& facts) {
    const auto route_of = [](const dumps::Route& one) {
        return std::tie(one.rule_number, one.family, one.prefix, one.metric);
    };
    return std::ranges::equal(facts.expected_rules, facts.dumps.rules,
                              [](const dumps::Rule& one, const dumps::Rule& other) {
                                  return is_same(one, other);
                              }) &&
           std::ranges::equal(facts.expected_routes, facts.dumps.routes, {}, route_of, route_of);
}

bool are_rules_told(const LiveFacts& facts) {
    return facts.dumps_problem.empty() && !facts.dumps.families.empty() &&
           std::ranges::none_of(facts.dumps.families, &dumps::Family::is_stale);
}

void judge_family(const LiveFacts& facts, int family, LiveFindings& findings) {
    const bool is_configured = facts.configured.contains(family);
    const dumps::Family* dumped = family_of(facts.dumps, family);
    const std::string place = "dumps of IPv" + std::to_string(family);
    if (dumped == nullptr && is_configured) {
        findings.add(State::error, place, "there is none: the daemon does not serve the family",
                     "systemctl restart lb");
    } else if (dumped != nullptr && !is_configured && dumped->is_stale) {
        findings.add(State::warning, place,
                     "they are of an earlier configuration, which had the family",
                     "rm " + shared::dump_folder(facts.output_directory) + "/" +
                         dumps::outbounds_name(family));
    } else if (dumped != nullptr && !is_configured) {
        findings.add(State::warning, place,
                     "the daemon runs with another configuration, which has the family",
                     "systemctl restart lb");
    } else if (dumped != nullptr && dumped->age_s < -dumps::clock_tolerance_s) {
        findings.add(State::error, place,
                     "they are from the future: the clock was set back, and the daemon has not "
                     "written since",
                     "systemctl restart lb");
    } else if (dumped != nullptr && dumped->is_stale) {
        findings.add(State::error, place,
                     "they were written " + std::to_string(dumped->age_s) +
                         " s ago: the daemon does not run, or hangs",
                     "systemctl restart lb");
    } else if (dumped != nullptr) {
        findings.add(State::ok, place, "they are of now");
    }
}

bool is_answered_beyond_its_limits(const dumps::Probe& probe) {
    constexpr int all_percent = 100;
    const auto& measured = probe.quality;
    return measured && measured->loss_percent < all_percent &&
           (measured->loss_percent >= measured->loss_limit ||
            measured->rtt_ms >= measured->rtt_limit ||
            measured->jitter_ms >= measured->jitter_limit);
}

/// Judges what the daemon has found of an uplink for which nothing else was found to be wrong.
void judge_verdict(const NamespaceFacts& space, const UplinkFacts& uplink,
                   const dumps::Interface& dumped, LiveFindings& findings) {
    const std::string place = place_of(space, uplink);
    if (dumped.is_active) {
        findings.add(State::ok, place, "the daemon holds it for active");
        return;
    }
    std::string causes;
    std::string first_silent;
    std::size_t failed = 0;
    for (const dumps::Probe& probe : dumped.probes) {
        if (probe.last_result != dumps::Result::timed_out ||
            probe.failure_run < dumped.failure_ct) {
            continue;
        }
        ++failed;
        const bool is_silent = !is_answered_beyond_its_limits(probe);
        causes += (causes.empty() ? "" : ", ") +
                  (is_silent ? "no answer of " + probe.target
                             : probe.target + " is beyond a limit of its ping_ext");
        if (is_silent && first_silent.empty()) {
            first_silent = probe.target;
        }
    }
    const bool is_settled =
        failed > 0 && (uplink.needs_all_targets || failed == dumped.probes.size());
    const std::string show = "lbshow interfaces " + uplink.interface;
    if (!is_settled) {
        findings.add(State::unknown, place, "the daemon has not found it active yet",
                     "look again after some seconds; where it stays so: " + show);
        return;
    }
    const std::string ping = within(space.name, "ping -I " + uplink.interface + " " + first_silent);
    findings.add(State::error, place, "the daemon holds it for failed: " + causes,
                 first_silent.empty()
                     ? show + " tells what was measured: correct the limits, or ask the provider"
                     : ping +
                           "; where it answers there: systemctl restart lb, else give a "
                           "target that answers");
}

bool has_error(const LiveFindings& findings, const std::string& place) {
    return std::ranges::any_of(findings.all, [&place](const LiveFinding& one) {
        return one.state == State::error && one.place == place;
    });
}

void judge_dumped_uplink(const LiveFacts& facts, const NamespaceFacts& space,
                         const UplinkFacts& uplink, LiveFindings& findings) {
    const dumps::Interface& expected = *uplink.expected;
    const dumps::Interface* dumped = dumped_of(facts, expected);
    const std::string place = place_of(space, uplink);
    if (dumped == nullptr) {
        findings.add(State::error, place,
                     "the daemon runs with another configuration, which has no such uplink",
                     "systemctl restart lb");
        return;
    }
    if (!is_same(expected, *dumped)) {
        findings.add(State::warning, place, "the daemon runs with another configuration of it",
                     "systemctl restart lb");
    }
    // An error that was found already is why the daemon holds it for failed.
    if (!dumped->is_stale && !has_error(findings, place)) {
        judge_verdict(space, uplink, *dumped, findings);
    }
}

}  // namespace

bool are_of_this_configuration(const LiveFacts& facts) {
    const auto is_expected = [&facts](const UplinkFacts& uplink) {
        if (!uplink.expected || !is_told(facts, uplink.expected->family)) {
            return true;
        }
        const dumps::Interface* dumped = dumped_of(facts, *uplink.expected);
        return dumped != nullptr && is_same(*uplink.expected, *dumped);
    };
    return (!are_rules_told(facts) || are_rules_same(facts)) &&
           std::ranges::all_of(facts.namespaces, [&is_expected](const NamespaceFacts& space) {
               return std::ranges::all_of(space.uplinks, is_expected);
           });
}

void judge_dumps(const LiveFacts& facts, LiveFindings& findings) {
    if (!facts.dumps_problem.empty()) {
        findings.add(State::unknown, "dumps", facts.dumps_problem,
                     "systemctl enable --now lb, where it does not run yet");
        return;
    }
    for (const int family : {4, 6}) {
        judge_family(facts, family, findings);
    }
    for (const NamespaceFacts& space : facts.namespaces) {
        for (const UplinkFacts& uplink : space.uplinks) {
            if (uplink.expected && is_told(facts, uplink.expected->family)) {
                judge_dumped_uplink(facts, space, uplink, findings);
            }
        }
    }
    if (are_rules_told(facts) && !are_rules_same(facts)) {
        findings.add(State::warning, "rules",
                     "the daemon runs with other rules than the configuration has",
                     "systemctl restart lb");
    }
    for (const dumps::Interface& one : facts.dumps.unjudged) {
        findings.add(State::error, one.name + " (IPv" + std::to_string(one.family) + ")",
                     "its worker stands still: nobody judges it", "systemctl restart lb");
    }
}

}  // namespace lbcheck

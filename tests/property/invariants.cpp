#include "property/invariants.h"

#include <malloc.h>

#include <algorithm>

#include "decision/route_text.h"
#include "lbsim/scenario_text.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test.h"

namespace property {

namespace {

/// The heap may be cut differently, no more.
constexpr std::size_t tolerated_growth = 32768;

/// A step takes a second, and less than two on average with the slowest extended pings that are
/// drawn.
constexpr std::int64_t slowest_step_us = 2'000'000;

}  // namespace

Invariants::Invariants(Simulation& machine, lbsim::Daemon& daemon,
                       const std::vector<lbsim::Uplink>& uplinks, const lbsim::Scenario& scenario,
                       const std::vector<FaultWindow>& windows)
    : machine_(machine), data_(daemon.data()), windows_(windows), start_us_(machine.now_us()) {
    for (const lbsim::Uplink& uplink : uplinks) {
        Watched one{.uplink = &uplink,
                    .health = &data_.family(uplink.is_ipv6).at(uplink.name),
                    .truth = lbsim::truth_of(uplink, scenario)};
        for (const lbsim::Event& event : scenario) {
            if (lbsim::concerns(event, uplink)) {
                one.disturbed_us.push_back(event.at_us);
            }
        }
        for_each_probe(*one.health, [this](int, const Probe&) { ++probes_; });
        steps_[{one.health->namespace_name, one.health->ipv6}] = 0;
        watched_.push_back(std::move(one));
    }
    machine.on_answer = [this](const Simulation::Answer& answer) {
        ++answers_[{answer.ns_name, answer.link, answer.target}];
    };
}

void Invariants::note(const std::string& text) {
    if (broken.size() < most) {
        broken.push_back("at " + lbsim::shown_duration(at_us_) + ": " + text);
    }
}

bool Invariants::is_failing(Simulation::Call call) const {
    return machine_.faults.percent > 0 && machine_.faults.calls.contains(call);
}

void Invariants::look(const context& ctx) {
    at_us_ = machine_.now_us() - start_us_;
    ++steps_[{*ctx.ns_name, ctx.ipv6}];
    for (Watched& one : watched_) {
        if (one.health->ipv6 == ctx.ipv6 && one.health->namespace_name == *ctx.ns_name) {
            look_at_verdicts(one);
            look_at_state(one);
        }
    }
    look_at_routes(ctx);
    look_at_probes_in_flight();
    machine_.log.clear();
    machine_.commands.clear();
}

void Invariants::look_at_verdicts(Watched& one) {
    for (const auto& [target, verdict] : one.health->history.last_resp) {
        const auto [before, is_new] = one.verdicts.try_emplace(target, -1);
        if (before->second == verdict) {
            continue;
        }
        const int answers =
            answers_[{one.uplink->ns_name, one.uplink->name, lbsim::canonical(target)}];
        if (verdict == 0 && answers - one.answers_before[target] < one.health->success_ct) {
            note(shown(*one.uplink) + ": target " + target + " counts as up after " +
                 std::to_string(answers - one.answers_before[target]) + " answers, not " +
                 std::to_string(one.health->success_ct));
        }
        if (verdict != 0) {
            one.answers_before[target] = answers;
        }
        before->second = verdict;
    }
}

/// Since when nothing has happened to the uplink, and the host has not failed.
std::int64_t Invariants::calm_since_us(const Watched& one) const {
    std::int64_t since_us = 0;
    for (const std::int64_t moment_us : one.disturbed_us) {
        since_us = moment_us <= at_us_ ? std::max(since_us, moment_us) : since_us;
    }
    for (const FaultWindow& window : windows_) {
        if (window.from_us <= at_us_) {
            since_us = std::max(since_us, std::min(window.to_us, at_us_));
        }
    }
    return since_us;
}

void Invariants::look_at_state(const Watched& one) {
    const auto condition = lbsim::condition_at(one.truth, at_us_);
    const bool is_active = one.health->active;
    const bool is_wrong = condition == lbsim::Condition::good   ? !is_active
                          : condition == lbsim::Condition::dead ? is_active
                                                                : false;
    if (!is_wrong || at_us_ - calm_since_us(one) <= one.uplink->start_us) {
        return;
    }
    // B83: a solicitation that could not be sent, into a link that was down, ends all later ones.
    if (one.uplink->is_ipv6 && LBNeighbor::_send_sock.get(one.uplink->ns_name) == 0) {
        return;
    }
    note(shown(*one.uplink) + (is_active ? ": active, and dead" : ": inactive, and good") +
         " since " + lbsim::shown_duration(calm_since_us(one)) + ", longer than " +
         lbsim::shown_duration(one.uplink->start_us));
}

/// Worked out again from the configuration and the active uplinks alone.
std::string Invariants::expected_routes(const context& ctx) const {
    std::string routes;
    for (const auto& [rule_name, rule] : data_.rules) {
        if (rule.namespace_name != *ctx.ns_name) {
            continue;
        }
        std::vector<std::pair<const LBHealth*, int>> members;
        for (const auto& [member, weight] : rule.interfaces) {
            const auto& family = data_.family(ctx.ipv6);
            const auto found = family.find(member.first);
            if (member.second == ctx.ipv6 && found != family.end() && found->second.active &&
                found->second.namespace_name == *ctx.ns_name) {
                members.emplace_back(&found->second, weight);
            }
        }
        if (rule.failover != 0 && !members.empty()) {
            members = {*std::max_element(
                members.begin(), members.end(),
                [](const auto& one, const auto& other) { return one.second < other.second; })};
        }
        std::string vias;
        for (const auto& [health, weight] : members) {
            const bool is_learnt = health->nexthop == "dhcp" || health->nexthop == "tunnel";
            const std::string& nexthop = is_learnt ? health->nexthop_addr : health->nexthop;
            if (weight != 0 && !nexthop.empty()) {
                vias += " via " + nexthop + " weight " + std::to_string(weight);
            }
        }
        for (const auto& [prefix, metric] : rule.targets) {
            if (!vias.empty()) {
                routes += "route " + prefix + " multipath" + vias +
                          (metric == -1 ? "" : " metric " + std::to_string(metric)) + ";\n";
            }
        }
    }
    return routes;
}

void Invariants::look_at_routes(const context& ctx) {
    const std::string where = lbsim::family_word(ctx.ipv6) +
                              (ctx.ns_name->empty() ? std::string() : " in " + *ctx.ns_name);
    const std::string path = fragment_path(*ctx.ns_name, ctx.ipv6);
    Fragment& fragment = fragments_[{*ctx.ns_name, ctx.ipv6}];
    const std::string expected = expected_routes(ctx);
    int reloads = 0;
    for (const auto& [process, routing] : machine_.routing_daemons) {
        reloads += routing.fragment_path == path ? routing.reloads : 0;
    }
    const int writings = machine_.writings[path];
    const int written = writings - fragment.writings;
    const int told = reloads - fragment.reloads;
    fragment.writings = writings;
    fragment.reloads = reloads;
    if (expected == fragment.routes) {
        if (written != 0 || told != 0) {
            note(where + " fragment written " + std::to_string(written) + " times, told " +
                 std::to_string(told) + " times, and nothing changed");
        }
    } else {
        fragment.routes = expected;
        // B102: what could not be handed over is not tried again.
        fragment.is_written = written == 1 || !is_failing(Simulation::Call::write_file);
        if (written != 1 && fragment.is_written) {
            note(where + " fragment written " + std::to_string(written) + " times after a change");
        }
        const bool can_tell = !is_failing(Simulation::Call::command);
        if (told != 1 && can_tell) {
            note(where + " routing daemon told " + std::to_string(told) + " times of a change");
        }
    }
    const auto file = machine_.files.find(path);
    const std::string content = file == machine_.files.end() ? "" : file->second;
    const std::string wanted =
        "protocol static {\n" + std::string(ctx.ipv6 ? "" : "check link 1;\n") + expected + "};\n";
    if (fragment.is_written && content != wanted) {
        note(where + " fragment is\n" + content + "instead of\n" + wanted);
    }
}

void Invariants::look_at_probes_in_flight() {
    const std::size_t in_flight = ipv4_probes.results.size() + ipv6_probes.results.size();
    if (in_flight > probes_) {
        note(std::to_string(in_flight) + " probes in flight, of " + std::to_string(probes_));
    }
}

void Invariants::judge_pace(std::int64_t duration_us) {
    for (const auto& [worker, steps] : steps_) {
        if (steps * slowest_step_us < duration_us) {
            note("the worker of " +
                 (worker.first.empty() ? "the default namespace" : worker.first) + ", IPv" +
                 (worker.second ? "6" : "4") + ", took " + std::to_string(steps) + " steps");
        }
    }
}

void Invariants::note_memory() {
    memory_.push_back(mallinfo2().uordblks);
    if (memory_.size() == 2 && memory_[1] > memory_[0] + tolerated_growth) {
        note("memory grew from " + std::to_string(memory_[0]) + " to " +
             std::to_string(memory_[1]) + " bytes");
    }
}

}  // namespace property

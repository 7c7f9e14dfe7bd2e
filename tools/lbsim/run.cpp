#include "lbsim/run.h"

#include <algorithm>
#include <utility>

#include "config/interface_name.h"
#include "lbsim/daemon.h"
#include "lbsim/world.h"

namespace lbsim {

namespace {

/// Reads the daemon's state after each step and tells what has changed since the step before.
class Observer {
  public:
    Observer(Simulation& machine, LBData& data, const std::vector<Uplink>& uplinks, Run& run)
        : machine_(machine), data_(data), run_(run), start_us_(machine.now_us()) {
        for (std::size_t i = 0; i < uplinks.size(); ++i) {
            const Uplink& uplink = uplinks[i];
            const auto found = data.family(uplink.is_ipv6).find(uplink.name);
            if (found != data.family(uplink.is_ipv6).end() &&
                found->second.namespace_name == uplink.ns_name) {
                watched_.push_back({.number = i, .health = &found->second});
            }
        }
    }

    void look(const context& ctx) {
        at_us_ = machine_.now_us() - start_us_;
        for (Watched& one : watched_) {
            if (one.health->ipv6 == ctx.ipv6 && one.health->namespace_name == *ctx.ns_name) {
                look_at_targets(one);
                look_at_state(one, ctx);
            }
        }
        look_at_routes(ctx);
        machine_.log.clear();
        machine_.commands.clear();
    }

  private:
    struct Watched {
        std::size_t number = 0;
        const LBHealth* health = nullptr;
        bool was_active = false;
        bool was_routed = false;
        std::map<std::string, int> verdicts{};
    };

    ObservedChange told_of(const LBHealth& health, ObservedChange::Kind kind, bool is_up,
                           std::string text) const {
        return {.at_us = at_us_,
                .kind = kind,
                .uplink = health.name,
                .is_ipv6 = health.ipv6,
                .ns_name = health.namespace_name,
                .is_up = is_up,
                .text = std::move(text)};
    }

    void look_at_targets(Watched& one) {
        const auto& verdicts = one.health->history.last_resp;
        if (verdicts == one.verdicts) {
            return;
        }
        for (const auto& [target, verdict] : verdicts) {
            const auto before = one.verdicts.find(target);
            // What is only noted, before any result (B86), is no verdict.
            const bool is_first = before == one.verdicts.end();
            if (is_first ? verdict == 0 || one.health->get_failure_ct_by_str(target) != 0
                         : before->second != verdict) {
                run_.told.push_back(
                    told_of(*one.health, ObservedChange::Kind::target, verdict == 0,
                            "target " + target + (verdict == 0 ? " success" : " failure")));
            }
        }
        one.verdicts = verdicts;
    }

    void look_at_state(Watched& one, const context& ctx) {
        const bool is_active = one.health->active;
        if (std::exchange(one.was_active, is_active) == is_active) {
            return;
        }
        context asking = ctx;
        const std::string end = shown_ifname(one.health->name, &asking) + " changed state to " +
                                (is_active ? "active" : "inactive");
        const auto line =
            std::find_if(machine_.log.begin(), machine_.log.end(),
                         [&end](const auto& logged) { return logged.text.ends_with(end); });
        run_.told.push_back(told_of(*one.health, ObservedChange::Kind::state, is_active,
                                    line == machine_.log.end() ? end : line->text));
    }

    void look_at_routes(const context& ctx) {
        const auto& all = ctx.ipv6 ? data_.last_routes6 : data_.last_routes4;
        const auto found = all.find(*ctx.ns_name);
        std::string& before = routes_[{*ctx.ns_name, ctx.ipv6}];
        if (found == all.end() || found->second == before) {
            return;
        }
        before = found->second;
        run_.told.push_back({.at_us = at_us_,
                             .kind = ObservedChange::Kind::routes,
                             .uplink = {},
                             .is_ipv6 = ctx.ipv6,
                             .ns_name = *ctx.ns_name,
                             .is_up = !before.empty(),
                             .text = before});
        for (Watched& one : watched_) {
            if (one.health->ipv6 == ctx.ipv6 && one.health->namespace_name == *ctx.ns_name) {
                look_whether_routed(one, before);
            }
        }
    }

    void look_whether_routed(Watched& one, const std::string& routes) {
        const std::string& nexthop = one.health->effective_nexthop();
        const bool is_routed = one.health->active && !nexthop.empty() &&
                               routes.find(" via " + nexthop + " weight ") != std::string::npos;
        if (std::exchange(one.was_routed, is_routed) != is_routed) {
            run_.routed.push_back({at_us_, one.number, is_routed});
        }
    }

    Simulation& machine_;
    LBData& data_;
    Run& run_;
    std::int64_t start_us_;
    std::int64_t at_us_ = 0;
    std::vector<Watched> watched_;
    std::map<std::pair<std::string, bool>, std::string> routes_;
};

void set_counts(LBData& data, const Plan& plan) {
    for (const bool is_ipv6 : {false, true}) {
        for (auto& [name, health] : data.family(is_ipv6)) {
            health.success_ct = plan.success_ct.value_or(health.success_ct);
            health.failure_ct = plan.failure_ct.value_or(health.failure_ct);
        }
    }
}

}  // namespace

Run simulate(const Plan& plan, const std::vector<Uplink>& uplinks) {
    Simulation machine;
    machine.set_seed(plan.seed);
    Daemon daemon(machine, plan.configuration);
    set_counts(daemon.data(), plan);
    World world(machine, uplinks, plan.scenario);
    Run run;
    run.made_up_routers = world.made_up_routers;
    Observer observer(machine, daemon.data(), uplinks, run);
    daemon.start([&observer](const context& ctx) { observer.look(ctx); });
    machine.pass_us(plan.duration_us);
    run.duration_us = plan.duration_us;
    run.cycles = daemon.steps();
    run.echoes = machine.echoes_sent;
    for (const auto& [process, routing] : machine.routing_daemons) {
        run.reloads += routing.reloads;
    }
    return run;
}

}  // namespace lbsim

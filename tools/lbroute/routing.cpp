#include "lbroute/routing.h"

#include <algorithm>
#include <cstdint>
#include <map>

#include "lbroute/findings.h"
#include "lbroute/holds.h"

namespace lbroute {

namespace {

/// How long the daemon's dumps are waited for where they alone tell whose a next hop is.
constexpr std::int64_t dumps_patience_ms = 1500;
/// More changed routes than these are told as a number.
constexpr std::size_t most_told_routes = 20;
/// Another program that goes on taking our routes away is told of this seldom.
constexpr std::int64_t put_back_told_every_ms = 60'000;

/// How many steps made something stand; removals tidy up only.
std::ptrdiff_t count_put(const std::vector<Step>& steps) {
    return std::ranges::count_if(steps, [](const Step& step) {
        return std::holds_alternative<AddHop>(step) || std::holds_alternative<PutGroup>(step) ||
               std::holds_alternative<PutRoute>(step);
    });
}

std::string place_of(const std::string& namespace_name) {
    return namespace_name.empty() ? "" : "namespace " + namespace_name + ": ";
}

}  // namespace

Routing::Routing(const Options& options, Journal& journal)
    : options_(options), journal_(journal), bird_(options.bird2_file, options.birdc) {}

ServedNamespace::Result Routing::route(Served& served, const Surroundings& surroundings) {
    served.was_settled = served.is_good && !served.is_uncertain;
    const std::int64_t now = boottime_ms();
    const bool guesses = served.uncertain_until_ms && now >= *served.uncertain_until_ms;
    auto result = is_for_bird() ? served.kernel.plan_for_others(surroundings, guesses)
                                : served.kernel.put_into_force(surroundings, guesses);
    if (!result.is_uncertain && !guesses) {
        served.uncertain_until_ms.reset();
    } else if (!served.uncertain_until_ms) {
        served.uncertain_until_ms = now + dumps_patience_ms;
    }
    served.is_shared = result.is_shared;
    served.is_uncertain = result.is_uncertain;
    tell(served, result);
    forget_flows(served, result.abandoned);
    return result;
}

void Routing::tell(Served& served, const ServedNamespace::Result& result) {
    const std::string& name = served.kernel.name();
    if (!result.mode_reason.empty()) {
        journal_.say(Level::notice,
                     place_of(name) + result.mode_reason + ", so routes are " +
                         word_of(served.kernel.mode()) +
                         " ones: flows may move between uplinks when one leaves or returns");
    }
    Journal::Problems problems = problems_of(result.view, name);
    const bool is_handed_over = !is_for_bird() || hand_to_bird(served, result, problems);
    for (const std::string& failed : result.failed_removals) {
        problems["not removed: " + failed] = Level::warning;
    }
    journal_.tell("routes " + name, problems);
    served.is_good = std::ranges::all_of(
        problems, [](const auto& problem) { return problem.second >= Level::notice; });
    if (result.is_whole() && is_handed_over) {
        tell_changes(served, result);
    }
}

void Routing::tell_changes(Served& served, const ServedNamespace::Result& result) const {
    std::map<std::string, std::string> paths;
    for (const PlannedRoute& route : result.view.wanted.routes) {
        paths[title_of(route, served.kernel.name())] = path_text(route);
    }
    std::vector<std::string> changes;
    for (const auto& [title, path] : paths) {
        const auto before = served.paths.find(title);
        const bool has_changed = before == served.paths.end() || before->second != path;
        // That a route has none is told with the reason, as a problem.
        if (has_changed && path != no_path) {
            changes.push_back(title + " " + path);
        }
    }
    for (const auto& [title, path] : served.paths) {
        if (!paths.contains(title)) {
            changes.push_back(title + " is not routed any more");
        }
    }
    if (changes.empty() && served.was_settled) {
        tell_put_back(served, count_put(result.taken));
    }
    if (changes.size() > most_told_routes) {
        journal_.say(Level::information, std::to_string(changes.size()) + " routes changed");
    } else {
        for (const std::string& change : changes) {
            journal_.say(Level::information, change);
        }
    }
    served.paths = std::move(paths);
}

/// What stood as planned has been put again, though the plan is the same.
void Routing::tell_put_back(Served& served, std::ptrdiff_t steps) const {
    const std::int64_t now = boottime_ms();
    const bool is_told =
        served.put_back_told_ms && now - *served.put_back_told_ms < put_back_told_every_ms;
    if (steps == 0 || is_told) {
        return;
    }
    served.put_back_told_ms = now;
    journal_.say(Level::notice,
                 place_of(served.kernel.name()) +
                     "routes of ours were gone or changed, by another program or with their link, "
                     "and were put back (" +
                     std::to_string(steps) +
                     " steps); busy flows may have moved; who does that: ip monitor route nexthop "
                     "link");
}

/// Gives the routes to bird, once all of them are known, and adds what is wrong with that. True
/// where bird has taken them over.
bool Routing::hand_to_bird(const Served& served, const ServedNamespace::Result& result,
                           Journal::Problems& problems) {
    if (!result.is_whole() || result.is_uncertain || !served.kernel.knows_fragments()) {
        return false;
    }
    const Bird2Text made = bird2_text_of_plan(result.view.wanted.routes, served.kernel.fragments());
    for (const std::string& left_out : made.left_out) {
        problems[left_out] = Level::warning;
    }
    if (!result.view.kernel.routes.empty()) {
        problems
            ["routes of an earlier lbroute without --bird2 stand in the way of bird's: stop "
             "lbroute, then lbroute --once --flush"] = Level::error;
    }
    const std::string refusal = bird_.put(made.text);
    if (!refusal.empty()) {
        problems[refusal] = Level::error;
    }
    return refusal.empty();
}

std::vector<std::string> Routing::flush_bird() {
    const std::string refusal = bird_.put(bird2_text({}, {}).text);
    return refusal.empty() ? std::vector<std::string>{} : std::vector{refusal};
}

void Routing::forget_flows(Served& served, const std::vector<Address>& addresses) {
    if (options_.keeps_flows || addresses.empty()) {
        return;
    }
    const FlowTable::Result flows = served.kernel.forget_flows(addresses);
    const std::string where = place_of(served.kernel.name());
    Journal::Problems problems;
    if (!flows.problem.empty()) {
        problems[where + "translated flows of a lost uplink stay: " + flows.problem] =
            Level::warning;
    }
    journal_.tell("flows " + served.kernel.name(), problems);
    if (flows.deleted > 0) {
        std::string text;
        for (const Address& address : addresses) {
            text += (text.empty() ? "" : ", ") + address.text();
        }
        journal_.say(Level::information, where + "forgot " + std::to_string(flows.deleted) +
                                             " flows translated to " + text +
                                             ": their uplink left its last route");
    }
}

}  // namespace lbroute

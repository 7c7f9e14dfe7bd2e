#include "lbroute/findings.h"

#include <algorithm>

#include "lbroute/commands.h"

namespace lbroute {

namespace {

std::string hop_text(const PlannedHop& hop) {
    return "via " + hop.gateway.text() + (hop.interface.empty() ? "" : " dev " + hop.interface);
}

void add_hop_problem(Journal::Problems& problems, const PlannedHop& hop, const std::string& where) {
    const std::string what = where + hop_text(hop);
    switch (hop.state) {
        case HopState::routed:
            return;
        case HopState::refused:
            problems[what + " is left out of its routes, the kernel refuses it: " + hop.reason] =
                Level::warning;
            return;
        case HopState::no_interface:
            problems[what + " is left out of its routes: " + hop.reason] = Level::warning;
            return;
        case HopState::no_carrier:
            problems[what + " is out of its routes: " + hop.reason] = Level::notice;
            return;
        case HopState::held:
            problems[what + " is out of its routes: " + hop.interface + " is held"] = Level::notice;
            return;
        case HopState::last_though_held:
            problems[what + " stays though " + hop.interface +
                     " is held: it is the last next hop of a route (lbroute hold --force takes it "
                     "away too)"] = Level::warning;
            return;
    }
}

}  // namespace

std::string title_of(const PlannedRoute& route, const std::string& namespace_name) {
    const std::string where = namespace_name.empty() ? "" : "namespace " + namespace_name + ": ";
    return where + std::string(name_of(route.prefix.address.family)) + " " + route.prefix.text();
}

std::string path_text(const PlannedRoute& route) {
    std::string text;
    if (!route.refusal.empty()) {
        return no_path;
    }
    for (const PlannedHop* hop : route.routed()) {
        text +=
            (text.empty() ? "" : ", ") + hop_text(*hop) + " weight " + std::to_string(hop->weight);
    }
    return text.empty() ? no_path : text;
}

const char* word_of(HopState state) {
    switch (state) {
        case HopState::routed:
            return "routed";
        case HopState::last_though_held:
            return "held, but the last one";
        case HopState::held:
            return "held";
        case HopState::no_interface:
            return "no interface";
        case HopState::no_carrier:
            return "no carrier";
        case HopState::refused:
            return "refused";
    }
    return "";
}

const char* word_of(Mode mode) {
    switch (mode) {
        case Mode::sticky:
            return "sticky";
        case Mode::group:
            return "group";
        case Mode::plain:
            return "plain";
    }
    return "";
}

Journal::Problems problems_of_listing(const std::string& problem,
                                      const std::string& namespace_name) {
    const std::string where = namespace_name.empty() ? "" : "namespace " + namespace_name + ": ";
    return {{where + "the kernel does not tell its " + problem + "; routes stay as they are",
             Level::error}};
}

std::string unwatched_text(const FragmentFile& fragment, const std::string& namespace_name,
                           const Uplinks& uplinks) {
    const std::size_t routes = fragment.in_force() ? fragment.in_force()->routes.size() : 0;
    if (routes == 0 || uplinks.watched.contains({namespace_name, fragment.family()})) {
        return "";
    }
    return fragment.path() + " has routes (" + std::to_string(routes) +
           ") that lb does not watch, as the configuration has no " +
           std::string(name_of(fragment.family())) +
           " rule with an uplink there: they end with: truncate -s 0 " + fragment.path();
}

Journal::Problems problems_of(const View& view, const std::string& namespace_name) {
    if (!view.problem.empty()) {
        return problems_of_listing(view.problem, namespace_name);
    }
    Journal::Problems problems;
    const std::string where = namespace_name.empty() ? "" : "namespace " + namespace_name + ": ";
    for (const PlannedRoute& route : view.wanted.routes) {
        const std::string title = title_of(route, namespace_name);
        for (const PlannedHop& hop : route.hops) {
            add_hop_problem(problems, hop, where);
        }
        const auto shadows = shadowing(route, view);
        const KernelRoute* other = standing_in_place(route, view.foreign);
        const bool is_beside_ours = std::ranges::find(shadows, other) != shadows.end();
        if (!route.refusal.empty() && other != nullptr && !is_beside_ours) {
            problems[title + " is not routed: a route of others stands there, which ends with: " +
                     removal_command(*other, view.kernel, namespace_name)] = Level::error;
        } else if (!route.refusal.empty()) {
            problems[title + " is not as it should be, the kernel refuses it: " + route.refusal +
                     (other == nullptr ? ""
                                       : ", which ends with: " +
                                             removal_command(*other, view.kernel,
                                                             namespace_name))] = Level::error;
        } else if (route.routed().empty()) {
            problems[title + " is not routed: none of its next hops can be used"] = Level::error;
        }
        for (const KernelRoute* shadow : shadows) {
            const char* const metric =
                shadow->priority == route.priority ? "the same metric" : "a lower metric";
            problems[title + " is shadowed by a route of others with " + metric +
                     ", which ends with: " +
                     removal_command(*shadow, view.kernel, namespace_name)] = Level::warning;
        }
    }
    return problems;
}

}  // namespace lbroute

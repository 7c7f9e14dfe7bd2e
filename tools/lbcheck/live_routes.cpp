#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "lbcheck/live_judge.h"

namespace lbcheck {

namespace {

enum class Kind { lbroute, bird, newer_bird, silent_bird, other_family, unknown };

Kind kind_of(const RouterFacts& router) {
    if (router.process == "lbroute") {
        return Kind::lbroute;
    }
    if (router.process != "bird" && router.process != "bird6") {
        return Kind::unknown;
    }
    if (router.version.empty()) {
        return Kind::silent_bird;
    }
    if (router.version.find(" 1.") == std::string::npos) {
        return Kind::newer_bird;
    }
    // Of bird 1.6 each family has a program of its own; a later one has both in one.
    const bool is_of_family = (router.process == "bird6") == router.is_ipv6;
    if (!is_of_family) {
        return Kind::other_family;
    }
    return router.has_judged ? Kind::bird : Kind::silent_bird;
}

std::string folder_of(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

void judge_router(const LiveFacts& facts, const NamespaceFacts& space, const RouterFacts& router,
                  LiveFindings& findings) {
    const std::string place =
        in_namespace(space.name) +
        (router.is_ipv6 ? "routing daemon of IPv6" : "routing daemon of IPv4");
    const std::string folder = folder_of(router.fragment_path);
    if (!router.has_folder) {
        findings.add(State::error, place, "there is no folder " + folder + " for its fragment",
                     "mkdir -p " + folder);
    }
    if (router.pid_text.empty()) {
        findings.add(State::error, place,
                     "there is none: " + router.pid_path +
                         " names no process, and nobody is told of new routes",
                     "systemctl enable --now lbroute, or have another one write its number there");
        return;
    }
    const std::string named = router.pid_path + " names process " + router.pid_text;
    if (!router.is_running) {
        findings.add(State::error, place, named + ", which does not run",
                     "systemctl restart lbroute, or whichever routes here");
        return;
    }
    const std::string process = named + " (" + router.process + ")";
    switch (kind_of(router)) {
        case Kind::lbroute:
            findings.add(State::ok, place, process);
            return;
        case Kind::bird:
            if (!router.refusal.empty()) {
                findings.add(State::error, place,
                             process +
                                 ", which refuses its configuration with the fragment in it: " +
                                 router.refusal,
                             "correct what it names in the configuration of lb (lbcheck finds it), "
                             "or let lbroute route");
                return;
            }
            findings.add(State::ok, place, process + ", which takes the fragment");
            return;
        case Kind::newer_bird:
            findings.add(State::error, place,
                         process + ", " + router.version + ", which cannot read fragments",
                         "let lbroute translate: lbroute --bird2 FILE");
            return;
        case Kind::silent_bird:
            findings.add(State::unknown, place,
                         process + ", which could not be asked whether it takes the fragment",
                         facts.is_root ? "look into its log: " + router.process +
                                             " -p, with its own -c, says what it refuses"
                                       : "run it as root");
            return;
        case Kind::other_family:
            findings.add(State::error, place, process + ", which is of the other family",
                         router.is_ipv6 ? "write the number of bird6 there"
                                        : "write the number of bird there");
            return;
        case Kind::unknown:
            findings.add(State::warning, place,
                         process + ", which is no routing daemon that is known here",
                         "see that it reads " + router.fragment_path + " on SIGHUP");
            return;
    }
}

std::string title_of(const NamespaceFacts& space, lbroute::Family family,
                     const std::string& prefix) {
    return in_namespace(space.name) + "route " + prefix + " (" + std::string(name_of(family)) + ")";
}

std::string all_of(const std::vector<std::string>& commands) {
    std::string text;
    for (const std::string& one : commands) {
        text += (text.empty() ? "" : " && ") + one;
    }
    return text;
}

bool is_served_by_lbroute(const NamespaceFacts& space, bool is_ipv6) {
    return std::none_of(space.routers.begin(), space.routers.end(), [&](const RouterFacts& one) {
        return one.is_ipv6 == is_ipv6 && one.is_running && one.process != "lbroute";
    });
}

/// Of a fragment that could be read.
bool is_without_routes(const lbroute::ReportedNamespace& reported, const RouterFacts& router) {
    const bool is_read =
        std::ranges::any_of(reported.fragments, [&](const lbroute::ReportedFragment& one) {
            return one.path == router.fragment_path && one.state == "read" && one.problems.empty();
        });
    const auto family = router.is_ipv6 ? lbroute::Family::ipv6 : lbroute::Family::ipv4;
    return is_read &&
           std::ranges::none_of(reported.routes, [family](const lbroute::ReportedRoute& one) {
               return one.family == family && one.state != "leftover";
           });
}

/// A route of lbroute, as `lbroute status` has it.
void judge_own(const NamespaceFacts& space, const lbroute::ReportedRoute& route,
               LiveFindings& findings) {
    const std::string place = title_of(space, route.family, route.prefix);
    if (!route.in_place.empty()) {
        findings.add(State::error, place, "a route of others stands in its place", route.in_place);
    } else if (!route.shadowed_by.empty()) {
        findings.add(State::error, place,
                     "a route of others with a lower metric, or the same, is used instead",
                     all_of(route.shadowed_by));
    } else if (!route.agrees()) {
        findings.add(State::error, place,
                     "the kernel has it otherwise than the fragment (" + route.state + ")" +
                         (route.refusal.empty() ? "" : ", and refuses it: " + route.refusal),
                     "systemctl restart lbroute; lbroute status tells more");
    } else {
        findings.add(State::ok, place, "the kernel routes as the fragment asks");
    }
    for (const lbroute::ReportedHop& hop : route.hops) {
        if (hop.state != "routed" && hop.state != "leftover") {
            findings.add(State::warning, place,
                         "next hop " + hop.gateway + " is not used: " + hop.state +
                             (hop.reason.empty() ? "" : ", " + hop.reason),
                         "lbroute status");
        }
    }
}

/// A route that another routing daemon should have made.
void judge_others(const NamespaceFacts& space, const lbroute::ReportedRoute& wanted,
                  LiveFindings& findings) {
    const std::string place = title_of(space, wanted.family, wanted.prefix);
    if (wanted.state == "leftover") {
        findings.add(State::warning, place, "lbroute left it, and another daemon routes here",
                     "lbroute --once --flush");
        return;
    }
    std::set<std::string> gateways;
    for (const lbroute::ReportedHop& hop : wanted.hops) {
        gateways.insert(hop.gateway);
    }
    const lbroute::KernelRoute* first = nullptr;
    bool is_there = false;
    for (const lbroute::KernelRoute& route : space.routes) {
        if (route.prefix.text() != wanted.prefix) {
            continue;
        }
        std::set<std::string> used;
        for (const lbroute::PathHop& hop : route.hops) {
            used.insert(hop.gateway ? hop.gateway->text() : "");
        }
        is_there = is_there || used == gateways;
        if (first == nullptr || route.priority < first->priority) {
            first = &route;
            if (used != gateways) {
                continue;
            }
        }
    }
    if (first == nullptr || !is_there) {
        findings.add(State::error, place,
                     first == nullptr
                         ? "the kernel has none: the routing daemon did not take it over"
                         : "the kernel routes it otherwise than the fragment asks",
                     "look into the routing daemon's log, and have it read its configuration anew");
        return;
    }
    std::set<std::string> used;
    for (const lbroute::PathHop& hop : first->hops) {
        used.insert(hop.gateway ? hop.gateway->text() : "");
    }
    if (used != gateways) {
        findings.add(State::error, place, "a route of others with a lower metric is used instead",
                     within(space.name, std::string("ip ") +
                                            (wanted.family == lbroute::Family::ipv6 ? "-6 " : "") +
                                            "route del " + wanted.prefix + " metric " +
                                            std::to_string(first->priority)));
        return;
    }
    findings.add(State::ok, place, "the kernel routes as the fragment asks");
}

}  // namespace

void judge_routers(const LiveFacts& facts, const NamespaceFacts& space, LiveFindings& findings) {
    for (const RouterFacts& router : space.routers) {
        judge_router(facts, space, router, findings);
    }
}

namespace {

/// What lbroute left where the configuration has no uplink any more.
void judge_left_behind(const LiveFacts& facts, LiveFindings& findings) {
    for (const lbroute::ReportedNamespace& one : facts.routes.namespaces) {
        if (std::ranges::find(facts.namespaces, one.name, &NamespaceFacts::name) !=
            facts.namespaces.end()) {
            continue;
        }
        const std::string place = in_namespace(one.name) + "routes";
        if (!one.not_served.empty()) {
            findings.add(State::error, place, one.not_served, "lbroute status tells more");
        }
        for (const lbroute::ReportedFragment& fragment : one.fragments) {
            for (const std::string& problem : fragment.problems) {
                findings.add(State::error, place, problem, "lbroute status tells more");
            }
        }
    }
}

}  // namespace

void judge_lbroute(const LiveFacts& facts, LiveFindings& findings) {
    judge_left_behind(facts, findings);
    if (!facts.routes.is_running) {
        return;
    }
    for (const std::string& problem : facts.routes.problems) {
        findings.add(State::warning, "lbroute", problem, "lbroute status tells more");
    }
    if (!facts.routes.daemon.bird2_file.empty()) {
        findings.add(State::unknown, "routes",
                     "bird writes them from " + facts.routes.daemon.bird2_file,
                     "birdc show route protocol lbroute4, and lbroute6");
    }
}

void judge_routes(const LiveFacts& facts, const NamespaceFacts& space, LiveFindings& findings) {
    for (const lbroute::ReportedNamespace& reported : facts.routes.namespaces) {
        if (reported.name != space.name) {
            continue;
        }
        const std::string place = in_namespace(space.name) + "routes";
        if (!reported.problem.empty() || !space.routes_problem.empty()) {
            findings.add(State::unknown, place,
                         reported.problem.empty() ? space.routes_problem : reported.problem,
                         "run it as root");
            continue;
        }
        for (const lbroute::ReportedFragment& fragment : reported.fragments) {
            for (const std::string& problem : fragment.problems) {
                findings.add(State::error, place, problem, "lbcheck " + facts.configuration);
            }
        }
        for (const RouterFacts& router : space.routers) {
            if (is_without_routes(reported, router)) {
                findings.add(
                    State::warning, place,
                    router.fragment_path + " holds no route: no uplink of a rule is active",
                    "lbshow interfaces");
            }
            if (!router.has_fragment) {
                findings.add(State::unknown, place,
                             router.fragment_path +
                                 " is not there: no uplink was active since the daemon's start",
                             "lbshow interfaces");
            }
        }
        for (const lbroute::ReportedRoute& route : reported.routes) {
            if (is_served_by_lbroute(space, route.family == lbroute::Family::ipv6)) {
                judge_own(space, route, findings);
            } else {
                judge_others(space, route, findings);
            }
        }
    }
}

}  // namespace lbcheck

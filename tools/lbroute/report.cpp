#include "lbroute/report.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <set>

#include "lbroute/commands.h"
#include "lbroute/findings.h"
#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using nlohmann::json;

using HopPlace = std::pair<Address, int>;

/// One hop of a route as it stands in the kernel.
struct StandingHop {
    int weight = 0;
    std::optional<int> buckets;
};

struct StandingRoute {
    std::string mode;
    std::map<HopPlace, StandingHop> hops;
};

StandingRoute standing_route(const KernelRoute& route, const KernelState& kernel,
                             const BucketsOf& buckets_of) {
    StandingRoute standing;
    const Group* group = kernel.group(route.group_id);
    if (group == nullptr) {
        standing.mode = word_of(Mode::plain);
        for (const PathHop& hop : route.hops) {
            standing.hops[{hop.gateway.value_or(Address{}), hop.link}].weight += hop.weight;
        }
        return standing;
    }
    standing.mode = word_of(group->is_resilient ? Mode::sticky : Mode::group);
    // Each object of a next hop has the whole of its weight.
    for (const GroupEntry& entry : group->entries) {
        if (const HopObject* hop = kernel.hop(entry.id)) {
            standing.hops[{hop->gateway, hop->link}].weight = entry.weight;
        }
    }
    if (group->is_resilient) {
        for (const auto& [id, count] : buckets_of(group->id)) {
            if (const HopObject* hop = kernel.hop(id)) {
                StandingHop& place = standing.hops[{hop->gateway, hop->link}];
                place.buckets = place.buckets.value_or(0) + count;
            }
        }
        for (auto& [place, hop] : standing.hops) {
            hop.buckets = hop.buckets.value_or(0);
        }
    }
    return standing;
}

/// What of the route's flows leads there: by buckets where there are, else by weight.
void add_shares(std::vector<ReportedHop>& hops, const std::vector<const StandingHop*>& standing) {
    const auto measure = [](const StandingHop& hop) { return hop.buckets.value_or(hop.weight); };
    double total = 0;
    for (const StandingHop* hop : standing) {
        total += hop == nullptr ? 0 : measure(*hop);
    }
    for (std::size_t i = 0; i < hops.size(); ++i) {
        if (standing[i] != nullptr && total > 0) {
            hops[i].buckets = standing[i]->buckets;
            hops[i].share_percent = 100.0 * measure(*standing[i]) / total;
        }
    }
}

/// Whether two lists of weights are in the same proportions.
bool are_proportional(const std::vector<int>& one, const std::vector<int>& other) {
    for (std::size_t i = 1; i < one.size(); ++i) {
        if (static_cast<std::int64_t>(one[0]) * other[i] !=
            static_cast<std::int64_t>(one[i]) * other[0]) {
            return false;
        }
    }
    return true;
}

std::string link_name(int index, const KernelState& kernel) {
    const Link* link = kernel.link(index);
    return link == nullptr ? std::string("interface ").append(std::to_string(index)) : link->name;
}

ReportedRoute base_of(const PlannedRoute& route) {
    ReportedRoute reported;
    reported.prefix = route.prefix.text();
    reported.family = route.prefix.address.family;
    reported.metric = route.priority;
    reported.table = route.table;
    return reported;
}

/// Compares a planned route with the one that stands, hop by hop; false where they differ.
bool compare_hops(ReportedRoute& reported, const PlannedRoute& route, const StandingRoute& standing,
                  const KernelState& kernel) {
    std::vector<const StandingHop*> found;
    std::set<HopPlace> planned;
    bool is_same = true;
    for (const PlannedHop& hop : route.hops) {
        const HopPlace place{hop.gateway, hop.link};
        const auto stands = standing.hops.find(place);
        const bool is_there = stands != standing.hops.end();
        planned.insert(place);
        ReportedHop& shown = reported.hops.emplace_back();
        shown.gateway = hop.gateway.text();
        shown.interface = hop.interface;
        shown.weight = hop.weight;
        shown.state = hop.is_routed() && !is_there ? "missing" : word_of(hop.state);
        shown.reason = hop.reason;
        found.push_back(is_there ? &stands->second : nullptr);
        is_same &= hop.is_routed() == is_there;
    }
    for (const auto& [place, hop] : standing.hops) {
        if (!planned.contains(place)) {
            ReportedHop& shown = reported.hops.emplace_back();
            shown.gateway = place.first.text();
            shown.interface = link_name(place.second, kernel);
            shown.weight = hop.weight;
            shown.state = "leftover";
            found.push_back(&hop);
            is_same = false;
        }
    }
    add_shares(reported.hops, found);
    if (!is_same) {
        return false;
    }
    const auto routed = route.routed();
    std::vector<int> weights;
    for (const PlannedHop* hop : routed) {
        weights.push_back(standing.hops.at({hop->gateway, hop->link}).weight);
    }
    const Group* group = kernel.group(route.group_id);
    return are_proportional(kernel_weights(routed, group == nullptr ? 0 : group->buckets), weights);
}

/// Whether the fragment asks for something that nobody means to leave out.
bool lacks_hops(const PlannedRoute& route) {
    return std::ranges::any_of(route.hops, [](const PlannedHop& hop) {
        return hop.state == HopState::refused || hop.state == HopState::no_interface;
    });
}

std::string dash_if_empty(const std::string& text) {
    return text.empty() ? "-" : text;
}

std::string percent(double share) {
    char text[16];
    snprintf(text, sizeof text, "%.1f %%", share);
    return text;
}

/// Lines of columns, each as wide as its widest entry.
std::string columns(const std::vector<std::vector<std::string>>& rows, const std::string& indent) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line = indent;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

std::string route_text(const ReportedRoute& route) {
    std::string text = std::string(name_of(route.family)) + " " + route.prefix;
    text += "  metric " + std::to_string(route.metric) + "  ";
    text += route.state + (route.mode.empty() ? "" : "  " + route.mode) + "\n";
    std::vector<std::vector<std::string>> rows;
    for (const ReportedHop& hop : route.hops) {
        rows.push_back({"via " + hop.gateway, "dev " + dash_if_empty(hop.interface),
                        "weight " + std::to_string(hop.weight),
                        hop.share_percent ? percent(*hop.share_percent) : "-",
                        hop.buckets ? std::to_string(*hop.buckets) + " buckets" : "",
                        hop.reason.empty() ? hop.state : hop.state + ": " + hop.reason});
    }
    text += columns(rows, "    ");
    if (!route.refusal.empty()) {
        text += "    refused: " + route.refusal + "\n";
    }
    if (!route.in_place.empty()) {
        text +=
            "    in its place stands a route of others, which ends with: " + route.in_place + "\n";
    }
    for (const std::string& command : route.shadowed_by) {
        text +=
            "    shadowed by a route of others with a lower metric or the same, which ends with: " +
            command + "\n";
    }
    return text;
}

std::string namespace_text(const ReportedNamespace& one) {
    std::string text;
    if (!one.name.empty()) {
        text += "namespace " + one.name + "\n";
    }
    if (!one.problem.empty()) {
        text += "not looked at: " + one.problem + "\n";
    }
    if (!one.not_served.empty()) {
        text += "not served: " + one.not_served + "\n";
    }
    for (const ReportedFragment& fragment : one.fragments) {
        if (fragment.state != "read") {
            text += fragment.path + ": " + fragment.state + "\n";
        }
        for (const std::string& problem : fragment.problems) {
            text += problem + "\n";
        }
    }
    for (const ReportedRoute& route : one.routes) {
        text += route_text(route);
    }
    return text;
}

std::string hold_line(const Hold& hold, std::int64_t now_ms) {
    std::string text = "held: " + hold.interface + " " + std::string(name_of(hold.family));
    if (!hold.namespace_name.empty()) {
        text += " in namespace " + hold.namespace_name;
    }
    text += hold.until_ms ? " for " + span_text(*hold.until_ms - now_ms) : " until it is released";
    return text + (hold.is_forced ? ", also as the last next hop\n" : "\n");
}

json json_of(const ReportedHop& hop) {
    json shown{{"gateway", hop.gateway},
               {"interface", hop.interface},
               {"weight", hop.weight},
               {"state", hop.state},
               {"reason", hop.reason}};
    shown["buckets"] = hop.buckets ? json(*hop.buckets) : json();
    shown["share_percent"] = hop.share_percent ? json(*hop.share_percent) : json();
    return shown;
}

json json_of(const ReportedRoute& route) {
    json hops = json::array();
    for (const ReportedHop& hop : route.hops) {
        hops.push_back(json_of(hop));
    }
    return {{"prefix", route.prefix},
            {"family", route.family == Family::ipv4 ? 4 : 6},
            {"metric", route.metric},
            {"table", route.table},
            {"state", route.state},
            {"mode", route.mode},
            {"refusal", route.refusal},
            {"in_place", route.in_place},
            {"shadowed_by", route.shadowed_by},
            {"hops", hops}};
}

json json_of(const ReportedNamespace& one) {
    json fragments = json::array();
    for (const ReportedFragment& fragment : one.fragments) {
        fragments.push_back(
            {{"path", fragment.path}, {"state", fragment.state}, {"problems", fragment.problems}});
    }
    json routes = json::array();
    for (const ReportedRoute& route : one.routes) {
        routes.push_back(json_of(route));
    }
    return {{"name", one.name},       {"agrees", one.agrees()},
            {"problem", one.problem}, {"not_served", one.not_served},
            {"fragments", fragments}, {"routes", routes}};
}

}  // namespace

bool ReportedNamespace::agrees() const {
    return problem.empty() && not_served.empty() &&
           std::ranges::all_of(fragments,
                               [](const ReportedFragment& one) {
                                   return one.problems.empty() &&
                                          (one.state == "read" || one.state == "missing");
                               }) &&
           std::ranges::all_of(routes, &ReportedRoute::agrees);
}

bool Report::has_fragments() const {
    return std::ranges::any_of(namespaces, [](const ReportedNamespace& one) {
        return std::ranges::any_of(one.fragments, [](const ReportedFragment& fragment) {
            return fragment.state != "missing";
        });
    });
}

bool Report::agrees() const {
    return has_fragments() && problems.empty() &&
           std::ranges::all_of(namespaces, &ReportedNamespace::agrees);
}

std::vector<ReportedRoute> reported_routes(const View& view, const DaemonRecord& daemon,
                                           const std::string& namespace_name,
                                           const BucketsOf& buckets_of) {
    std::vector<ReportedRoute> routes;
    std::vector<const KernelRoute*> planned;
    for (PlannedRoute route : view.wanted.routes) {
        ReportedRoute& reported = routes.emplace_back(base_of(route));
        const auto stands = std::ranges::find_if(view.kernel.routes, [&](const KernelRoute& one) {
            return one.is_at_place_of(route.place());
        });
        StandingRoute standing;
        const bool is_there = stands != view.kernel.routes.end();
        if (is_there) {
            planned.push_back(&*stands);
            route.group_id = stands->group_id;
            standing = standing_route(*stands, view.kernel, buckets_of);
            reported.mode = standing.mode;
        }
        const bool is_same =
            compare_hops(reported, route, standing, view.kernel) && !lacks_hops(route);
        reported.state = !is_there ? "missing" : is_same ? "ok" : "differs";
        const auto refused = daemon.refused_routes.find({namespace_name, reported.prefix});
        if (!is_same && refused != daemon.refused_routes.end()) {
            reported.refusal = refused->second;
        }
        const KernelRoute* other = standing_in_place(route, view.foreign);
        if (!is_there && other != nullptr) {
            reported.in_place = removal_command(*other, view.kernel, namespace_name);
        }
        for (const KernelRoute* shadow : shadowing(route, view)) {
            reported.shadowed_by.push_back(removal_command(*shadow, view.kernel, namespace_name));
        }
        if (reported.state == "ok" && !reported.shadowed_by.empty()) {
            reported.state = "shadowed";
        }
    }
    for (const KernelRoute& route : view.kernel.routes) {
        if (std::ranges::find(planned, &route) != planned.end()) {
            continue;
        }
        PlannedRoute nothing;
        nothing.prefix = route.prefix;
        nothing.table = route.table;
        nothing.priority = route.priority;
        ReportedRoute& reported = routes.emplace_back(base_of(nothing));
        const StandingRoute standing = standing_route(route, view.kernel, buckets_of);
        reported.mode = standing.mode;
        compare_hops(reported, nothing, standing, view.kernel);
        reported.state = "leftover";
    }
    return routes;
}

std::string span_text(std::int64_t span_ms) {
    const std::int64_t seconds = std::max<std::int64_t>(0, (span_ms + 999) / 1000);
    struct Unit {
        std::int64_t seconds;
        char letter;
    };
    std::string text;
    std::int64_t rest = seconds;
    int told = 0;
    for (const Unit unit : {Unit{86400, 'd'}, Unit{3600, 'h'}, Unit{60, 'm'}, Unit{1, 's'}}) {
        const std::int64_t count = rest / unit.seconds;
        rest %= unit.seconds;
        if ((count > 0 || (unit.seconds == 1 && told == 0)) && told < 2) {
            text.append(text.empty() ? "" : " ").append(std::to_string(count));
            text += unit.letter;
            ++told;
        }
    }
    return text;
}

std::string report_text(const Report& report) {
    std::string text = report.is_running ? std::string("lbroute runs as process ")
                                               .append(std::to_string(report.daemon.pid))
                                               .append("\n")
                                         : "lbroute does not run\n";
    const bool is_for_bird = report.is_running && !report.daemon.bird2_file.empty();
    if (is_for_bird) {
        text += "bird writes the routes, by " + report.daemon.bird2_file +
                "; what it made of it: birdc show route protocol lbroute4 (and lbroute6)\n";
    }
    for (const std::string& problem : report.problems) {
        text += problem + "\n";
    }
    for (const Hold& hold : report.holds) {
        text += hold_line(hold, report.now_ms);
    }
    for (const ReportedNamespace& one : report.namespaces) {
        text += namespace_text(one);
    }
    if (is_for_bird) {
        return text + (report.agrees() ? "bird was given what the fragments ask for.\n"
                                       : "bird was not given what the fragments ask for.\n");
    }
    if (!report.has_fragments()) {
        return text + "There is no fragment: lb has not written any routes yet.\n";
    }
    return text + (report.agrees() ? "The kernel routes as the fragments ask.\n"
                                   : "The kernel does not route as the fragments ask.\n");
}

std::string report_json(const Report& report) {
    json holds = json::array();
    for (const Hold& hold : report.holds) {
        holds.push_back({{"interface", hold.interface},
                         {"family", hold.family == Family::ipv4 ? 4 : 6},
                         {"namespace", hold.namespace_name},
                         {"forced", hold.is_forced},
                         {"seconds_left",
                          hold.until_ms ? json((*hold.until_ms - report.now_ms) / 1000) : json()}});
    }
    json namespaces = json::array();
    for (const ReportedNamespace& one : report.namespaces) {
        namespaces.push_back(json_of(one));
    }
    const json shown{{"running", report.is_running},
                     {"pid", report.is_running ? json(report.daemon.pid) : json()},
                     {"bird2_file", report.is_running ? report.daemon.bird2_file : ""},
                     {"agrees", report.agrees()},
                     {"problems", report.problems},
                     {"holds", holds},
                     {"namespaces", namespaces}};
    return shown.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace lbroute

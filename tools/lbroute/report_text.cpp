#include "lbroute/report_text.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using nlohmann::json;

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
    for (const std::string& other : report.others) {
        text += other + ", which is taken for the routing daemon there\n";
    }
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
        return text +
               "There is no fragment: where lb runs, no uplink was active since its start.\n";
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
                     {"others", report.others},
                     {"agrees", report.agrees()},
                     {"problems", report.problems},
                     {"holds", holds},
                     {"namespaces", namespaces}};
    return shown.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace lbroute

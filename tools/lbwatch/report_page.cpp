#include "lbwatch/report_page.h"

#include <algorithm>
#include <cstdint>
#include <optional>

#include "lbwatch/drawing.h"
#include "lbwatch/moment.h"

namespace lbwatch {

namespace {

std::string figure(const char* name, const std::string& value) {
    return std::string("<div><dt>") + name + "</dt><dd>" + escaped(value) + "</dd></div>";
}

std::string length(std::int64_t length_ms) {
    return length_text(length_ms / 1000);
}

std::string length(const std::optional<std::int64_t>& length_ms) {
    return length_ms ? length(*length_ms) : "-";
}

std::string figures(const UplinkReport& uplink, const Report& report) {
    const std::int64_t watched_ms = uplink.active_ms + uplink.failed_ms;
    const std::int64_t period_ms = std::max<std::int64_t>(1, report.until_ms - report.since_ms);
    return "<dl class=\"figures\">" + figure("Down", length(uplink.failed_ms)) +
           figure("Outages", std::to_string(uplink.outages.size())) +
           figure("Longest", uplink.outages.empty() ? "-" : length(uplink.longest_ms)) +
           figure("Flaps", std::to_string(uplink.flaps)) +
           figure("Mean between", length(uplink.mean_between_ms)) +
           figure("Mean to repair", length(uplink.mean_repair_ms)) +
           figure("Watched", percent_text(100.0 * static_cast<double>(watched_ms) /
                                          static_cast<double>(period_ms))) +
           "</dl>";
}

std::string availability_text(const UplinkReport& uplink) {
    const auto availability = uplink.availability();
    return availability ? percent_text(*availability) : "unknown";
}

}  // namespace

std::string uplink_card(const UplinkReport& uplink, const Report& report, const std::string& state,
                        const std::string& details, std::size_t most_outages) {
    const std::string name = text_of(uplink.uplink);
    const std::string label = name + ": available " + availability_text(uplink) + ", " +
                              std::to_string(uplink.outages.size()) + " outages";
    std::string text = "<section class=\"card\" data-uplink=\"" + escaped(uplink.uplink.name) +
                       "\"><header><h2>" + escaped(uplink.uplink.name) +
                       "</h2><span class=\"sub\">IPv" + std::to_string(uplink.uplink.family);
    if (!uplink.uplink.namespace_name.empty()) {
        text += ", namespace " + escaped(uplink.uplink.namespace_name);
    }
    text += "</span>" + state + "<span class=\"big availability\">" + availability_text(uplink) +
            "</span></header>" + details + band(uplink, report.since_ms, report.until_ms, label) +
            time_axis(report.since_ms, report.until_ms) + figures(uplink, report);
    for (const TargetReport& target : uplink.targets) {
        const std::string drawn = chart(target, report.since_ms, report.until_ms);
        text += drawn.empty() ? "" : drawn + time_axis(report.since_ms, report.until_ms);
    }
    return text + hour_bars(uplink) + outage_table(uplink, most_outages) + "</section>\n";
}

std::string html_of(const Report& report) {
    std::string text = page_head("Uplink report", false) +
                       "<body>\n<header class=\"top\"><h1>Uplink report</h1><p class=\"sub\">" +
                       local_time(report.since_ms) + " to " + local_time(report.until_ms) + " (" +
                       escaped(report.zone) + "), " +
                       length_text((report.until_ms - report.since_ms) / 1000) + "</p>" + legend() +
                       "</header>\n<main>\n";
    for (const UplinkReport& uplink : report.uplinks) {
        text += uplink_card(uplink, report, "", "", 1000);
    }
    if (report.uplinks.empty()) {
        text += "<p class=\"none\">Nothing was watched in this time.</p>\n";
    }
    return text +
           "</main>\n<footer><p>Availability is the share of the time in which the uplink was seen "
           "active, of the time in which it was seen active or failed. Times when nothing was "
           "watched, or the router had not judged yet, count as neither. An uplink is failed when "
           "its targets did not answer as often in a row as the router is configured to "
           "allow.</p><p>Made by lbwatch, " +
           local_time(report.made_ms) + ".</p></footer>\n</body>\n</html>\n";
}

}  // namespace lbwatch

// The answer for programs.

#include <cstdint>
#include <optional>
#include <string>

#include "lbsim/report.h"
#include <nlohmann/json.hpp>

namespace lbsim {

namespace {

using Json = nlohmann::ordered_json;

double seconds(std::int64_t duration_us) {
    return static_cast<double>(duration_us) / 1e6;
}

Json seconds_or_null(const std::optional<std::int64_t>& duration_us) {
    return duration_us ? Json(seconds(*duration_us)) : Json();
}

Json event_json(const ObservedChange& told) {
    Json event{{"t", seconds(told.at_us)}};
    switch (told.kind) {
        case ObservedChange::Kind::state:
            event["event"] = "state";
            break;
        case ObservedChange::Kind::target:
            event["event"] = "target";
            break;
        case ObservedChange::Kind::routes:
            event["event"] = "routes";
            break;
    }
    event["uplink"] = told.kind == ObservedChange::Kind::routes ? Json() : Json(told.uplink);
    event["family"] = family_word(told.is_ipv6);
    event["namespace"] = told.ns_name;
    event[told.kind == ObservedChange::Kind::state ? "active" : "up"] = told.is_up;
    event["text"] = told.text;
    return event;
}

const char* condition_word(Condition condition) {
    switch (condition) {
        case Condition::good:
            return "good";
        case Condition::impaired:
            return "impaired";
        case Condition::dead:
            return "dead";
        case Condition::unknown:
            return "unknown";
    }
    return "";
}

Json place_json(const Uplink& uplink) {
    return {{"uplink", uplink.name},
            {"family", family_word(uplink.is_ipv6)},
            {"namespace", uplink.ns_name}};
}

Json row_json(const Story& story, const Row& row) {
    Json json{{"t", seconds(row.at_us)}, {"event", row.event}};
    json.update(place_json(story.uplinks[row.uplink]));
    json["condition"] = condition_word(row.condition);
    json["state_after_s"] = seconds_or_null(row.state_after_us);
    json["route_after_s"] = seconds_or_null(row.route_after_us);
    json["into_dead_s"] = seconds(row.into_dead_us);
    json["left_unused_s"] = seconds(row.left_unused_us);
    json["flaps"] = row.flaps;
    return json;
}

Json uplink_json(const Story& story, std::size_t number) {
    Json json = place_json(story.uplinks[number]);
    const UplinkTotal& total = story.summary.uplinks[number];
    const auto made_up = story.run.made_up_routers.find(shown(story.uplinks[number]));
    json["made_up_router"] =
        made_up == story.run.made_up_routers.end() ? Json() : Json(made_up->second);
    json["active_s"] = seconds(total.active_us);
    json["dead_s"] = seconds(total.dead_us);
    json["unwatched_s"] = seconds(total.unwatched_us);
    json["into_dead_s"] = seconds(total.into_dead_us);
    json["left_unused_s"] = seconds(total.left_unused_us);
    json["changes"] = total.changes;
    json["flaps"] = total.flaps;
    return json;
}

Json summary_json(const Story& story) {
    Json rows = Json::array();
    for (const Row& row : story.summary.rows) {
        rows.push_back(row_json(story, row));
    }
    Json uplinks = Json::array();
    for (std::size_t i = 0; i < story.uplinks.size(); ++i) {
        uplinks.push_back(uplink_json(story, i));
    }
    return {{"configuration", story.configuration},
            {"seconds", seconds(story.run.duration_us)},
            {"seed", story.seed},
            {"cycles", story.run.cycles},
            {"rows", std::move(rows)},
            {"uplinks", std::move(uplinks)}};
}

}  // namespace

std::string json_text(const Story& story, const Story* other) {
    Json events = Json::array();
    for (const ObservedChange& told : story.run.told) {
        events.push_back(event_json(told));
    }
    Json summary = summary_json(story);
    if (other != nullptr) {
        summary["compared"] = summary_json(*other);
    }
    return Json{{"events", std::move(events)}, {"summary", std::move(summary)}}.dump(
               1, ' ', false, Json::error_handler_t::replace) +
           '\n';
}

}  // namespace lbsim

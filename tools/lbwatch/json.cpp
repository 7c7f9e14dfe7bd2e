#include "lbwatch/json.h"

#include <cstdint>
#include <optional>

#include "lbwatch/moment.h"
#include <nlohmann/json.hpp>

namespace lbwatch {

namespace {

using Json = nlohmann::ordered_json;

Json or_null(const std::string& text) {
    return text.empty() ? Json(nullptr) : Json(text);
}

Json object_of(const Event& event) {
    const bool is_daemon = event.kind == EventKind::daemon;
    return {{"time", rfc3339(event.time_ms)},
            {"event", word_of(event.kind)},
            {"uplink", or_null(event.uplink.name)},
            {"family", is_daemon ? Json(nullptr) : Json(event.uplink.family)},
            {"namespace", is_daemon ? Json(nullptr) : Json(event.uplink.namespace_name)},
            {"target", or_null(event.target)},
            {"rule", or_null(event.rule)},
            {"destinations",
             event.kind == EventKind::routes ? Json(event.destinations) : Json(nullptr)},
            {"from", event.from},
            {"to", event.to},
            {"after_s", event.after_s ? Json(*event.after_s) : Json(nullptr)},
            {"reason", event.reason}};
}

std::string text_of_json(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json or_null(const std::optional<std::int64_t>& length_ms) {
    return length_ms ? Json(*length_ms / 1000) : Json(nullptr);
}

Json or_null(const std::optional<double>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json object_of(const Outage& outage) {
    return {{"begin", rfc3339(outage.begin_ms)},
            {"end", rfc3339(outage.end_ms)},
            {"seconds", (outage.end_ms - outage.begin_ms) / 1000},
            {"begin_seen", outage.is_begin_seen},
            {"end_seen", outage.is_end_seen},
            {"going_on", outage.is_going_on},
            {"reason", outage.reason}};
}

Json object_of(const TargetReport& target) {
    Json points = Json::array();
    for (const Point& point : target.points) {
        points.push_back({{"begin", rfc3339(point.begin_ms)},
                          {"answered", point.answers.answered},
                          {"missed", point.answers.missed},
                          {"loss_percent", or_null(point.loss_percent)},
                          {"rtt_ms", or_null(point.rtt_ms)},
                          {"jitter_ms", or_null(point.jitter_ms)}});
    }
    return {{"target", target.address},
            {"answered", target.answers.answered},
            {"missed", target.answers.missed},
            {"points", std::move(points)}};
}

Json object_of(const UplinkReport& uplink) {
    Json outages = Json::array();
    for (const Outage& outage : uplink.outages) {
        outages.push_back(object_of(outage));
    }
    Json unwatched = Json::array();
    for (const Piece& piece : uplink.pieces) {
        if (piece.known == Known::unwatched) {
            unwatched.push_back(
                {{"begin", rfc3339(piece.begin_ms)}, {"end", rfc3339(piece.end_ms)}});
        }
    }
    Json hours = Json::array();
    for (const Answers& hour : uplink.by_hour) {
        hours.push_back({hour.answered, hour.missed});
    }
    Json targets = Json::array();
    for (const TargetReport& target : uplink.targets) {
        targets.push_back(object_of(target));
    }
    return {{"uplink", uplink.uplink.name},
            {"family", uplink.uplink.family},
            {"namespace", uplink.uplink.namespace_name},
            {"availability_percent", or_null(uplink.availability())},
            {"active_s", uplink.active_ms / 1000},
            {"failed_s", uplink.failed_ms / 1000},
            {"unknown_s", uplink.unknown_ms / 1000},
            {"unwatched_s", uplink.unwatched_ms / 1000},
            {"outages", std::move(outages)},
            {"flaps", uplink.flaps},
            {"longest_s", uplink.longest_ms / 1000},
            {"mean_between_s", or_null(uplink.mean_between_ms)},
            {"mean_repair_s", or_null(uplink.mean_repair_ms)},
            {"unwatched", std::move(unwatched)},
            {"loss_by_hour", std::move(hours)},
            {"targets", std::move(targets)}};
}

Json object_of(const std::string& address, const Target& target) {
    Json quality = nullptr;
    if (target.quality) {
        quality = {{"loss_percent", target.quality->loss_percent},
                   {"rtt_ms", target.quality->rtt_ms},
                   {"jitter_ms", target.quality->jitter_ms},
                   {"loss_limit", target.quality->loss_limit},
                   {"rtt_limit", target.quality->rtt_limit},
                   {"jitter_limit", target.quality->jitter_limit}};
    }
    return {{"target", address}, {"verdict", word_of(target.verdict)}, {"quality", quality}};
}

Json object_of(const UplinkKey& key, const Uplink& uplink, const Moment& now) {
    Json targets = Json::array();
    for (const auto& [address, target] : uplink.targets) {
        targets.push_back(object_of(address, target));
    }
    const auto since_s =
        uplink.is_unwatched ? std::nullopt : seconds_since(uplink.since_boot_ms, now);
    return {{"uplink", key.name},
            {"family", key.family},
            {"namespace", key.namespace_name},
            {"state", word_of(uplink.state)},
            {"since_s", since_s ? Json(*since_s) : Json(nullptr)},
            {"reason", uplink.reason},
            {"routed", uplink.is_routed},
            {"nexthop", or_null(uplink.nexthop)},
            {"targets", std::move(targets)}};
}

}  // namespace

std::string json_of(const Report& report) {
    Json uplinks = Json::array();
    for (const UplinkReport& uplink : report.uplinks) {
        uplinks.push_back(object_of(uplink));
    }
    return text_of_json({{"since", rfc3339(report.since_ms)},
                         {"until", rfc3339(report.until_ms)},
                         {"uplinks", std::move(uplinks)}});
}

std::string json_of(const View& view, const Moment& now) {
    Json uplinks = Json::array();
    for (const auto& [key, uplink] : view.uplinks) {
        uplinks.push_back(object_of(key, uplink, now));
    }
    Json rules = Json::array();
    for (const auto& [key, rule] : view.rules) {
        Json used = Json::object();
        for (const auto& [prefix, names] : rule.used) {
            used[prefix] = names;
        }
        rules.push_back(
            {{"rule", key.name}, {"namespace", key.namespace_name}, {"destinations", used}});
    }
    Json history = nullptr;
    if (!view.history.empty()) {
        const HistoryState& state = view.history_state;
        history = {{"file", view.history},
                   {"written", state.problem.empty()},
                   {"problem", state.problem.empty() ? Json(nullptr) : Json(state.problem)},
                   {"waiting_rows", state.waiting_rows},
                   {"lost_rows", state.lost_rows}};
    }
    const auto age_s = seconds_since(view.last_written_boot_ms, now);
    return text_of_json({{"time", rfc3339(now.wall_ms)},
                         {"daemon", word_of(view.daemon)},
                         {"dump_age_s", age_s ? Json(*age_s) : Json(nullptr)},
                         {"uplinks", std::move(uplinks)},
                         {"rules", std::move(rules)},
                         {"history", std::move(history)}});
}

std::string json_of(const Event& event) {
    return text_of_json(object_of(event));
}

std::string json_of(const std::vector<Event>& events) {
    Json list = Json::array();
    for (const Event& event : events) {
        list.push_back(object_of(event));
    }
    return text_of_json(list);
}

}  // namespace lbwatch

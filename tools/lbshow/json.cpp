#include <optional>
#include <string>
#include <vector>

#include "dumps/freshness.h"
#include "lbshow/views.h"
#include <nlohmann/json.hpp>

namespace lbshow {

namespace {

const char* word_of(dumps::Result result) {
    switch (result) {
        case dumps::Result::none:
            return "none";
        case dumps::Result::answered:
            return "answered";
        case dumps::Result::timed_out:
            return "timed_out";
    }
    return "none";
}

using Json = nlohmann::ordered_json;

Json optional_number(const std::optional<int>& number) {
    return number ? Json(*number) : Json(nullptr);
}

Json json_of(const std::optional<dumps::Quality>& quality) {
    if (!quality) {
        return nullptr;
    }
    return {{"loss_percent", quality->loss_percent}, {"rtt_ms", quality->rtt_ms},
            {"jitter_ms", quality->jitter_ms},       {"loss_limit", quality->loss_limit},
            {"rtt_limit", quality->rtt_limit},       {"jitter_limit", quality->jitter_limit}};
}

Json json_of(const dumps::Probe& probe) {
    return {{"probe", probe.position},          {"type", probe.type()},
            {"target", probe.target},           {"last_result", word_of(probe.last_result)},
            {"success_run", probe.success_run}, {"failure_run", probe.failure_run},
            {"quality", json_of(probe.quality)}};
}

template <class Item>
Json json_list(const std::vector<Item>& items);

Json json_of(const dumps::Interface& one) {
    return {{"name", one.name},
            {"family", one.family},
            {"namespace", one.namespace_name},
            {"active", one.is_active},
            {"routed", one.is_routed},
            {"stale", one.is_stale},
            {"nexthop", one.nexthop},
            {"nexthop_from", one.nexthop_from},
            {"source_address", one.source_address},
            {"since_success_s", optional_number(one.since_success_s)},
            {"since_failure_s", optional_number(one.since_failure_s)},
            {"success_ct", one.success_ct},
            {"failure_ct", one.failure_ct},
            {"state_since_s", one.past ? Json(one.past->since_s) : Json(nullptr)},
            {"state_begin_seen", one.past ? Json(one.past->is_begin_seen) : Json(nullptr)},
            {"flaps_today", one.past ? Json(one.past->flaps_today) : Json(nullptr)},
            {"probes", json_list(one.probes)}};
}

Json json_of(const dumps::Member& member) {
    return {{"interface", member.interface}, {"family", member.family}, {"weight", member.weight}};
}

Json json_of(const dumps::Rule& rule) {
    return {{"name", rule.name()},
            {"number", rule.number},
            {"family", rule.family},
            {"namespace", rule.namespace_name},
            {"failover", rule.is_failover},
            {"stale", rule.is_stale},
            {"members", json_list(rule.members)}};
}

Json json_of(const dumps::NextHop& hop) {
    return {{"nexthop", hop.address}, {"interface", hop.interface}, {"weight", hop.weight}};
}

Json json_of(const dumps::Route& route) {
    return {{"rule", route.rule_name()},
            {"family", route.family},
            {"position", route.position},
            {"prefix", route.prefix},
            {"metric", optional_number(route.metric)},
            {"nexthop", route.nexthop.empty() ? Json(nullptr) : Json(route.nexthop)},
            {"stale", route.is_stale},
            {"nexthops", json_list(route.in_force)}};
}

template <class Item>
Json json_list(const std::vector<Item>& items) {
    Json list = Json::array();
    for (const Item& item : items) {
        list.push_back(json_of(item));
    }
    return list;
}

Json families_of(const dumps::State& state) {
    Json families = Json::object();
    for (const dumps::Family& one : state.families) {
        families[dumps::family_name(one.family)] = {
            {"written", dumps::utc_text(one.oldest.written)},
            {"age_s", one.age_s},
            {"stale", one.is_stale},
            {"stale_after_s", one.limit_s}};
    }
    return families;
}

Json files_of(const dumps::State& state) {
    Json files = Json::object();
    for (const dumps::DumpFile& file : state.files) {
        files[file.name] = {{"written", dumps::utc_text(file.written)},
                            {"age_s", dumps::age_s(file, state.seen)}};
    }
    return files;
}

/// Interfaces whose worker stands still while the family's dump is fresh, also where the list of
/// interfaces has them no more.
Json stalled_of(const dumps::State& state) {
    Json stalled = Json::array();
    for (const dumps::Interface& one : state.unjudged) {
        stalled.push_back({{"name", one.name},
                           {"family", one.family},
                           {"namespace", one.namespace_name},
                           {"judged_s_ago", *dumps::since_judged_s(one)}});
    }
    return stalled;
}

}  // namespace

std::string json(const dumps::State& state, const Selection& selection) {
    Json all = {{"families", families_of(state)},
                {"files", files_of(state)},
                {"stalled", stalled_of(state)},
                {"left_out",
                 {{"interfaces", state.left_out.interfaces},
                  {"rules", state.left_out.rules},
                  {"routes", state.left_out.routes}}}};
    if (selection.interfaces) {
        all["interfaces"] = json_list(state.interfaces);
    }
    if (selection.rules) {
        all["rules"] = json_list(state.rules);
    }
    if (selection.routes) {
        all["routes"] = json_list(state.routes);
    }
    // Bytes that are no UTF-8 come out as U+FFFD rather than as an exception.
    return all.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace lbshow

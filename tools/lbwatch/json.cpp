#include "lbwatch/json.h"

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

}  // namespace

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

#include "lbwatch/uplink_past.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <vector>

#include "lbwatch/history_report.h"
#include "lbwatch/moment.h"

namespace lbwatch {

namespace {

bool is_judged(Known known) {
    return known == Known::active || known == Known::failed;
}

std::int64_t midnight_before(std::int64_t now_ms) {
    const auto seconds = static_cast<time_t>(now_ms / 1000);
    std::tm date{};
    localtime_r(&seconds, &date);
    date.tm_hour = date.tm_min = date.tm_sec = 0;
    date.tm_isdst = -1;
    return std::int64_t{mktime(&date)} * 1000;
}

UplinkKey key_of(const dumps::Interface& item) {
    return {.namespace_name = item.namespace_name, .family = item.family, .name = item.name};
}

}  // namespace

std::optional<dumps::Past> past_of(const UplinkReport& uplink, bool is_active,
                                   std::int64_t midnight_ms) {
    const std::vector<Piece>& pieces = uplink.pieces;
    const Known now = is_active ? Known::active : Known::failed;
    if (pieces.empty() || pieces.back().known != now) {
        return std::nullopt;
    }
    auto first = pieces.rbegin();  // of the pieces in this state
    while (std::next(first) != pieces.rend() && std::next(first)->known == now) {
        ++first;
    }
    dumps::Past past;
    past.since_s = (pieces.back().end_ms - first->begin_ms) / 1000;
    past.is_begin_seen = std::next(first) != pieces.rend() && is_judged(std::next(first)->known);
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        const bool is_flap = is_judged(pieces[i].known) && is_judged(pieces[i - 1].known) &&
                             pieces[i].known != pieces[i - 1].known;
        past.flaps_today += is_flap && pieces[i].begin_ms >= midnight_ms ? 1 : 0;
    }
    return past;
}

std::string read_past(const std::string& history, dumps::State& state) {
    HistoryReader reader(history);
    const std::int64_t now_ms = now().wall_ms;
    const std::int64_t midnight_ms = midnight_before(now_ms);
    const Report all = recent_report_of(reader, midnight_ms, now_ms);
    for (dumps::Interface& one : state.interfaces) {
        const auto found =
            std::find_if(all.uplinks.begin(), all.uplinks.end(),
                         [&one](const auto& uplink) { return uplink.uplink == key_of(one); });
        if (found != all.uplinks.end() && !one.is_stale) {
            one.past = past_of(*found, one.is_active, midnight_ms);
        }
    }
    state.has_history = reader.problem().empty();
    return reader.problem();
}

}  // namespace lbwatch

#include "lbsim/replay.h"

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>
#include <utility>
#include <variant>

#include "lbsim/replay_recorded.h"
#include "lbsim/scenario_text.h"

namespace lbsim {

namespace {

using Path = std::tuple<std::string, bool, std::string>;  // uplink, is IPv6, target

template <class Seen>
Path path_of(const Seen& seen) {
    return {seen.uplink, seen.is_ipv6, seen.target};
}

std::string shown_path(const Path& path) {
    return std::get<0>(path) + " " + family_word(std::get<1>(path)) + " target " +
           std::get<2>(path);
}

/// Of sorted parts, those that lie together become one; clipped.
std::vector<Part> joined(std::vector<Part> parts, const Part& within) {
    constexpr std::int64_t touching_ms = 1000;
    std::sort(parts.begin(), parts.end(), [](const Part& one, const Part& other) {
        return std::tie(one.begin_ms, one.end_ms) < std::tie(other.begin_ms, other.end_ms);
    });
    std::vector<Part> joined;
    for (Part part : parts) {
        part = {std::max(part.begin_ms, within.begin_ms), std::min(part.end_ms, within.end_ms)};
        if (part.end_ms <= part.begin_ms) {
            continue;
        }
        if (!joined.empty() && part.begin_ms - joined.back().end_ms <= touching_ms) {
            joined.back().end_ms = std::max(joined.back().end_ms, part.end_ms);
        } else {
            joined.push_back(part);
        }
    }
    return joined;
}

/// When somebody looked at each uplink, by name and family.
using Watches = std::map<std::pair<std::string, bool>, std::vector<Part>>;

Watches watches_of(const History& history) {
    Watches watches;
    for (const Watch& one : history.watches) {
        watches[{one.uplink, one.is_ipv6}].push_back({one.begin_ms, one.end_ms});
    }
    if (!history.watches.empty()) {
        return watches;
    }
    std::map<std::pair<std::string, bool>, std::vector<std::int64_t>> moments;
    for (const Observation& one : history.observations) {
        moments[{one.uplink, one.is_ipv6}].push_back(one.at_ms);
    }
    for (auto& [uplink, times] : moments) {
        std::sort(times.begin(), times.end());
        for (std::size_t i = 0; i < times.size(); ++i) {
            const std::int64_t next_ms = i + 1 < times.size() ? times[i + 1] : times[i] + minute_ms;
            const bool is_gap = next_ms - times[i] > longest_gap_ms;
            watches[uplink].push_back({times[i], is_gap ? times[i] + minute_ms : next_ms});
        }
    }
    return watches;
}

/// From the first to the last moment that somebody watched an uplink of the configuration, or as
/// the period says.
Part whole_time(const Watches& watches, const Period& period, const std::vector<Uplink>& uplinks) {
    std::optional<Part> seen;
    for (const Uplink& uplink : uplinks) {
        const auto found = watches.find({uplink.name, uplink.is_ipv6});
        for (const Part& part : found == watches.end() ? std::vector<Part>{} : found->second) {
            seen = Part{std::min(seen ? seen->begin_ms : part.begin_ms, part.begin_ms),
                        std::max(seen ? seen->end_ms : part.end_ms, part.end_ms)};
        }
    }
    const Part found = seen.value_or(Part{});
    return {period.since_ms.value_or(found.begin_ms), period.until_ms.value_or(found.end_ms)};
}

/// Of each target, before the period's end, in the order of time.
template <class Seen>
std::map<Path, std::vector<const Seen*>> by_path(const std::vector<Seen>& all,
                                                 const Period& period) {
    std::map<Path, std::vector<const Seen*>> paths;
    for (const Seen& one : all) {
        if (!period.until_ms || one.at_ms < *period.until_ms) {
            paths[path_of(one)].push_back(&one);
        }
    }
    for (auto& [path, seen] : paths) {
        std::stable_sort(seen.begin(), seen.end(), [](const auto* one, const auto* other) {
            return one->at_ms < other->at_ms;
        });
    }
    return paths;
}

}  // namespace

Replayed replay_of(const History& history, const Period& period,
                   const std::vector<Uplink>& uplinks) {
    Replayed replayed;
    const Watches watches = watches_of(history);
    const Part all = whole_time(watches, period, uplinks);
    replayed.begin_ms = all.begin_ms;
    auto seen = by_path(history.observations, period);
    auto turns = by_path(history.turns, period);
    bool is_any_known = false;
    for (const Uplink& uplink : uplinks) {
        Recorded recorded{.uplink = &uplink};
        if (const auto found = watches.find({uplink.name, uplink.is_ipv6});
            found != watches.end()) {
            recorded.watched = joined(found->second, all);
        }
        for (const std::string& target : uplink.targets) {
            const Path path{uplink.name, uplink.is_ipv6, target};
            const auto known = seen.find(path);
            if (known == seen.end()) {
                replayed.doubts.push_back(shown_path(path) +
                                          ": never recorded; taken to answer always");
                continue;
            }
            is_any_known = is_any_known || !recorded.watched.empty();
            recorded.targets[target] = {.seen = std::move(known->second), .turns = turns[path]};
            seen.erase(known);
        }
        find_outages(recorded, replayed.doubts);
        add_events(recorded, all, replayed.scenario);
        const std::int64_t unwatched_ms = add_unwatched(recorded, all, replayed.scenario);
        if (unwatched_ms > 0) {
            replayed.doubts.push_back(shown(uplink) + ": not watched for " +
                                      shown_duration(unwatched_ms * 1000) +
                                      ": told as not watched, and simulated as it was before");
        }
    }
    for (const auto& [path, of_nobody] : seen) {
        replayed.doubts.push_back(shown_path(path) +
                                  ": recorded, but not asked by this configuration");
    }
    if (!is_any_known) {
        replayed.scenario.clear();
    }
    replayed.duration_us =
        is_any_known ? std::max<std::int64_t>(0, all.end_ms - all.begin_ms) * 1000 : 0;
    std::stable_sort(replayed.scenario.begin(), replayed.scenario.end(),
                     [](const Event& one, const Event& other) { return one.at_us < other.at_us; });
    return replayed;
}

}  // namespace lbsim

#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lbsim/history.h"
#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

/// What a recorded history tells of one uplink of the configuration, on the way to a scenario; for
/// replay.h alone. Pure. Times are milliseconds since the epoch.
namespace lbsim {

inline constexpr std::int64_t minute_ms = 60'000;

/// A part of the time.
struct Part {
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;

    bool holds(std::int64_t at_ms) const { return at_ms >= begin_ms && at_ms <= end_ms; }
    std::int64_t shared_ms(const Part& other) const {
        return std::max<std::int64_t>(
            0, std::min(end_ms, other.end_ms) - std::max(begin_ms, other.begin_ms));
    }
};

/// A target was silent through an uplink. The turns are those of its verdict, where they are known.
struct Outage {
    Part silent{};
    Part judged{};  ///< from its first lost echo to the verdict behind it: what it explains
    std::optional<Turn> failed{};
    std::optional<Turn> returned{};
};

/// What was recorded of one target through an uplink.
struct TargetRecord {
    std::vector<const Observation*> seen{};
    std::vector<const Turn*> turns{};
    std::vector<Outage> outages{};
};

/// All that was recorded of one uplink of the configuration.
struct Recorded {
    const Uplink* uplink = nullptr;
    std::vector<Part> watched{};
    std::map<std::string, TargetRecord> targets{};  ///< by address
};

/// Those that were judged within the minute; they are in the order of time.
std::span<const Outage> outages_of(const Part& minute, const std::vector<Outage>& outages);

/// Finds the outages of all targets of the uplink, by their verdicts; a doubt where the recorded
/// daemon was another. Outages of two targets that begin or end within moments do so together.
void find_outages(Recorded& recorded, std::vector<std::string>& doubts);

/// Appends what happened to the uplink's targets within `all`, in no order between uplinks.
void add_events(const Recorded& recorded, const Part& all, Scenario& scenario);
/// Appends when nobody watched the uplink, and gives how long that was.
std::int64_t add_unwatched(const Recorded& recorded, const Part& all, Scenario& scenario);

}  // namespace lbsim

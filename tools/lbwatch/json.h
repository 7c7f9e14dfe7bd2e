#pragma once

#include <string>
#include <vector>

#include "lbwatch/event.h"
#include "lbwatch/report.h"
#include "lbwatch/view.h"

namespace lbwatch {

/// One event as a JSON object on one line, without a line feed:
///
///     {"time": RFC 3339 in UTC, "event": "uplink" | "target" | "nexthop" | "routes" | "daemon",
///      "uplink", "family": 4 | 6, "namespace", "target", "rule", "destinations": [...],
///      "from", "to", "after_s", "reason"}
///
/// Every key is always there; null where the event is about none, and where a length is not known.
/// Fields may be added, never changed. Bytes that are no UTF-8 come out as U+FFFD.
std::string json_of(const Event& event);

/// An array of them.
std::string json_of(const std::vector<Event>& events);

/// A report as one object on one line: "since", "until", "uplinks": [{"uplink", "family",
/// "namespace", "availability_percent", "active_s", "failed_s", "unknown_s", "unwatched_s",
/// "outages": [{"begin", "end", "seconds", "begin_seen", "end_seen", "going_on", "reason"}],
/// "flaps", "longest_s", "mean_between_s", "mean_repair_s", "unwatched": [{"begin", "end"}],
/// "loss_by_hour": 24 x [answered, missed], "targets": [{"target", "answered", "missed",
/// "points": [{"begin", "answered", "missed", "loss_percent", "rtt_ms", "jitter_ms"}]}]}].
/// Null stands for what is not known.
std::string json_of(const Report& report);

/// What is known now: "time", "daemon", "dump_age_s", "uplinks": [{"uplink", "family", "namespace",
/// "state", "since_s", "reason", "routed", "nexthop", "targets": [{"target", "verdict",
/// "quality"}]}], "rules": [{"rule", "namespace", "destinations": {prefix: uplinks}}].
std::string json_of(const View& view, const Moment& now);

}  // namespace lbwatch

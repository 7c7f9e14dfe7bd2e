#pragma once

#include <string>
#include <vector>

#include "lbwatch/event.h"

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

}  // namespace lbwatch

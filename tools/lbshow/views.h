#pragma once

#include <string>
#include <vector>

#include "lbshow/state.h"

/// The three ways in which `lbshow` tells a state. Pure.
namespace lbshow {

/// What is asked for: all three kinds, or one, and of that one all items or those of the names.
struct Selection {
    bool interfaces = true;
    bool rules = true;
    bool routes = true;
    std::vector<std::string> names;
};

/// Leaves what was asked for. A name is an interface's, a rule's ("1_ipv4" or its number), or a
/// route's prefix or rule. Gives the first name that is nobody's, or an empty text.
std::string select(State& state, const Selection& selection);

/// Aligned tables for people; `is_coloured` for terminals only. Control characters of foreign files
/// come out as \xNN.
std::string tables(const State& state, const Selection& selection, bool is_coloured);

/// One JSON object (RFC 8259) and a line feed:
///
///     {"interfaces": [{"name", "family", "namespace", "active", "nexthop", "nexthop_from",
///                      "source_address", "since_success_s", "since_failure_s", "success_ct",
///                      "failure_ct", "probes": [{"target", "last_result", "success_run",
///                      "failure_run", "quality": null or {"loss_percent", "rtt_ms", "jitter_ms",
///                      "loss_limit", "rtt_limit", "jitter_limit"}}]}],
///      "rules": [{"name", "number", "family", "namespace", "failover",
///                 "members": [{"interface", "family", "weight"}]}],
///      "routes": [{"rule", "family", "position", "prefix", "metric", "nexthop"}]}
///
/// Ages are null where there never was one, as is a metric or chosen next hop that does not exist;
/// "last_result" is "none", "answered" or "timed_out". Fields may be added, never changed.
std::string json(const State& state, const Selection& selection);

/// The Prometheus text format, for a textfile collector.
std::string metrics(const State& state, const Selection& selection);

}  // namespace lbshow

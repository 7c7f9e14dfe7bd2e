#pragma once

#include <string>

#include "dumps/state.h"
#include "lbshow/selection.h"

/// The three ways in which `lbshow` tells a state whose freshness was judged. Pure. Columns, keys
/// and metrics are described in lbshow(1): more may come, none changes or goes.
namespace lbshow {

/// Aligned tables for people, behind a line for everything that is stale; `is_coloured` for
/// terminals only. Control characters of foreign files come out as \xNN.
std::string tables(const dumps::State& state, const Selection& selection, bool is_coloured);

/// One JSON object (RFC 8259) and a line feed:
///
///     {"families": {"ipv4": {"written", "age_s", "stale", "stale_after_s"}, "ipv6": ...},
///      "files": {"wlb_rules.bin": {"written", "age_s"}, ...},
///      "stalled": [{"name", "family", "namespace", "judged_s_ago"}],
///      "left_out": {"interfaces", "rules", "routes"},
///      "interfaces": [{"name", "family", "namespace", "active", "routed", "stale", "nexthop",
///                      "nexthop_from", "source_address", "since_success_s", "since_failure_s",
///                      "success_ct", "failure_ct", "state_since_s", "state_begin_seen",
///                      "flaps_today", "probes": [{"probe", "type", "target",
///                      "last_result", "success_run", "failure_run", "quality": null or
///                      {"loss_percent", "rtt_ms", "jitter_ms", "loss_limit", "rtt_limit",
///                      "jitter_limit"}}]}],
///      "rules": [{"name", "number", "family", "namespace", "failover", "stale",
///                 "members": [{"interface", "family", "weight"}]}],
///      "routes": [{"rule", "family", "position", "prefix", "metric", "nexthop", "stale",
///                  "nexthops": [{"nexthop", "interface", "weight"}]}]}
///
/// Times are RFC 3339 in UTC. Ages are null where there never was one, as is a metric or chosen
/// next hop that does not exist; "last_result" is "none", "answered" or "timed_out".
std::string json(const dumps::State& state, const Selection& selection);

/// The Prometheus text format, for a textfile collector. `version` is that of the program.
std::string metrics(const dumps::State& state, const std::string& version);

}  // namespace lbshow

#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "dumps/state.h"

/// Whether what the dumps tell is of now. They stay when the daemon ends, and those of a family
/// that is configured no more stay beside the new ones; nothing in them says so. Pure.
namespace dumps {

/// The age in seconds from which on dumps are stale, unless the operator says another. The daemon
/// writes them once in a cycle, which takes about a second; but an extended ping holds its worker
/// for the whole run of echoes, the longer the worse its uplink is, and then the runs of all
/// uplinks of a namespace add up. A family that has one is given as long as the service manager
/// gives a daemon that stands still (WatchdogSec).
inline constexpr std::int64_t usual_limit_s = 15;
inline constexpr std::int64_t limit_with_extended_pings_s = 60;

/// How far a file's time may lie ahead of the clock and still be of now.
inline constexpr std::int64_t clock_tolerance_s = 1;

/// Reckons how old everything is at the moment `now` and marks what is stale; ages within the dumps
/// then count to that moment too.
///
/// - A family's age is that of the oldest file that tells of it: its own dump, the rules, the
///   routes. A family without a dump of its own is judged by rules and routes alone.
/// - A file from the future is stale: the clock was set back since, so its age is unknown. A daemon
///   that lives writes it anew within a cycle.
/// - An interface that was last judged longer ago than the limit, in a dump that is fresh, is stale
///   by itself: the worker of its namespace stands still, and another namespace's wrote the dump.
void judge_freshness(State& state, Time now, std::optional<std::int64_t> limit_s);

/// The time in seconds since an interface was last judged, as the dump tells it; none where it
/// never was, or where its state has a date in the future, of before the clock was set back: the
/// next judgement gives it another one.
std::optional<int> since_judged_s(const Interface& one);

/// Takes everything stale out of the lists, and counts it in `left_out`.
void leave_out_stale(State& state);

bool has_stale(const State& state);

/// One line for each stale family and for each interface whose worker stands still, each with the
/// cause and the command that mends it; empty where nothing is stale.
std::string stale_lines(const State& state);

/// RFC 3339 in UTC, in whole seconds: 2026-11-21T14:10:05Z.
std::string utc_text(Time time);

/// How old a file is, in whole seconds; negative for one from the future.
std::int64_t age_s(const DumpFile& file, Time now);

}  // namespace dumps

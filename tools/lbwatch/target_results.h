#pragma once

#include <map>
#include <string>
#include <vector>

#include "dumps/state.h"
#include "lbwatch/moment.h"
#include "lbwatch/world.h"

/// What the probe entries of a dump say of their target. Pure.
namespace lbwatch {

/// The verdict that the daemon holds: it changes only when a run of equal results reaches its
/// threshold, so in between the one `before` stays.
Verdict verdict_of(const dumps::Probe& probe, const dumps::Interface& interface, Verdict before);

/// Why the latest result is a failure: the limit that an extended ping reached (in the daemon's own
/// order: loss, round-trip time, jitter), or that no answer came.
std::string fault_of(const dumps::Probe& probe);

/// Takes the entries of all probes of one target over into it, verdict and results; counts nothing.
/// The daemon counts their results in one run, so it is missed where any of them was.
void take_over(Target& target, const std::vector<dumps::Probe>& probes,
               const dumps::Interface& interface);

/// For example "203.0.113.53 no answer (3 in a row)" or "203.0.113.53 answered (2 in a row)".
std::string told(const std::string& address, const Target& target);

/// Of the targets with this verdict, three at most told in full.
std::string reason_of(const std::map<std::string, Target>& targets, Verdict verdict);

}  // namespace lbwatch

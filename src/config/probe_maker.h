#pragma once

#include <string>

class LBTest;
class LBTest6;

/// What the loader asks of the probes without knowing them. The answers stand in the probe room
/// (probe/maker.cpp): that keeps the records and the loader below the probes.
///
/// Probes are never freed while the process lives; `discard_probe` is for one that nobody refers
/// to yet.

/// A probe of the type "ping" or "ping_ext"; null for any other word.
LBTest* make_probe(const std::string& type);
/// A probe of the type "ping"; null for any other word.
LBTest6* make_probe6(const std::string& type);
void discard_probe(LBTest* probe);
void discard_probe(LBTest6* probe);

void set_probe_target(LBTest& probe, const std::string& target);
void set_probe_target(LBTest6& probe, const std::string& target);
void set_probe_timeout(LBTest& probe, int timeout_ms);
void set_probe_timeout(LBTest6& probe, int timeout_ms);

/// The numbers of an extended ping.
enum class PingSetting {
    period_s,
    wait_ms,  ///< how long one echo may take
    count,
    loss_percent,
    rtt_ms,
    jitter_ms,
};
/// Applies to an extended ping only; any other probe stays as it is. True when it was applied.
bool set_ping(LBTest& probe, PingSetting setting, int value);

#include "lbwatch/target_results.h"

#include <algorithm>
#include <map>
#include <optional>

namespace lbwatch {

namespace {

std::string limit_text(const char* what, int value, int limit, const char* unit) {
    return std::string(what) + " " + std::to_string(value) + unit + " (limit " +
           std::to_string(limit) + unit + ")";
}

bool is_same(const std::optional<dumps::Quality>& one, const std::optional<dumps::Quality>& other) {
    if (!one || !other) {
        return !one && !other;
    }
    return one->loss_percent == other->loss_percent && one->rtt_ms == other->rtt_ms &&
           one->jitter_ms == other->jitter_ms;
}

/// An extended ping that has not run shows zeros, which nobody measured.
std::optional<dumps::Quality> measured(const dumps::Probe& probe) {
    if (!probe.quality || probe.last_result == dumps::Result::none) {
        return std::nullopt;
    }
    const bool has_values = probe.quality->loss_percent != 0 || probe.quality->rtt_ms != 0 ||
                            probe.quality->jitter_ms != 0;
    return has_values || probe.last_result == dumps::Result::answered ? probe.quality
                                                                      : std::nullopt;
}

}  // namespace

Verdict verdict_of(const dumps::Probe& probe, const dumps::Interface& interface, Verdict before) {
    if (probe.last_result == dumps::Result::none) {
        return before;
    }
    // With a threshold of 0 the daemon takes every result as it comes.
    if (interface.success_ct == 0 || interface.failure_ct == 0) {
        return probe.last_result == dumps::Result::answered ? Verdict::success : Verdict::failure;
    }
    if (probe.failure_run >= interface.failure_ct) {
        return Verdict::failure;
    }
    return probe.success_run >= interface.success_ct ? Verdict::success : before;
}

std::string fault_of(const dumps::Probe& probe) {
    if (probe.quality) {
        const dumps::Quality& quality = *probe.quality;
        if (quality.loss_percent >= quality.loss_limit) {
            return limit_text("loss", quality.loss_percent, quality.loss_limit, " %");
        }
        if (quality.rtt_ms >= quality.rtt_limit) {
            return limit_text("round-trip time", quality.rtt_ms, quality.rtt_limit, " ms");
        }
        if (quality.jitter_ms >= quality.jitter_limit) {
            return limit_text("jitter", quality.jitter_ms, quality.jitter_limit, " ms");
        }
    }
    return "no answer";
}

void take_over(Target& target, const std::vector<dumps::Probe>& probes,
               const dumps::Interface& interface) {
    dumps::Probe joined;
    std::optional<dumps::Quality> quality;
    std::string fault;
    for (const dumps::Probe& probe : probes) {
        quality = quality ? quality : measured(probe);
        if (probe.last_result == dumps::Result::timed_out && fault.empty()) {
            fault = fault_of(probe);
        }
        if (joined.last_result != dumps::Result::timed_out &&
            probe.last_result != dumps::Result::none) {
            joined.last_result = probe.last_result;
        }
        joined.success_run = std::max(joined.success_run, probe.success_run);
        joined.failure_run = std::max(joined.failure_run, probe.failure_run);
        target.was_answered = target.was_answered || probe.success_run > 0 ||
                              probe.last_result == dumps::Result::answered;
    }
    // A run whose first echo stays unanswered leaves the measurements of the run before in place,
    // so they explain a failure only where they came with it.
    const bool is_fresh = target.last_result != dumps::Result::timed_out ||
                          !is_same(target.quality, quality) || target.fault.empty();
    if (joined.last_result == dumps::Result::timed_out && is_fresh) {
        target.fault = fault;
    }
    target.is_broken =
        target.is_broken || (target.was_answered && (joined.failure_run > 0 || !fault.empty()));
    target.verdict = verdict_of(joined, interface, target.verdict);
    target.last_result = joined.last_result;
    target.success_run = joined.success_run;
    target.failure_run = joined.failure_run;
    target.quality = quality;
}

std::string told(const std::string& address, const Target& target) {
    const bool is_success = target.verdict == Verdict::success;
    const int run = is_success ? target.success_run : target.failure_run;
    std::string text = address + " " + (is_success ? "answered" : target.fault);
    if (run > 0) {
        text += " (" + std::to_string(run) + " in a row)";
    }
    return text;
}

std::string reason_of(const std::map<std::string, Target>& targets, Verdict verdict) {
    constexpr int most = 3;
    std::string text;
    int count = 0;
    for (const auto& [address, target] : targets) {
        if (target.verdict != verdict) {
            continue;
        }
        if (++count <= most) {
            text += (text.empty() ? "" : ", ") + told(address, target);
        }
    }
    return count > most ? text + " and " + std::to_string(count - most) + " more" : text;
}

}  // namespace lbwatch

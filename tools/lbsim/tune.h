#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lbsim/summary.h"

/// What other counts would have made of the same world. Pure.
namespace lbsim {

/// Counts of all uplinks; none: as configured.
struct Setting {
    std::optional<int> success_ct{};
    std::optional<int> failure_ct{};

    bool is_present() const { return !success_ct && !failure_ct; }
};

/// The present settings first, then each `failure-ct` with the configured `success-ct`, then each
/// `success-ct` with the configured `failure-ct`.
std::vector<Setting> settings_to_try();

/// Times that an active uplink died, from the moment that nothing got through any more until
/// something did, whatever else happened to it meanwhile.
struct Deaths {
    int all = 0;
    int left = 0;                    ///< those in which the uplink became inactive
    std::int64_t left_after_us = 0;  ///< the sum over these
    std::int64_t longest_us = 0;

    int never_left() const { return all - left; }
};

/// What one setting led to.
struct Trial {
    Setting setting{};
    Deaths deaths{};
    Totals all{};
    int changes = 0;
};
Trial trial_of(const Setting& setting, const Summary& summary);

/// The trials as a table, and as a curve: time until a dead uplink was left, against flaps. The
/// present settings are marked. Says how many runs it made, and recommends nothing.
std::string tuning_text(const std::vector<Trial>& trials, std::int64_t duration_us);
std::string tuning_json(const std::vector<Trial>& trials, std::int64_t duration_us,
                        std::uint64_t seed);
std::string tuning_svg(const std::vector<Trial>& trials);

}  // namespace lbsim

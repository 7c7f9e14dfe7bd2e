#pragma once

#include <cstdint>
#include <string>

#include "config/lb_health.h"

/// The text of the status report, without a system call but the reading of the time zone. The
/// caller holds a `LiveStateReader`. Stamps and `now_s` are seconds since the epoch.

/// One interface's record under the name it has in the configuration.
std::string report_record(const std::string& name, const LBHealth& health, int now_s);

/// An age, for example "1d2h5s" and a tab: parts that are 0 are left out, the seconds never are.
std::string age_text(std::uint32_t age_s);

#pragma once

#include <cstdint>
#include <string>

#include "lbroute/report.h"

/// The report of `lbroute status` as text and as JSON.
namespace lbroute {

std::string report_text(const Report& report);
std::string report_json(const Report& report);

/// "90s", "29m 40s", "2h 3m", "1d 2h": how long a hold still lasts.
std::string span_text(std::int64_t span_ms);

}  // namespace lbroute

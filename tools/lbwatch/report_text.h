#pragma once

#include <string>

#include "lbwatch/report.h"

namespace lbwatch {

/// For people: a part for each uplink, times in the reader's zone.
std::string text_of(const Report& report);

/// Comma-separated values (RFC 4180), times in UTC: one row for each uplink (record "uplink"), one
/// for each of its outages ("outage"), one for each hour of the day with an answer ("hour"), and
/// one for each time when nothing was watched ("unwatched"). Columns that a record lacks are empty.
std::string csv_of(const Report& report);

/// How long an outage lasted, and what of it was not seen.
std::string length_of(const Outage& outage);

/// The reader's zone, for example CET.
std::string zone_name();

}  // namespace lbwatch

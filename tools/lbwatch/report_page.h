#pragma once

#include <string>

#include "lbwatch/report.h"

namespace lbwatch {

/// The report as one page that needs nothing else: no network, no script, no font. Pure.
std::string html_of(const Report& report);

/// The card of one uplink, from its name to its outages; `state` is shown beside the name.
std::string uplink_card(const UplinkReport& uplink, const Report& report, const std::string& state,
                        const std::string& details, std::size_t most_outages);

}  // namespace lbwatch

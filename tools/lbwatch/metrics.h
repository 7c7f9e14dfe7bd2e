#pragma once

#include <string>
#include <vector>

#include "lbwatch/moment.h"
#include "lbwatch/routers.h"
#include "lbwatch/view.h"

namespace lbwatch {

/// The Prometheus text format. Pure. Counters begin at 0 with this program.
std::string metrics_of(const View& view, const std::vector<Router>& routers,
                       const std::string& version, const Moment& now);

}  // namespace lbwatch

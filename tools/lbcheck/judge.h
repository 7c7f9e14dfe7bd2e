#pragma once

#include <vector>

#include "config/lb_data.h"
#include "lbcheck/findings.h"
#include "lbcheck/watcher.h"

namespace lbcheck {

/// Judges what was loaded as a whole; findings are appended, at the lines that the watcher knows.
void judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings);

}  // namespace lbcheck

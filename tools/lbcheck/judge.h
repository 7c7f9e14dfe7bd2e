#pragma once

#include <vector>

#include "config/lb_data.h"
#include "lbcheck/findings.h"
#include "lbcheck/watcher.h"

namespace lbcheck {

/// Judges what was loaded as a whole; findings are appended, at the lines that the watcher knows.
void judge(const LBData& data, const Watcher& watcher, std::vector<Finding>& findings);

/// True when a worker serves the namespace and family: it has an interface and a rule there.
bool has_worker(const LBData& data, const std::string& ns_name, bool is_ipv6);

}  // namespace lbcheck

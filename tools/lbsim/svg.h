#pragma once

#include <string>

#include "lbsim/report.h"

namespace lbsim {

/// A picture of a story: for each uplink a band of what was true above a band of what the daemon
/// took for true, over one axis of time. Pure; a whole file, without script and without network.
std::string svg_text(const Story& story);

}  // namespace lbsim

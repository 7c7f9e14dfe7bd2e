#pragma once

#include <set>
#include <string>
#include <vector>

#include "lbroute/journal.h"
#include "lbroute/options.h"
#include "lbroute/served_namespace.h"

/// Routes of ours where they are to go, or where nobody asks for them any more. Problems are texts
/// for the log.
namespace lbroute {

/// What stays in a namespace that is not served any more, with the command that takes it away.
Journal::Problems left_behind_in(ServedNamespace& kernel);

/// Takes everything of ours away in a namespace that is entered; gives what could not be.
std::vector<std::string> flush(ServedNamespace& kernel);
/// The same in every namespace that has a name, beside the own one and these.
std::vector<std::string> flush_others(const std::set<std::string>& names, const Options& options);

}  // namespace lbroute

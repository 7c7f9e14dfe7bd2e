#pragma once

#include <string>
#include <vector>

#include "config/lb_data.h"

/// What an operator should know of a configuration before the daemon reads it.
namespace lbcheck {

enum class Severity { warning, error };

struct Finding {
    int line = 0;  ///< from 1; 0 for the file as a whole
    Severity severity = Severity::warning;
    std::string text;  ///< the text concerned, as it stands in the file; may be empty
    std::string message;
    std::vector<int> more_lines{};  ///< where the same stands again, ascending
};

/// What the daemon's own loader made of a file.
struct Checked {
    std::vector<Finding> findings;  ///< in the order of their lines
    LBData data;
};

/// Loads the file as the daemon does and collects what it would refuse, ignore or misunderstand.
/// A fault that makes the daemon misread everything behind it is one finding; what else there is to
/// say is said of the file without that fault.
Checked check(const std::string& path);

/// The configuration as understood: namespaces and their workers, interfaces with their probes,
/// rules with the routes that result when all uplinks work, and when each single one fails.
std::string explain(const LBData& data);

/// One line a finding, and a last one that sums up: "2 errors, 1 warning".
std::string as_text(const std::string& path, const std::vector<Finding>& findings);
/// {"file", "findings": [{"line", "severity", "text", "message", "more_lines"}], "errors",
/// "warnings"}
std::string as_json(const std::string& path, const std::vector<Finding>& findings);

/// 0, 1 for warnings when they count, 2 for errors.
int exit_status(const std::vector<Finding>& findings, bool is_strict);

}  // namespace lbcheck

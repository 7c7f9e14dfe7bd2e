#pragma once

#include <string>
#include <vector>

#include "lbcheck/findings.h"
#include "lbcheck/live_facts.h"

/// What is well and what is not on the router itself, each with the command that mends it. Pure.
namespace lbcheck {

enum class State {
    ok,
    unknown,  ///< it could not be looked at, and so is not well
    warning,
    error
};

struct LiveFinding {
    State state = State::ok;
    std::string place;  ///< "gi1_1 (IPv4)", "namespace blue", "dumps" ...
    std::string text;
    std::string mend;  ///< a command, or what to do; empty where nothing is to be done
};

/// In the order in which an operator would look: from the links up to the routes.
std::vector<LiveFinding> judge_live(const LiveFacts& facts);

/// "error    gi1_1 (IPv4): it is down; mend: ip link set gi1_1 up", and a last line that sums up.
std::string live_text(const std::vector<LiveFinding>& findings);
/// The file's findings as `as_json` gives them, and "live": [{"state", "place", "text", "mend"}].
std::string live_json(const std::string& path, const std::vector<Finding>& of_file,
                      const std::vector<LiveFinding>& findings);

/// 0, 1 for warnings and for what could not be looked at when they count, 2 for errors.
int live_exit_status(const std::vector<LiveFinding>& findings, bool is_strict);

}  // namespace lbcheck

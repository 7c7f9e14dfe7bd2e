#pragma once

#include <chrono>
#include <string>

namespace lbroute {

/// Runs a shell command and waits for its end, in no case longer than `limit`: then it is killed,
/// with what it started. It gets no input, and no signal is blocked for it.
///
/// Gives an empty text when it ended with status 0, else what an operator reads after "COMMAND: ":
/// how it ended, and the end of what it wrote, in one printable line.
std::string run_command(const std::string& command, std::chrono::seconds limit);

}  // namespace lbroute

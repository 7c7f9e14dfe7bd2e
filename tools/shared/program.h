#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace shared {

/// How a program ended, and what it wrote.
struct ProgramEnd {
    std::optional<int> status{};  ///< as waitpid(2) gives it; none: it did not end by itself
    std::string problem{};        ///< without a status: why it could not be run, or was killed
    std::string output{};         ///< the end of what it wrote on both streams, four kilobytes
};

/// Runs a program, the first word, found by PATH, and waits for its end, in no case longer than
/// `limit`: then it is killed, with what it started. It gets no input, no signal is blocked for it,
/// and it has a process group of its own. Blocks the calling thread.
ProgramEnd run_program(const std::vector<std::string>& words, std::chrono::seconds limit);

}  // namespace shared

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace lbsim {

/// Runs a task in a process of its own, forked from this one, and gives what it returned. The
/// daemon fills tables that live as long as its process; so each run begins with empty ones,
/// nothing of it stays, and a crash within one is an answer here. What the task prints is dropped.
///
/// This process must have no other thread.
struct Apart {
    std::string result;
    std::string error;  ///< for people; empty where the task returned
};
Apart run_apart(const std::function<std::string()>& task);

/// Several, as many at a time as there are processors. Answers stand in the order of the tasks.
std::vector<Apart> run_apart(const std::vector<std::function<std::string()>>& tasks);

}  // namespace lbsim

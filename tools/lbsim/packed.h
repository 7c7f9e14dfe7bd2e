#pragma once

#include <string>

#include "lbsim/run.h"

/// Results as bytes, for the way from one process to another of the same program. Pure.
namespace lbsim {

std::string packed(const Loaded& loaded);
std::string packed(const Run& run);
/// Throw where the bytes are none of these.
Loaded unpacked_loaded(const std::string& bytes);
Run unpacked_run(const std::string& bytes);

}  // namespace lbsim

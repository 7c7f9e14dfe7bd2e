#pragma once

#include <optional>
#include <string>

#include "lbroute/address.h"
#include "lbroute/options.h"

/// The commands of an operator who works on an uplink. They change the holds; the running program
/// notices. Each gives the program's exit status: 0, or 1 after telling what is wrong.
namespace lbroute {

struct HoldRequest {
    std::string interface;
    std::string namespace_name;
    std::optional<Family> family;  ///< none: both, or the one that the uplink has
    std::string duration;          ///< as `parse_duration_ms` takes it; empty: until it is released
    bool is_forced = false;
};

int hold(const Options& options, const HoldRequest& request);
int release(const Options& options, const HoldRequest& request);

}  // namespace lbroute

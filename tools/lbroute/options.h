#pragma once

#include <cstdint>
#include <string>

#include "lbroute/kernel_state.h"
#include "shared/usual_paths.h"

namespace lbroute {

/// What the command line asks for.
struct Options {
    std::string configuration = shared::usual_configuration;
    std::string output_directory = shared::usual_output;
    std::uint32_t table = main_table;
    bool is_sticky = true;
    bool keeps_flows = false;
    bool flushes = false;
    bool runs_once = false;
    bool is_dry = false;
    std::string bird2_file;  ///< not empty: write this file instead of the kernel's routes
    std::string birdc = "birdc configure";
};

}  // namespace lbroute

#pragma once

#include "lbroute/options.h"

namespace lbroute {

/// Puts the fragments into force until SIGTERM or SIGINT, or once; the exit status. `--bird2`
/// writes a file for bird instead.
int run(const Options& options);

}  // namespace lbroute

#pragma once

#include "config/context.h"
#include "config/lb_data.h"

/// Runs the probes of a cycle.
class LBPathTest {
  public:
    /// One pass over the interfaces of the worker's namespace and family: all probes are sent, then
    /// each interface's probes are collected and the interface is evaluated.
    void start(LBData& data, context* ctx);
};

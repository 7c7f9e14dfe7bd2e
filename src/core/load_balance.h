#pragma once

#include <map>
#include <string>
#include <utility>

#include "config/context.h"
#include "config/lb_data.h"
#include "config/lb_data_factory.h"
#include "decision/lb_decision.h"
#include "output/lb_output.h"
#include "probe/lb_path_test.h"

/// (namespace, family: 0 IPv4, 1 IPv6) -> (1 when an interface of that family lies there, 1 when a
/// rule does).
using NamespaceNeeds = std::map<std::pair<std::string, int>, std::pair<int, int>>;

/// The one engine of the process: the configuration, the live state and the steps of a cycle. The
/// main thread builds it; all workers share it, each on the records of its own namespace and family
/// (config/live_state.h).
class LoadBalance {
  public:
    explicit LoadBalance(std::string& output_dir);
    LoadBalance(const LoadBalance&) = delete;
    LoadBalance& operator=(const LoadBalance&) = delete;
    /// Removes the status files (B16).
    ~LoadBalance();

    /// Loads the configuration. Always true (B10): the loader has reported what it did not like,
    /// and the engine runs with what was loaded.
    bool set_conf(const std::string& path);
    /// Tells which namespaces and families have interfaces and rules.
    void check_before_start(NamespaceNeeds& check);

    /// Reports every interface of the worker as inactive: nothing is proven yet (B13).
    void print_init_interfaces_state(context* ctx);
    /// Makes the probes of the worker's namespace ready, those of the sibling family too (B136).
    void init_tests_in_namespace(context* ctx);

    /// The steps of a cycle, in this order; the last one always asks for one more cycle.
    void health_test(context* ctx);
    void apply_rules(context* ctx);
    void output(context* ctx);
    void sleep(context* ctx);
    bool start_cycle(context* ctx);

    LBDataFactory factory;
    LBData data;
    LBPathTest path_test;
    LBDecision decision;
    LBOutput status_output;
    int lb_spare = 5000;  ///< used by nothing (B132)
};

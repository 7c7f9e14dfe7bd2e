#pragma once

#include <string>

#include "config/lb_data.h"
#include "lbcheck/live_facts.h"
#include "lbroute/report.h"

/// What one namespace of the router tells: its uplinks with their links, next hops, leases and one
/// echo each, and the routes that stand in it.
namespace lbcheck {

/// Called in a thread of its own for each namespace: a thread asks the kernel by sockets that stay
/// in the namespace where it opened them. Learns next hops into `data`, as the daemon does.
NamespaceFacts look_at_namespace(const std::string& name, LBData& data, const WorkByNamespace& work,
                                 const lbroute::Report& routes);

}  // namespace lbcheck

#pragma once

#include <map>
#include <string>
#include <vector>

#include "lbcheck/live_facts.h"

/// Questions to the machine, in the network namespace of the calling thread.
namespace lbcheck {

/// A number below /proc/sys; none where there is none.
Setting setting_of(const std::string& path);

/// The kernel's neighbours of a family: (interface, address) -> state, "REACHABLE" or "STALE" for
/// example.
std::map<std::pair<std::string, std::string>, std::string> neighbours_of(bool is_ipv6);

/// Who is told of the routes of a namespace and family; files are the same in all namespaces.
RouterFacts router_of(const std::string& ns_name, bool is_ipv6);

/// The service manager's units; a problem where there is no service manager.
std::vector<UnitFacts> units_of(const std::vector<std::string>& names, std::string& problem);

/// Rights of a file or folder and of all folders above it, up to the root; nothing where there is
/// none. Symbolic links are followed: what they lead to counts.
std::vector<PathRights> rights_of(const std::string& path, const std::string& use);

}  // namespace lbcheck

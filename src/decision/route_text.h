#pragma once

#include <string>

/// The texts of the decision, without a system call: route lines and fragments as the routing
/// daemon reads them, and where a namespace's files lie.

/// " via NEXTHOP weight W": one uplink of a route.
std::string via_clause(const std::string& nexthop, int weight);
/// The whole line of a destination with its uplinks; a metric of -1 is none (B111).
std::string route_line(const std::string& prefix, const std::string& via_clauses, int metric);
/// The fragment around route lines. Only the IPv4 one lets the routing daemon watch links (B100).
std::string fragment_text(const std::string& routes, bool ipv6);

/// Where the fragment of a namespace and family lies.
std::string fragment_path(const std::string& ns_name, bool ipv6);
/// Where the routing daemon writes its process number.
std::string pid_path(const std::string& ns_name, bool ipv6);
/// The command that prints the process number of the routing daemon.
std::string pid_command(const std::string& ns_name, bool ipv6);

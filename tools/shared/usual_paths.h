#pragma once

/// Where the programs look and write unless their options say otherwise. The daemon has no default
/// for its configuration; this is where the package puts it.
namespace shared {

inline constexpr const char* usual_configuration = "/etc/lb.conf";
inline constexpr const char* usual_output = "/var/run/load-balance";  ///< CommandLine::output_dir
inline constexpr const char* usual_history = "/var/lib/lb/history.db";
inline constexpr const char* usual_hooks = "/etc/lb/hooks.d";
/// The names of network namespaces, ip-netns(8).
inline constexpr const char* namespaces = "/var/run/netns";

}  // namespace shared

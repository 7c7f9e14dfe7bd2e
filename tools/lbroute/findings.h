#pragma once

#include <string>

#include "lbroute/journal.h"
#include "lbroute/served_namespace.h"

/// What a namespace's routes are and what is wrong with them, in words; without a system call.
namespace lbroute {

/// "IPv4 10.0.0.0/8", with the namespace in front where it is not the default one.
std::string title_of(const PlannedRoute& route, const std::string& namespace_name);

inline constexpr const char* no_path = "no next hop";
/// "via 192.0.2.1 dev gi1_1 weight 2, via ...", of the hops that are routed; or `no_path`, also
/// where the kernel refuses the route.
std::string path_text(const PlannedRoute& route);

/// One word for a state: "routed", "held", "no carrier", "refused" and so on.
const char* word_of(HopState state);
const char* word_of(Mode mode);

/// That the kernel did not tell what it has, as `Listing` and `View` give the problem.
Journal::Problems problems_of_listing(const std::string& problem,
                                      const std::string& namespace_name);

/// A fragment with routes of a family that the daemon has no worker for (`Uplinks::watched`): what
/// it wrote when it had one, which it takes back no more. Empty where there are none.
std::string unwatched_text(const FragmentFile& fragment, const std::string& namespace_name,
                           const Uplinks& uplinks);

/// Everything that keeps the kernel from routing as the fragments ask, and each cause as one line
/// with the command that mends it where there is one.
Journal::Problems problems_of(const View& view, const std::string& namespace_name);

}  // namespace lbroute

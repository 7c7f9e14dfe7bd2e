#pragma once

#include <string>
#include <vector>

#include "lbroute/fragment.h"
#include "lbroute/kernel_state.h"
#include "lbroute/uplinks.h"

/// Which interface a next hop of a fragment leaves through; without a system call.
///
/// A next hop that one uplink has belongs to that uplink. One that several have (a link-local
/// address, say) belongs to the members of the rule that made the route: the daemon writes them in
/// the order of their names, each active one once. One that no uplink has belongs to the connected
/// network that holds it, the longest of several.
namespace lbroute {

struct ResolvedHop {
    Address gateway;
    int weight = 1;
    std::string interface;  ///< empty where none is known
};

struct ResolvedRoute {
    std::vector<ResolvedHop> hops;  ///< as the fragment's, in its order
    /// Some next hop is that of several uplinks, and neither weights nor the dumps of this moment
    /// tell which of them: the first in the order of names were taken. The dumps follow a fragment
    /// within the daemon's cycle, so this passes.
    bool is_uncertain = false;
    /// Some next hop is that of several uplinks: what it means follows the dumps.
    bool is_shared = false;
};

ResolvedRoute resolve(const FragmentRoute& route, const std::string& namespace_name,
                      const Uplinks& uplinks, const KernelState& kernel);

}  // namespace lbroute

#pragma once

#include <cstdint>
#include <vector>

#include "lbroute/kernel_state.h"
#include "lbroute/plan.h"

/// The steps from what the kernel has to what is planned, in four stages: next-hop objects, groups,
/// routes, and at last what is not needed any more. Each stage reads the state that the one before
/// left; so no prefix is ever without its route. Without a system call.
///
/// In sticky mode every next hop stands in a group as two objects of the same gateway and
/// interface. A group of one would be used without its buckets, and the kernel would keep no idle
/// times: the return of a second uplink would then move flows that are busy. With two entries at
/// least it always goes by buckets, and replacing the group moves only those that led to a member
/// that left, or that were idle.
namespace lbroute {

/// Everything that one namespace is to have. `knows` of a family is false while its fragment was
/// never read: its routes are left as they are.
struct Wanted {
    std::vector<PlannedRoute> routes;
    bool knows_ipv4 = false;
    bool knows_ipv6 = false;

    bool knows(Family family) const { return family == Family::ipv4 ? knows_ipv4 : knows_ipv6; }
};

/// A bucket that carried nothing for so long may be given to a member that returned.
inline constexpr std::uint32_t idle_timer_s = 120;
/// Busy buckets are never taken away, however long a group stays out of balance.
inline constexpr std::uint32_t unbalanced_timer_s = 0;
inline constexpr int fewest_buckets = 256;
inline constexpr int most_buckets = 16384;

/// How many buckets a new group gets where so many prefixes are routed, a power of 2. A bucket goes
/// to a member that returned once it carried nothing for the idle timer; on a busy router only few
/// of few buckets ever do, so many are better. But replacing a group of 16384 takes the kernel
/// about 1 ms, one of 256 a fraction: all groups together have 32768, or each 256. One takes 32
/// bytes of the kernel's memory.
int buckets_for(std::size_t prefixes);

inline constexpr const char* place_is_taken = "a route of others stands there";
/// Notes a refusal in each planned route whose place a route of others has and none of ours.
void refuse_taken_places(Wanted& wanted, const KernelState& kernel,
                         const std::vector<KernelRoute>& foreign);

std::vector<Step> hop_steps(const Wanted& wanted, const KernelState& kernel, Mode mode);
/// Notes in each planned route which group is its.
std::vector<Step> group_steps(Wanted& wanted, const KernelState& kernel, Mode mode);
/// Notes a refusal where a route of others stands at the place of one that is to be written.
std::vector<Step> route_steps(Wanted& wanted, const KernelState& kernel,
                              const std::vector<KernelRoute>& foreign, Mode mode);
/// Routes first, then groups, then hops.
std::vector<Step> removal_steps(const Wanted& wanted, const KernelState& kernel);

/// Takes away everything that is our own.
std::vector<Step> flush_steps(const KernelState& kernel);

/// The state after a step that the kernel took.
void apply_step(KernelState& kernel, const Step& step);

}  // namespace lbroute

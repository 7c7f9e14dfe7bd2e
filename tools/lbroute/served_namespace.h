#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "lbroute/apply.h"
#include "lbroute/flows.h"
#include "lbroute/fragment_file.h"
#include "lbroute/net_namespace.h"
#include "lbroute/options.h"
#include "lbroute/rtnetlink.h"
#include "lbroute/surroundings.h"

/// One network namespace: its two fragments, its sockets to the kernel, and the way from the one to
/// the other. For one thread.
namespace lbroute {

/// What a namespace's kernel has, beside what it is to have.
struct View {
    Wanted wanted;
    KernelState kernel;
    std::vector<KernelRoute> foreign;  ///< to the prefixes that are wanted, in the same table
    std::string problem;               ///< not empty: what could not be looked at
};

/// Routes of others that are used instead of one of ours: same prefix, lower metric.
std::vector<const KernelRoute*> shadowing(const PlannedRoute& route,
                                          const std::vector<KernelRoute>& foreign);
/// The route of others at the place of ours, null for none.
const KernelRoute* standing_in_place(const PlannedRoute& route,
                                     const std::vector<KernelRoute>& foreign);

class ServedNamespace {
  public:
    ServedNamespace(std::string name, const Options& options);

    const std::string& name() const { return name_; }
    bool is_entered() const { return identity_.has_value() && socket_.is_open(); }

    /// Enters the namespace that has the name now: anew where it was made anew, not at all where
    /// there is none. True where that changed anything. The cause of a failure goes into `problem`.
    bool follow(std::string& problem);

    int monitor_descriptor() const { return monitor_.descriptor(); }
    /// Takes the kernel's announcements; true where one of them matters to our routes.
    bool take_announcements();
    /// Has the routes of others read anew, where there are any. A new one is always announced, but
    /// with its link, address or next-hop object the kernel drops one without a word.
    void forget_foreign();

    std::array<FragmentFile, 2>& fragments() { return fragments_; }
    const std::array<FragmentFile, 2>& fragments() const { return fragments_; }

    /// What is to be, and what is, in the mode last known; changes nothing.
    View look(const Surroundings& surroundings, bool guesses);

    struct Result {
        View view;  ///< after it
        std::vector<Step> taken;
        std::vector<std::string> failed_removals;
        std::string mode_reason;    ///< told when the kernel was found to lack something
        bool is_uncertain = false;  ///< some route waits for what the dumps will tell
        bool is_shared = false;     ///< some next hop follows the dumps
        /// Addresses of the uplinks that left the last route of their family which used them.
        std::vector<Address> abandoned;

        bool is_whole() const { return view.problem.empty(); }
    };
    /// Deletes the connection-tracking entries translated to these addresses.
    FlowTable::Result forget_flows(const std::vector<Address>& addresses);

    Result put_into_force(const Surroundings& surroundings, bool guesses);
    /// The same with a kernel that takes everything and does nothing.
    Result rehearse(const Surroundings& surroundings, bool guesses);

    /// What is to be, for whoever writes the kernel's routes instead of us. Routes of others are
    /// not looked at.
    Result plan_for_others(const Surroundings& surroundings, bool guesses);
    /// What each fragment asks for is known, or there is none: the plan lacks nothing.
    bool knows_fragments() const;

    /// Takes away everything of ours; what could not be is told.
    std::vector<std::string> flush();

    Mode mode() const { return mode_; }
    /// Buckets that lead to each hop object of a group.
    std::vector<std::pair<std::uint32_t, int>> buckets_of(std::uint32_t group);
    /// What the kernel has of everything that is ours, or why that cannot be had.
    Listing list();

  private:
    Result apply(const Surroundings& surroundings, bool guesses, const TakeSteps& take);
    Wanted plan(const Surroundings& surroundings, const KernelState& kernel, bool guesses,
                Mode mode) const;
    void learn_foreign(const Wanted& wanted, std::string& problem);
    std::vector<Address> note_use(const KernelState& before, const View& after);

    std::string name_;
    std::uint32_t table_;
    Mode mode_;
    std::optional<NamespaceIdentity> identity_;
    RouteSocket socket_;
    RouteMonitor monitor_;
    std::optional<FlowTable> flows_;
    std::array<FragmentFile, 2> fragments_;

    std::set<Prefix> watched_prefixes_;  // whose foreign routes are known
    std::vector<KernelRoute> foreign_;
    bool knows_foreign_ = false;

    /// (interface, family) in use by some route -> its addresses, the last that were seen.
    using Use = std::map<std::pair<std::string, Family>, std::set<Address>>;
    Use in_use_;
};

}  // namespace lbroute

#pragma once

#include <map>
#include <string>

#include "config/context.h"
#include "config/lb_data.h"

/// Turns the state of a worker's interfaces into multipath routes and hands them to the routing
/// daemon. Without a state of its own: what it remembers between cycles lives in `LBData`, and in
/// the worker's `OwnRecords` what the routes were made from. Each worker runs it for its own
/// namespace and family.
class LBDecision {
  public:
    /// Interface name -> weight: the interfaces that may carry a rule's traffic now.
    using Weights = std::map<std::string, int>;
    using HealthEntry = std::map<std::string, LBHealth>::iterator;
    using RuleEntry = std::map<std::string, LBRule>::iterator;
    using TargetEntry = std::map<std::string, int>::iterator;

    /// The whole decision; nothing where all of the worker's interfaces are as they were. Where the
    /// routes of the namespace changed since the last run, the fragment is rewritten, the routing
    /// daemon gets SIGHUP, and the kernel's route cache is flushed. The new text is remembered
    /// first: a failed write is not tried again until the routes change (B102).
    void run(LBData& data, context* ctx);

    /// The active members of a rule with their weights; of a failover rule only the heaviest, among
    /// equals the first by name.
    Weights get_new_weights(LBData& data, LBRule& rule, context* ctx);

    /// The route lines of one rule, its members in the order of their names; destinations without a
    /// usable member have none.
    std::string routes_of(LBData& data, RuleEntry rule, context* ctx);

    /// Appends an interface's clause to a route line and sets `is_added`, where the interface is an
    /// active member with a next hop and a weight. The next hop of a failover rule goes to the
    /// rule's `chosen_nexthops`. Null pointers do nothing.
    void generate_route(HealthEntry health, std::string* line, bool* is_added, RuleEntry rule,
                        const Weights& weights, TargetEntry target, context* ctx);

    /// Runs a shell command without its error output. With `read`, each line that it prints goes to
    /// `output`, followed by a blank. Gives the status of pclose(3), or -1 when nothing ran.
    int execute(std::string command, std::string& output, context* ctx, bool read);
};

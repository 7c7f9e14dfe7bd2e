#pragma once

#include <map>
#include <span>
#include <string>
#include <vector>

#include "config/context.h"
#include "config/lb_data.h"

/// The records that belong to one worker (config/live_state.h): the interfaces of its namespace and
/// family, and the rules of its namespace, each in the order of their names. Found at the first
/// question and kept, for the structure of the data never changes after start-up: a walk along
/// everybody's records in each cycle of each worker would cost the square of the namespaces. One
/// thread's own; owns none of the records.
class OwnRecords {
  public:
    using Rule = std::map<std::string, LBRule>::iterator;

    std::span<LBHealth* const> interfaces(LBData& data, const context& ctx);
    std::span<const LBHealth* const> interfaces(const LBData& data, const context& ctx);
    std::span<const Rule> rules(LBData& data, const context& ctx);

    /// Whether an interface has become active or inactive, or learnt another next hop, since the
    /// last question; true for the first one. Nothing else changes the routes of a worker.
    bool is_routed_anew(LBData& data, const context& ctx);

  private:
    void find(LBData& data, const context& ctx);

    /// What an interface gives to the routes.
    struct Routed {
        bool active = false;
        std::string nexthop;
    };

    const LBData* data_ = nullptr;  ///< whose records these are
    std::vector<LBHealth*> interfaces_;
    std::vector<Rule> rules_;
    std::vector<Routed> routed_;  ///< at the last question, by interface
    bool was_asked_ = false;
};

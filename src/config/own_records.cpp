#include "config/own_records.h"

#include <utility>

std::span<LBHealth* const> OwnRecords::interfaces(LBData& data, const context& ctx) {
    find(data, ctx);
    return interfaces_;
}

std::span<const LBHealth* const> OwnRecords::interfaces(const LBData& data, const context& ctx) {
    find(const_cast<LBData&>(data), ctx);  // for those who may change the data
    return interfaces_;
}

std::span<const OwnRecords::Rule> OwnRecords::rules(LBData& data, const context& ctx) {
    find(data, ctx);
    return rules_;
}

bool OwnRecords::is_routed_anew(LBData& data, const context& ctx) {
    find(data, ctx);
    bool is_anew = !std::exchange(was_asked_, true);
    routed_.resize(interfaces_.size());
    for (std::size_t i = 0; i < interfaces_.size(); ++i) {
        const LBHealth& now = *interfaces_[i];
        Routed& before = routed_[i];
        if (before.active != now.active || before.nexthop != now.effective_nexthop()) {
            before = {.active = now.active, .nexthop = now.effective_nexthop()};
            is_anew = true;
        }
    }
    return is_anew;
}

void OwnRecords::find(LBData& data, const context& ctx) {
    if (data_ == &data) {
        return;
    }
    data_ = &data;
    interfaces_.clear();
    rules_.clear();
    routed_.clear();
    was_asked_ = false;
    for (auto& [name, health] : data.family(ctx.ipv6)) {
        if (health.namespace_name == *ctx.ns_name) {
            interfaces_.push_back(&health);
        }
    }
    for (auto rule = data.rules.begin(); rule != data.rules.end(); ++rule) {
        if (rule->second.namespace_name == *ctx.ns_name) {
            rules_.push_back(rule);
        }
    }
}

#include "lbsim/truth.h"

#include <set>
#include <string>

namespace lbsim {

namespace {

/// All that events can change of one uplink.
struct State {
    bool is_watched = true;
    bool passes = true;
    bool is_link_up = true;
    bool is_nexthop_alive = true;
    double loss_percent = 0;
    bool is_slow = false;
    double duplicate_percent = 0;
    double reorder_percent = 0;
    std::set<std::string> cut_targets;
    std::set<std::string> lossy_targets;

    void take(const Event& event, const Uplink& uplink);
    Condition condition(const Uplink& uplink) const;
};

void State::take(const Event& event, const Uplink& uplink) {
    if (!event.target.empty()) {
        if (event.uplink.empty()) {
            return;  // of the target, not of the uplink
        }
        // Whatever happens to a target takes the place of what was before.
        cut_targets.erase(event.target);
        lossy_targets.erase(event.target);
        const bool is_loss = event.change == Change::loss;
        if (event.change == Change::dead || (is_loss && event.percent >= 100)) {
            cut_targets.insert(event.target);
        } else if (is_loss && event.percent > 0) {
            lossy_targets.insert(event.target);
        }
        return;
    }
    switch (event.change) {
        case Change::dead:
            passes = false;
            break;
        case Change::alive:
            passes = true;
            break;
        case Change::loss:
            loss_percent = event.percent;
            break;
        case Change::delay:
            is_slow = event.delay_ms != 0 || event.jitter_ms != 0;
            break;
        case Change::duplicates:
            duplicate_percent = event.percent;
            break;
        case Change::reorder:
            reorder_percent = event.percent;
            break;
        case Change::link_down:
            is_link_up = false;
            break;
        case Change::link_up:
            is_link_up = true;
            break;
        case Change::nexthop_dead:
            is_nexthop_alive = false;
            break;
        case Change::nexthop_alive:
            is_nexthop_alive = true;
            break;
        case Change::lease:
            // The new router answers, whatever became of the one before.
            is_nexthop_alive =
                is_nexthop_alive || (!event.router.empty() && takes_lease(event, uplink));
            break;
        case Change::clock:
            break;
        case Change::clean: {
            const bool is_link_meant = event.family == Family::any;
            const bool was_link_up = is_link_up;
            *this = {};
            is_link_up = is_link_meant || was_link_up;
            break;
        }
        case Change::unwatched:
            is_watched = false;
            break;
        case Change::watched:
            is_watched = true;
            break;
    }
}

Condition State::condition(const Uplink& uplink) const {
    if (!is_watched) {
        return Condition::unknown;
    }
    const bool is_cut_off = !uplink.has_nexthop_as_target &&
                            cut_targets.size() == uplink.targets.size() && !cut_targets.empty();
    if (!passes || !is_link_up || !is_nexthop_alive || loss_percent >= 100 || is_cut_off) {
        return Condition::dead;
    }
    const bool is_impaired = loss_percent > 0 || is_slow || duplicate_percent > 0 ||
                             reorder_percent > 0 || !cut_targets.empty() || !lossy_targets.empty();
    return is_impaired ? Condition::impaired : Condition::good;
}

}  // namespace

Truth truth_of(const Uplink& uplink, const Scenario& events) {
    Truth truth{{}};
    State state;
    for (const Event& event : events) {
        if (!concerns(event, uplink)) {
            continue;
        }
        state.take(event, uplink);
        const Condition condition = state.condition(uplink);
        if (truth.back().from_us == event.at_us) {
            truth.back().condition = condition;
        } else if (truth.back().condition != condition) {
            truth.push_back({event.at_us, condition});
        }
    }
    return truth;
}

Condition condition_at(const Truth& truth, std::int64_t at_us) {
    Condition condition = Condition::good;
    for (const Stretch& stretch : truth) {
        if (stretch.from_us > at_us) {
            break;
        }
        condition = stretch.condition;
    }
    return condition;
}

}  // namespace lbsim

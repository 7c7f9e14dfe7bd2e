#include "lbsim/summary.h"

#include <algorithm>
#include <utility>

namespace lbsim {

namespace {

/// Something that is on or off, as changes with their moments; off at first.
struct Switch {
    struct Turn {
        std::int64_t at_us = 0;
        bool is_on = false;
    };
    std::vector<Turn> turns;

    bool is_on_at(std::int64_t at_us) const {
        bool is_on = false;
        for (const Turn& turn : turns) {
            if (turn.at_us >= at_us) {  // what happens at the very moment comes behind it
                break;
            }
            is_on = turn.is_on;
        }
        return is_on;
    }
    /// The first turn that way in [from, to).
    std::optional<std::int64_t> first(bool is_on, std::int64_t from_us, std::int64_t to_us) const {
        for (const Turn& turn : turns) {
            if (turn.at_us >= from_us && turn.at_us < to_us && turn.is_on == is_on) {
                return turn.at_us;
            }
        }
        return std::nullopt;
    }
    int count(std::int64_t from_us, std::int64_t to_us) const {
        return static_cast<int>(
            std::count_if(turns.begin(), turns.end(), [from_us, to_us](const Turn& turn) {
                return turn.at_us >= from_us && turn.at_us < to_us;
            }));
    }
};

/// How long, within [from, to), the switch was that way while the truth had that condition.
std::int64_t overlap_us(const Switch& of, bool is_on, const Truth& truth, Condition condition,
                        std::int64_t from_us, std::int64_t to_us) {
    std::vector<std::int64_t> moments{from_us, to_us};
    for (const auto& turn : of.turns) {
        moments.push_back(turn.at_us);
    }
    for (const Stretch& stretch : truth) {
        moments.push_back(stretch.from_us);
    }
    std::erase_if(moments, [from_us, to_us](std::int64_t moment) {
        return moment < from_us || moment > to_us;
    });
    std::sort(moments.begin(), moments.end());
    std::int64_t sum_us = 0;
    for (std::size_t i = 0; i + 1 < moments.size(); ++i) {
        const std::int64_t middle_us = moments[i] + 1;
        if (moments[i + 1] > moments[i] && of.is_on_at(middle_us) == is_on &&
            condition_at(truth, moments[i]) == condition) {
            sum_us += moments[i + 1] - moments[i];
        }
    }
    return sum_us;
}

/// All that one uplink's rows are worked out from.
struct UplinkStory {
    std::size_t number = 0;
    Truth truth;
    Switch active;
    Switch routed;

    /// `is_of_target`: no event of the moment is the uplink's own, so it may go either way.
    Row row(std::int64_t from_us, std::int64_t to_us, std::string event, bool is_of_target) const;
};

Row UplinkStory::row(std::int64_t from_us, std::int64_t to_us, std::string event,
                     bool is_of_target) const {
    Row row{.at_us = from_us, .event = std::move(event), .uplink = number};
    row.condition = condition_at(truth, from_us);
    const bool is_active = active.is_on_at(from_us);
    const bool is_open =
        is_of_target || row.condition == Condition::impaired || row.condition == Condition::unknown;
    const bool wants_active = is_open ? !is_active : row.condition == Condition::good;
    row.was_active = is_active;
    row.is_expected = !is_open && wants_active != is_active;
    const auto followed = active.first(wants_active, from_us, to_us);
    if (wants_active != is_active && followed) {
        row.state_after_us = *followed - from_us;
        // A route that moves later moves for another reason: a main uplink that fails, say.
        constexpr std::int64_t prompt_us = 2'000'000;
        const std::int64_t until_us = std::min(to_us, *followed + prompt_us);
        if (const auto moved = routed.first(wants_active, *followed, until_us)) {
            row.route_after_us = *moved - from_us;
        }
    }
    row.into_dead_us = overlap_us(routed, true, truth, Condition::dead, from_us, to_us);
    row.left_unused_us = overlap_us(active, false, truth, Condition::good, from_us, to_us);
    row.flaps = active.count(from_us, to_us) - (row.state_after_us ? 1 : 0);
    return row;
}

UplinkStory story_of(const Uplink& uplink, std::size_t number, const Scenario& events,
                     const Run& run) {
    UplinkStory story{
        .number = number, .truth = truth_of(uplink, events), .active = {}, .routed = {}};
    for (const ObservedChange& told : run.told) {
        if (told.kind == ObservedChange::Kind::state && told.uplink == uplink.name &&
            told.is_ipv6 == uplink.is_ipv6 && told.ns_name == uplink.ns_name) {
            story.active.turns.push_back({told.at_us, told.is_up});
        }
    }
    for (const Routed& routed : run.routed) {
        if (routed.uplink == number) {
            story.routed.turns.push_back({routed.at_us, routed.is_routed});
        }
    }
    return story;
}

}  // namespace

Summary summarize(const std::vector<Uplink>& uplinks, const Scenario& events, const Run& run) {
    Summary summary;
    for (std::size_t i = 0; i < uplinks.size(); ++i) {
        const UplinkStory story = story_of(uplinks[i], i, events, run);
        struct Begin {
            std::int64_t at_us = 0;
            std::string text{};
            bool is_of_target = false;
        };
        std::vector<Begin> begins{{0, "start", false}};
        for (const Event& event : events) {
            if (event.at_us >= run.duration_us || !concerns(event, uplinks[i])) {
                continue;
            }
            // Events of one moment are one row; what is so from the start is part of it.
            const bool is_of_target = !event.target.empty();
            if (begins.back().at_us == event.at_us) {
                begins.back().text += ", " + event.text;
                begins.back().is_of_target = begins.back().is_of_target && is_of_target;
            } else {
                begins.push_back({event.at_us, event.text, is_of_target});
            }
        }
        UplinkTotal total;
        for (std::size_t k = 0; k < begins.size(); ++k) {
            const std::int64_t to_us =
                k + 1 < begins.size() ? begins[k + 1].at_us : run.duration_us;
            summary.rows.push_back(
                story.row(begins[k].at_us, to_us, begins[k].text, begins[k].is_of_target));
            total.into_dead_us += summary.rows.back().into_dead_us;
            total.left_unused_us += summary.rows.back().left_unused_us;
            total.flaps += summary.rows.back().flaps;
        }
        total.changes = story.active.count(0, run.duration_us + 1);
        for (const Condition condition :
             {Condition::good, Condition::impaired, Condition::dead, Condition::unknown}) {
            total.active_us +=
                overlap_us(story.active, true, story.truth, condition, 0, run.duration_us);
        }
        for (const bool is_on : {false, true}) {
            total.dead_us +=
                overlap_us(story.active, is_on, story.truth, Condition::dead, 0, run.duration_us);
            total.unwatched_us += overlap_us(story.active, is_on, story.truth, Condition::unknown,
                                             0, run.duration_us);
        }
        summary.uplinks.push_back(total);
    }
    std::stable_sort(summary.rows.begin(), summary.rows.end(),
                     [](const Row& one, const Row& other) { return one.at_us < other.at_us; });
    return summary;
}

void Totals::add(const Row& row) {
    ++rows;
    asked += row.is_expected ? 1 : 0;
    if (row.state_after_us) {
        ++followed;
        state_after_us += *row.state_after_us;
        longest_state_after_us = std::max(longest_state_after_us, *row.state_after_us);
    }
    if (row.route_after_us) {
        ++routes_followed;
        route_after_us += *row.route_after_us;
    }
    into_dead_us += row.into_dead_us;
    left_unused_us += row.left_unused_us;
    flaps += row.flaps;
}

}  // namespace lbsim

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "lbsim/replay_recorded.h"

namespace lbsim {

namespace {

/// How a target was over a part of the time.
struct Condition {
    Part part{};
    Change change{};
    int percent = 0;  ///< of `loss`

    bool is_like(const Condition& other) const {
        return change == other.change && percent == other.percent;
    }
};

Condition condition_of(const Observation& one, const Part& part) {
    if (one.missed == 0 || one.answered == 0) {
        return {.part = part, .change = one.missed == 0 ? Change::alive : Change::dead};
    }
    const double share = 100.0 * one.missed / (one.answered + one.missed);
    return {.part = part, .change = Change::loss, .percent = static_cast<int>(std::lround(share))};
}

/// A minute in which an outage was judged tells no more than that, unless nothing at all was
/// answered in it while the outage as far as it is known did not last so long: the target was still
/// silent when somebody looked again.
bool is_explained(const Observation& one, const std::vector<Outage>& outages) {
    const Part minute{one.at_ms, one.at_ms + minute_ms};
    const auto judged = outages_of(minute, outages);
    return !judged.empty() &&
           (one.answered > 0 ||
            std::any_of(judged.begin(), judged.end(), [&minute](const Outage& outage) {
                return minute.shared_ms(outage.silent) == minute_ms;
            }));
}

/// When the observation begins to tell how the target was. The counts of a minute in which a
/// watcher was killed are those of the next one alone: where nothing was answered in them, that
/// holds from its begin on, and from what a verdict of that minute tells.
std::int64_t begin_of(const Observation& one, const Recorded& recorded,
                      const std::vector<Outage>& outages) {
    if (one.answered > 0) {
        return one.at_ms;
    }
    const Part minute{one.at_ms, one.at_ms + minute_ms};
    std::int64_t begin_ms = one.at_ms;
    const auto take = [&](std::int64_t at_ms) {
        begin_ms = at_ms < minute.end_ms ? std::max(begin_ms, at_ms) : begin_ms;
    };
    const auto behind =
        std::partition_point(recorded.watched.begin(), recorded.watched.end(),
                             [&minute](const Part& part) { return part.begin_ms < minute.end_ms; });
    if (behind != recorded.watched.begin()) {
        take(std::prev(behind)->begin_ms);
    }
    for (const Outage& outage : outages_of(minute, outages)) {
        if (outage.failed) {
            take(outage.silent.begin_ms);
        }
        if (outage.returned) {
            take(outage.returned->at_ms);
        }
    }
    return begin_ms;
}

/// What was not as at the start, in the order of time, without overlaps. What was seen lasts until
/// the next look; what an outage explains is the outage's.
std::vector<Condition> conditions_at(const Recorded& recorded, const TargetRecord& record,
                                     const Part& all) {
    std::vector<Condition> conditions;
    for (std::size_t i = 0; i < record.seen.size(); ++i) {
        const Observation& one = *record.seen[i];
        if (one.missed == 0 || is_explained(one, record.outages)) {
            continue;
        }
        const std::int64_t until_ms = i + 1 < record.seen.size()
                                          ? begin_of(*record.seen[i + 1], recorded, record.outages)
                                          : all.end_ms;
        conditions.push_back(
            condition_of(one, {begin_of(one, recorded, record.outages), until_ms}));
    }
    for (const Outage& outage : record.outages) {
        Part silent = outage.silent;
        if (!outage.returned) {
            // Still so when nobody looked any more.
            const auto next = std::find_if(
                recorded.watched.begin(), recorded.watched.end(),
                [&silent](const Part& part) { return part.begin_ms >= silent.end_ms; });
            silent.end_ms = next == recorded.watched.end() ? all.end_ms : next->begin_ms;
        }
        conditions.push_back({.part = silent, .change = Change::dead});
    }
    std::sort(conditions.begin(), conditions.end(),
              [](const Condition& one, const Condition& other) {
                  return one.part.begin_ms < other.part.begin_ms;
              });
    for (std::size_t i = 0; i + 1 < conditions.size(); ++i) {
        Part& part = conditions[i].part;
        part.end_ms = std::min(part.end_ms, conditions[i + 1].part.begin_ms);
    }
    for (Condition& one : conditions) {
        one.part = {std::max(one.part.begin_ms, all.begin_ms),
                    std::min(one.part.end_ms, all.end_ms)};
    }
    std::erase_if(conditions,
                  [](const Condition& one) { return one.part.end_ms <= one.part.begin_ms; });
    return conditions;
}

class ScenarioWriter {
  public:
    ScenarioWriter(const Recorded& recorded, const Part& all, Scenario& scenario)
        : recorded_(recorded), all_(all), scenario_(scenario) {}

    void add_targets() {
        for (const auto& [target, record] : recorded_.targets) {
            add(target, conditions_at(recorded_, record, all_));
        }
    }

    /// How long nobody looked.
    std::int64_t add_unwatched() {
        std::int64_t from_ms = all_.begin_ms;
        std::int64_t unwatched_ms = 0;
        const auto add_until = [&](std::int64_t until_ms) {
            if (until_ms > from_ms) {
                unwatched_ms += until_ms - from_ms;
                add(from_ms, "", Change::unwatched, "not watched");
                if (until_ms < all_.end_ms) {
                    add(until_ms, "", Change::watched, "watched again");
                }
            }
        };
        for (const Part& part : recorded_.watched) {
            add_until(part.begin_ms);
            from_ms = part.end_ms;
        }
        add_until(all_.end_ms);
        return unwatched_ms;
    }

  private:
    void add(const std::string& target, const std::vector<Condition>& conditions) {
        for (std::size_t i = 0; i < conditions.size(); ++i) {
            const Condition& one = conditions[i];
            const bool goes_on = i > 0 && conditions[i - 1].part.end_ms == one.part.begin_ms;
            if (!goes_on || !conditions[i - 1].is_like(one)) {
                add(one.part.begin_ms, target, one.change,
                    one.change == Change::dead ? "dead"
                                               : "loss " + std::to_string(one.percent) + "%",
                    one.percent);
            }
            const bool is_over =
                i + 1 == conditions.size() || conditions[i + 1].part.begin_ms > one.part.end_ms;
            if (is_over && one.part.end_ms < all_.end_ms) {
                add(one.part.end_ms, target, Change::alive, "alive");
            }
        }
    }

    void add(std::int64_t at_ms, const std::string& target, Change change, const std::string& what,
             double percent = 0) {
        const Uplink& uplink = *recorded_.uplink;
        Event event;
        event.at_us = (at_ms - all_.begin_ms) * 1000;
        event.uplink = uplink.name;
        event.family = uplink.is_ipv6 ? Family::ipv6 : Family::ipv4;
        event.target = target;
        event.change = change;
        event.percent = percent;
        event.text = uplink.name + " " + family_word(uplink.is_ipv6) + " " +
                     (target.empty() ? "" : "target " + target + " ") + what;
        scenario_.push_back(std::move(event));
    }

    const Recorded& recorded_;
    Part all_;
    Scenario& scenario_;
};

}  // namespace

void add_events(const Recorded& recorded, const Part& all, Scenario& scenario) {
    ScenarioWriter(recorded, all, scenario).add_targets();
}

std::int64_t add_unwatched(const Recorded& recorded, const Part& all, Scenario& scenario) {
    return ScenarioWriter(recorded, all, scenario).add_unwatched();
}

}  // namespace lbsim

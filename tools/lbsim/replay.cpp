#include "lbsim/replay.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <optional>
#include <span>
#include <tuple>
#include <utility>

namespace lbsim {

namespace {

constexpr std::int64_t minute_ms = 60'000;

using Path = std::tuple<std::string, bool, std::string>;  // uplink, is IPv6, target

template <class Seen>
Path path_of(const Seen& seen) {
    return {seen.uplink, seen.is_ipv6, seen.target};
}

std::string shown_path(const Path& path) {
    return std::get<0>(path) + " " + family_word(std::get<1>(path)) + " target " +
           std::get<2>(path);
}

/// A part of the time, in milliseconds since the epoch.
struct Part {
    std::int64_t begin_ms = 0;
    std::int64_t end_ms = 0;

    bool holds(std::int64_t at_ms) const { return at_ms >= begin_ms && at_ms <= end_ms; }
    std::int64_t shared_ms(const Part& other) const {
        return std::max<std::int64_t>(
            0, std::min(end_ms, other.end_ms) - std::max(begin_ms, other.begin_ms));
    }
};

/// Of sorted parts, those that lie together become one; clipped.
std::vector<Part> joined(std::vector<Part> parts, const Part& within) {
    constexpr std::int64_t touching_ms = 1000;
    std::sort(parts.begin(), parts.end(), [](const Part& one, const Part& other) {
        return std::tie(one.begin_ms, one.end_ms) < std::tie(other.begin_ms, other.end_ms);
    });
    std::vector<Part> joined;
    for (Part part : parts) {
        part = {std::max(part.begin_ms, within.begin_ms), std::min(part.end_ms, within.end_ms)};
        if (part.end_ms <= part.begin_ms) {
            continue;
        }
        if (!joined.empty() && part.begin_ms - joined.back().end_ms <= touching_ms) {
            joined.back().end_ms = std::max(joined.back().end_ms, part.end_ms);
        } else {
            joined.push_back(part);
        }
    }
    return joined;
}

/// A target was silent through an uplink. The turns are those of its verdict, where they are known.
struct Outage {
    Part silent{};
    Part judged{};  ///< from its first lost echo to the verdict behind it: what it explains
    std::optional<Turn> failed{};
    std::optional<Turn> returned{};
};

struct Place {
    std::vector<const Observation*> seen{};
    std::vector<const Turn*> turns{};
    std::vector<Outage> outages{};
};

/// All that was recorded of one uplink of the configuration.
struct Recorded {
    const Uplink* uplink = nullptr;
    std::vector<Part> watched{};
    std::map<std::string, Place> places{};  ///< by target
};

/// From the first failed verdict to the success behind it, or as far as the part goes. What was
/// lost before the part began is lost from its begin on.
std::vector<Outage> outages_in(const Part& part, const std::vector<const Turn*>& turns) {
    std::vector<Outage> outages;
    bool is_first = true;
    for (const Turn* turn : turns) {
        if (!part.holds(turn->at_ms)) {
            continue;
        }
        const bool is_open = !outages.empty() && !outages.back().returned;
        if (turn->is_success && (is_open || is_first)) {
            if (!is_open) {
                outages.push_back({.silent = part, .judged = part});
            }
            outages.back().returned = *turn;
        } else if (!turn->is_success && !is_open) {
            outages.push_back({.silent = part, .judged = part, .failed = *turn});
        }
        is_first = false;
    }
    return outages;
}

/// Places begin and end by the verdicts and the time that an unanswered echo takes.
void place(Outage& outage, const Part& part, std::int64_t failure_ms, std::int64_t answer_ms) {
    const std::int64_t cycle_ms = answer_ms / 2;
    if (outage.failed) {
        const std::int64_t lost_ms = outage.failed->in_a_row * failure_ms;
        outage.silent.begin_ms = std::max(part.begin_ms, outage.failed->at_ms - lost_ms);
    }
    if (outage.returned) {
        const Turn& turn = *outage.returned;
        // When the first echo that was answered left; the outage ended while the one before waited.
        const std::int64_t sent_ms = turn.at_ms - turn.in_a_row * answer_ms + cycle_ms;
        const std::int64_t least_ms =
            outage.failed ? outage.failed->at_ms - failure_ms : outage.silent.begin_ms;
        outage.silent.end_ms = std::max(sent_ms - failure_ms / 2, least_ms);
        outage.judged.end_ms = turn.at_ms;
    }
    outage.judged.begin_ms = outage.silent.begin_ms;
}

/// Those that were judged within the minute; they are in the order of time.
std::span<const Outage> outages_of(const Part& minute, const std::vector<Outage>& outages) {
    const auto first = std::partition_point(
        outages.begin(), outages.end(),
        [&minute](const Outage& one) { return one.judged.end_ms <= minute.begin_ms; });
    const auto last = std::partition_point(first, outages.end(), [&minute](const Outage& one) {
        return one.judged.begin_ms < minute.end_ms;
    });
    return {first, last};
}

/// What was counted while the outage was judged tells when its first echo was given up, and so how
/// long each of the next ones took. None, where another outage shares a minute with it: nobody
/// knows whose they are.
std::optional<std::int64_t> counted_failure_ms(const Outage& outage, const Place& place,
                                               const Part& part, std::int64_t answer_ms) {
    if (!outage.failed || !outage.returned || outage.failed->in_a_row < 2) {
        return std::nullopt;
    }
    std::int64_t missed_ms = 0;
    auto one = std::partition_point(place.seen.begin(), place.seen.end(),
                                    [&outage](const Observation* seen) {
                                        return seen->at_ms + minute_ms <= outage.judged.begin_ms;
                                    });
    for (; one != place.seen.end() && (*one)->at_ms < outage.judged.end_ms; ++one) {
        const Part minute{(*one)->at_ms, (*one)->at_ms + minute_ms};
        if (outages_of(minute, place.outages).size() > 1) {
            return std::nullopt;
        }
        missed_ms += (*one)->missed * minute.shared_ms(part) / ((*one)->answered + (*one)->missed);
    }
    const Turn& returned = *outage.returned;
    const std::int64_t first_answer_ms = returned.at_ms - (returned.in_a_row - 1) * answer_ms;
    const std::int64_t first_failure_ms = first_answer_ms - missed_ms;
    return (outage.failed->at_ms - first_failure_ms) / (outage.failed->in_a_row - 1);
}

/// How long an unanswered echo of the recorded daemon took.
std::int64_t recorded_failure_ms(const Recorded& recorded, std::int64_t configured_ms,
                                 std::int64_t answer_ms) {
    constexpr std::size_t enough = 3;
    std::vector<std::int64_t> counted;
    for (const auto& [target, place] : recorded.places) {
        for (const Outage& outage : place.outages) {
            for (const Part& part : recorded.watched) {
                const auto one = part.holds(outage.judged.end_ms)
                                     ? counted_failure_ms(outage, place, part, answer_ms)
                                     : std::nullopt;
                if (one && *one > 0) {
                    counted.push_back(*one);
                }
            }
        }
    }
    if (counted.size() < enough) {
        return configured_ms;
    }
    // The one in the middle: what else was lost in those minutes does not move it.
    std::sort(counted.begin(), counted.end());
    const std::int64_t median_ms = counted[counted.size() / 2];
    const std::int64_t doubtful_ms = std::max<std::int64_t>(1500, configured_ms / 4);
    return std::abs(median_ms - configured_ms) > doubtful_ms ? median_ms : configured_ms;
}

/// Finds the outages of all targets of the uplink; a doubt where the recorded daemon was another.
void find_outages(Recorded& recorded, std::vector<std::string>& doubts) {
    constexpr std::int64_t us_of_ms = 1000;
    const std::int64_t answer_ms = recorded.uplink->answer_us / us_of_ms;
    const std::int64_t configured_ms = recorded.uplink->failure_us / us_of_ms;
    const auto find = [&](std::int64_t failure_ms) {
        for (auto& [target, its] : recorded.places) {
            its.outages.clear();
            for (const Part& part : recorded.watched) {
                for (Outage& outage : outages_in(part, its.turns)) {
                    place(outage, part, failure_ms, answer_ms);
                    its.outages.push_back(std::move(outage));
                }
            }
        }
    };
    find(configured_ms);
    const std::int64_t failure_ms = recorded_failure_ms(recorded, configured_ms, answer_ms);
    if (failure_ms != configured_ms) {
        find(failure_ms);
        doubts.push_back(shown(*recorded.uplink) +
                         ": an unanswered echo took the recorded daemon " +
                         shown_duration(failure_ms * us_of_ms) + ", and takes this configuration " +
                         shown_duration(configured_ms * us_of_ms) +
                         ": its outages are placed by what was recorded");
    }
}

/// Two cycles and a little: what one cause does to two targets shows so close together.
constexpr std::int64_t together_ms = 2500;

/// Moments that lie so close together become one, in the middle of them.
void bring_together(std::vector<std::int64_t*> moments) {
    std::sort(moments.begin(), moments.end(),
              [](const auto* one, const auto* other) { return *one < *other; });
    for (auto first = moments.begin(); first != moments.end();) {
        const std::int64_t begin_ms = **first;
        auto end = std::find_if(first, moments.end(), [begin_ms](const auto* moment) {
            return *moment - begin_ms > together_ms;
        });
        const std::int64_t middle_ms = begin_ms + (**std::prev(end) - begin_ms) / 2;
        for (; first != end; ++first) {
            **first = middle_ms;
        }
    }
}

void bring_together(Recorded& recorded) {
    std::vector<std::int64_t*> begins;
    std::vector<std::int64_t*> ends;
    for (auto& [target, place] : recorded.places) {
        for (Outage& outage : place.outages) {
            begins.push_back(&outage.silent.begin_ms);
            ends.push_back(&outage.silent.end_ms);
        }
    }
    bring_together(std::move(begins));
    bring_together(std::move(ends));
}

/// How a target was over a part of the time.
struct Impairments {
    Part part{};
    Change change{};
    int percent = 0;  ///< of `loss`

    bool is_like(const Impairments& other) const {
        return change == other.change && percent == other.percent;
    }
};

Impairments impairments_of(const Observation& one, std::int64_t until_ms) {
    const Part part{one.at_ms, until_ms};
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

/// What was not as at the start, in the order of time, without overlaps. What was seen lasts until
/// the next look; what an outage explains is the outage's.
std::vector<Impairments> impairments_at(const Recorded& recorded, const Place& place,
                                        const Part& all) {
    std::vector<Impairments> impairments;
    for (std::size_t i = 0; i < place.seen.size(); ++i) {
        const Observation& one = *place.seen[i];
        const std::int64_t until_ms =
            i + 1 < place.seen.size() ? place.seen[i + 1]->at_ms : all.end_ms;
        if (one.missed > 0 && !is_explained(one, place.outages)) {
            impairments.push_back(impairments_of(one, until_ms));
        }
    }
    for (const Outage& outage : place.outages) {
        Part silent = outage.silent;
        if (!outage.returned) {
            // Still so when nobody looked any more.
            const auto next = std::find_if(
                recorded.watched.begin(), recorded.watched.end(),
                [&silent](const Part& part) { return part.begin_ms >= silent.end_ms; });
            silent.end_ms = next == recorded.watched.end() ? all.end_ms : next->begin_ms;
        }
        impairments.push_back({.part = silent, .change = Change::dead});
    }
    std::sort(impairments.begin(), impairments.end(),
              [](const Impairments& one, const Impairments& other) {
                  return one.part.begin_ms < other.part.begin_ms;
              });
    for (std::size_t i = 0; i + 1 < impairments.size(); ++i) {
        Part& part = impairments[i].part;
        part.end_ms = std::min(part.end_ms, impairments[i + 1].part.begin_ms);
    }
    for (Impairments& one : impairments) {
        one.part = {std::max(one.part.begin_ms, all.begin_ms),
                    std::min(one.part.end_ms, all.end_ms)};
    }
    std::erase_if(impairments,
                  [](const Impairments& one) { return one.part.end_ms <= one.part.begin_ms; });
    return impairments;
}

class ScenarioWriter {
  public:
    ScenarioWriter(const Recorded& recorded, const Part& all, Scenario& scenario)
        : recorded_(recorded), all_(all), scenario_(scenario) {}

    void tell_targets() {
        for (const auto& [target, place] : recorded_.places) {
            tell(target, impairments_at(recorded_, place, all_));
        }
    }

    /// How long nobody looked.
    std::int64_t tell_unwatched() {
        std::int64_t from_ms = all_.begin_ms;
        std::int64_t unwatched_ms = 0;
        const auto tell_until = [&](std::int64_t until_ms) {
            if (until_ms > from_ms) {
                unwatched_ms += until_ms - from_ms;
                add(from_ms, "", Change::unwatched, "not watched");
                if (until_ms < all_.end_ms) {
                    add(until_ms, "", Change::watched, "watched again");
                }
            }
        };
        for (const Part& part : recorded_.watched) {
            tell_until(part.begin_ms);
            from_ms = part.end_ms;
        }
        tell_until(all_.end_ms);
        return unwatched_ms;
    }

  private:
    void tell(const std::string& target, const std::vector<Impairments>& impairments) {
        for (std::size_t i = 0; i < impairments.size(); ++i) {
            const Impairments& one = impairments[i];
            const bool goes_on = i > 0 && impairments[i - 1].part.end_ms == one.part.begin_ms;
            if (!goes_on || !impairments[i - 1].is_like(one)) {
                add(one.part.begin_ms, target, one.change,
                    one.change == Change::dead ? "dead"
                                               : "loss " + std::to_string(one.percent) + "%",
                    one.percent);
            }
            const bool is_over =
                i + 1 == impairments.size() || impairments[i + 1].part.begin_ms > one.part.end_ms;
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

/// When somebody looked at each uplink, by name and family.
using Watches = std::map<std::pair<std::string, bool>, std::vector<Part>>;

Watches watches_of(const History& history) {
    Watches watches;
    for (const Watch& one : history.watches) {
        watches[{one.uplink, one.is_ipv6}].push_back({one.begin_ms, one.end_ms});
    }
    if (!history.watches.empty()) {
        return watches;
    }
    std::map<std::pair<std::string, bool>, std::vector<std::int64_t>> moments;
    for (const Observation& one : history.observations) {
        moments[{one.uplink, one.is_ipv6}].push_back(one.at_ms);
    }
    for (auto& [uplink, times] : moments) {
        std::sort(times.begin(), times.end());
        for (std::size_t i = 0; i < times.size(); ++i) {
            const std::int64_t next_ms = i + 1 < times.size() ? times[i + 1] : times[i] + minute_ms;
            const bool is_gap = next_ms - times[i] > longest_gap_ms;
            watches[uplink].push_back({times[i], is_gap ? times[i] + minute_ms : next_ms});
        }
    }
    return watches;
}

/// From the first to the last moment that somebody watched an uplink of the configuration, or as
/// the period says.
Part whole_time(const Watches& watches, const Period& period, const std::vector<Uplink>& uplinks) {
    std::optional<Part> seen;
    for (const Uplink& uplink : uplinks) {
        const auto found = watches.find({uplink.name, uplink.is_ipv6});
        for (const Part& part : found == watches.end() ? std::vector<Part>{} : found->second) {
            seen = Part{std::min(seen ? seen->begin_ms : part.begin_ms, part.begin_ms),
                        std::max(seen ? seen->end_ms : part.end_ms, part.end_ms)};
        }
    }
    const Part found = seen.value_or(Part{});
    return {period.since_ms.value_or(found.begin_ms), period.until_ms.value_or(found.end_ms)};
}

/// Of each target, before the period's end, in the order of time.
template <class Seen>
std::map<Path, std::vector<const Seen*>> by_path(const std::vector<Seen>& all,
                                                 const Period& period) {
    std::map<Path, std::vector<const Seen*>> paths;
    for (const Seen& one : all) {
        if (!period.until_ms || one.at_ms < *period.until_ms) {
            paths[path_of(one)].push_back(&one);
        }
    }
    for (auto& [path, seen] : paths) {
        std::stable_sort(seen.begin(), seen.end(), [](const auto* one, const auto* other) {
            return one->at_ms < other->at_ms;
        });
    }
    return paths;
}

}  // namespace

Replayed replay_of(const History& history, const Period& period,
                   const std::vector<Uplink>& uplinks) {
    Replayed replayed;
    const Watches watches = watches_of(history);
    const Part all = whole_time(watches, period, uplinks);
    replayed.begin_ms = all.begin_ms;
    auto seen = by_path(history.observations, period);
    auto turns = by_path(history.turns, period);
    bool is_any_known = false;
    for (const Uplink& uplink : uplinks) {
        Recorded recorded{.uplink = &uplink};
        if (const auto found = watches.find({uplink.name, uplink.is_ipv6});
            found != watches.end()) {
            recorded.watched = joined(found->second, all);
        }
        for (const std::string& target : uplink.targets) {
            const Path path{uplink.name, uplink.is_ipv6, target};
            const auto known = seen.find(path);
            if (known == seen.end()) {
                replayed.doubts.push_back(shown_path(path) +
                                          ": never recorded; taken to answer always");
                continue;
            }
            is_any_known = is_any_known || !recorded.watched.empty();
            recorded.places[target] = {.seen = std::move(known->second), .turns = turns[path]};
            seen.erase(known);
        }
        find_outages(recorded, replayed.doubts);
        bring_together(recorded);
        ScenarioWriter teller(recorded, all, replayed.scenario);
        teller.tell_targets();
        if (const std::int64_t unwatched_ms = teller.tell_unwatched(); unwatched_ms > 0) {
            replayed.doubts.push_back(shown(uplink) + ": not watched for " +
                                      shown_duration(unwatched_ms * 1000) +
                                      ": told as not watched, and simulated as it was before");
        }
    }
    for (const auto& [path, of_nobody] : seen) {
        replayed.doubts.push_back(shown_path(path) +
                                  ": recorded, but not asked by this configuration");
    }
    if (!is_any_known) {
        replayed.scenario.clear();
    }
    replayed.duration_us =
        is_any_known ? std::max<std::int64_t>(0, all.end_ms - all.begin_ms) * 1000 : 0;
    std::stable_sort(replayed.scenario.begin(), replayed.scenario.end(),
                     [](const Event& one, const Event& other) { return one.at_us < other.at_us; });
    return replayed;
}

}  // namespace lbsim

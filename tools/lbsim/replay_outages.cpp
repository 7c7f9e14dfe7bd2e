#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lbsim/replay_recorded.h"
#include "lbsim/scenario_text.h"

namespace lbsim {

std::span<const Outage> outages_of(const Part& minute, const std::vector<Outage>& outages) {
    const auto first = std::partition_point(
        outages.begin(), outages.end(),
        [&minute](const Outage& one) { return one.judged.end_ms <= minute.begin_ms; });
    const auto last = std::partition_point(first, outages.end(), [&minute](const Outage& one) {
        return one.judged.begin_ms < minute.end_ms;
    });
    return {first, last};
}

namespace {

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

/// Locates begin and end by the verdicts and the time that an unanswered echo takes.
void locate(Outage& outage, const Part& part, std::int64_t failure_ms, std::int64_t answer_ms) {
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

/// What was counted while the outage was judged tells when its first echo was given up, and so how
/// long each of the next ones took. None, where another outage shares a minute with it: nobody
/// knows whose they are.
std::optional<std::int64_t> counted_failure_ms(const Outage& outage, const TargetRecord& record,
                                               const Part& part, std::int64_t answer_ms) {
    if (!outage.failed || !outage.returned || outage.failed->in_a_row < 2) {
        return std::nullopt;
    }
    std::int64_t missed_ms = 0;
    auto one = std::partition_point(record.seen.begin(), record.seen.end(),
                                    [&outage](const Observation* seen) {
                                        return seen->at_ms + minute_ms <= outage.judged.begin_ms;
                                    });
    for (; one != record.seen.end() && (*one)->at_ms < outage.judged.end_ms; ++one) {
        const Part minute{(*one)->at_ms, (*one)->at_ms + minute_ms};
        if (outages_of(minute, record.outages).size() > 1) {
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
    for (const auto& [target, record] : recorded.targets) {
        for (const Outage& outage : record.outages) {
            for (const Part& part : recorded.watched) {
                const auto one = part.holds(outage.judged.end_ms)
                                     ? counted_failure_ms(outage, record, part, answer_ms)
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
    for (auto& [target, record] : recorded.targets) {
        for (Outage& outage : record.outages) {
            begins.push_back(&outage.silent.begin_ms);
            ends.push_back(&outage.silent.end_ms);
        }
    }
    bring_together(std::move(begins));
    bring_together(std::move(ends));
}

}  // namespace

void find_outages(Recorded& recorded, std::vector<std::string>& doubts) {
    constexpr std::int64_t us_of_ms = 1000;
    const std::int64_t answer_ms = recorded.uplink->answer_us / us_of_ms;
    const std::int64_t configured_ms = recorded.uplink->failure_us / us_of_ms;
    const auto find = [&](std::int64_t failure_ms) {
        for (auto& [target, record] : recorded.targets) {
            record.outages.clear();
            for (const Part& part : recorded.watched) {
                for (Outage& outage : outages_in(part, record.turns)) {
                    locate(outage, part, failure_ms, answer_ms);
                    record.outages.push_back(std::move(outage));
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
    bring_together(recorded);
}

}  // namespace lbsim

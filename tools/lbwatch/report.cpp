#include "lbwatch/report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace lbwatch {

namespace {

/// More points than this no chart shows.
constexpr std::int64_t most_points = 360;
constexpr std::int64_t minute_ms = 60'000;

Known known_of(UplinkState state) {
    switch (state) {
        case UplinkState::unknown:
            return Known::unknown;
        case UplinkState::active:
            return Known::active;
        case UplinkState::failed:
            return Known::failed;
    }
    return Known::unknown;
}

/// Fills what no piece covers, and joins equal neighbours.
std::vector<Piece> covered(const std::map<std::int64_t, Piece>& laid, std::int64_t since_ms,
                           std::int64_t until_ms) {
    std::vector<Piece> pieces;
    const auto append = [&pieces](Piece piece) {
        if (piece.begin_ms >= piece.end_ms) {
            return;
        }
        if (!pieces.empty() && pieces.back().known == piece.known) {
            pieces.back().end_ms = piece.end_ms;
        } else {
            pieces.push_back(std::move(piece));
        }
    };
    std::int64_t at_ms = since_ms;
    for (const auto& [begin_ms, piece] : laid) {
        append({.begin_ms = at_ms, .end_ms = begin_ms, .known = Known::unwatched, .reason = ""});
        append(piece);
        at_ms = std::max(at_ms, piece.end_ms);
    }
    append({.begin_ms = at_ms, .end_ms = until_ms, .known = Known::unwatched, .reason = ""});
    return pieces;
}

std::vector<Outage> outages_of(const std::vector<Piece>& pieces, std::int64_t until_ms) {
    std::vector<Outage> outages;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const Piece& piece = pieces[i];
        if (piece.known != Known::failed) {
            continue;
        }
        outages.push_back(
            {.begin_ms = piece.begin_ms,
             .end_ms = piece.end_ms,
             .is_begin_seen = i > 0 && pieces[i - 1].known == Known::active,
             .is_end_seen = i + 1 < pieces.size() && pieces[i + 1].known == Known::active,
             .is_going_on = piece.end_ms >= until_ms,
             .reason = piece.reason});
    }
    return outages;
}

int flaps_of(const std::vector<Piece>& pieces) {
    int flaps = 0;
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        const auto is = [&](Known first, Known second) {
            return pieces[i - 1].known == first && pieces[i].known == second;
        };
        flaps += is(Known::active, Known::failed) || is(Known::failed, Known::active) ? 1 : 0;
    }
    return flaps;
}

}  // namespace

const char* word_of(Known known) {
    switch (known) {
        case Known::unwatched:
            return "unwatched";
        case Known::unknown:
            return "unknown";
        case Known::active:
            return "active";
        case Known::failed:
            return "failed";
    }
    return "unknown";
}

std::optional<double> Answers::loss() const {
    const std::int64_t all = answered + missed;
    return all == 0
               ? std::nullopt
               : std::make_optional(100.0 * static_cast<double>(missed) / static_cast<double>(all));
}

std::optional<double> UplinkReport::availability() const {
    const std::int64_t judged_ms = active_ms + failed_ms;
    return judged_ms == 0 ? std::nullopt
                          : std::make_optional(100.0 * static_cast<double>(active_ms) /
                                               static_cast<double>(judged_ms));
}

std::int64_t shown_end_ms(const Span& span) {
    constexpr std::int64_t cycle_ms = 1000;
    const bool is_begin_alone = span.state == UplinkState::failed && span.end_ms == span.begin_ms;
    return is_begin_alone ? span.begin_ms + cycle_ms : span.end_ms;
}

std::string percent_text(double percent) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.3f %%", std::floor(percent * 1000.0) / 1000.0);
    return text.data();
}

ReportMaker::ReportMaker(std::int64_t since_ms, std::int64_t until_ms, HourOf hour_of)
    : since_ms_(since_ms),
      until_ms_(std::max(until_ms, since_ms)),
      part_ms_(std::max<std::int64_t>(1, (until_ms_ - since_ms_) / minute_ms / most_points + 1) *
               minute_ms),
      hour_of_(std::move(hour_of)) {}

/// Where a clock was set back, two spans tell the same time: the later telling counts.
void ReportMaker::lay(std::map<std::int64_t, Piece>& pieces, Piece piece) const {
    piece.begin_ms = std::max(piece.begin_ms, since_ms_);
    piece.end_ms = std::min(piece.end_ms, until_ms_);
    if (piece.begin_ms >= piece.end_ms) {
        return;
    }
    auto at = pieces.upper_bound(piece.begin_ms);
    if (at != pieces.begin()) {
        Piece& before = std::prev(at)->second;
        if (before.end_ms > piece.end_ms) {
            Piece rest = before;
            rest.begin_ms = piece.end_ms;
            pieces[rest.begin_ms] = std::move(rest);
        }
        before.end_ms = std::min(before.end_ms, piece.begin_ms);
    }
    at = pieces.lower_bound(piece.begin_ms);
    while (at != pieces.end() && at->second.begin_ms < piece.end_ms) {
        if (at->second.end_ms > piece.end_ms) {
            Piece rest = at->second;
            rest.begin_ms = piece.end_ms;
            pieces[rest.begin_ms] = std::move(rest);
        }
        at = pieces.erase(at);
    }
    pieces[piece.begin_ms] = std::move(piece);
}

void ReportMaker::add(const std::vector<Span>& spans) {
    for (const Span& span : spans) {
        lay(uplinks_[span.uplink].pieces, {.begin_ms = span.begin_ms,
                                           .end_ms = shown_end_ms(span),
                                           .known = known_of(span.state),
                                           .reason = span.reason});
    }
}

void ReportMaker::add(const Minute& minute) {
    const std::int64_t begin_ms = minute.minute * minute_ms;
    if (begin_ms + minute_ms <= since_ms_ || begin_ms >= until_ms_) {
        return;
    }
    Collected& collected = uplinks_[minute.uplink];
    const auto hour = static_cast<std::size_t>(hour_of_(minute.minute));
    Sums& sums =
        collected.points[minute.target][std::max<std::int64_t>(0, begin_ms - since_ms_) / part_ms_];
    for (Answers* answers : {&collected.by_hour.at(hour), &sums.answers}) {
        answers->answered += minute.answered;
        answers->missed += minute.missed;
    }
    sums.measured += minute.measured;
    sums.loss_percent += minute.loss_percent_sum;
    sums.rtt_ms += minute.rtt_ms_sum;
    sums.jitter_ms += minute.jitter_ms_sum;
}

TargetReport ReportMaker::finish_target(const std::string& address,
                                        const std::map<std::int64_t, Sums>& parts) const {
    TargetReport target;
    target.address = address;
    for (const auto& [part, sums] : parts) {
        const std::int64_t begin_ms = since_ms_ + part * part_ms_;
        Point point{.begin_ms = begin_ms,
                    .end_ms = std::min(begin_ms + part_ms_, until_ms_),
                    .answers = sums.answers,
                    .loss_percent = {},
                    .rtt_ms = {},
                    .jitter_ms = {}};
        if (sums.measured > 0) {
            const auto mean = [measured = sums.measured](std::int64_t sum) {
                return static_cast<double>(sum) / static_cast<double>(measured);
            };
            point.loss_percent = mean(sums.loss_percent);
            point.rtt_ms = mean(sums.rtt_ms);
            point.jitter_ms = mean(sums.jitter_ms);
            target.is_measured = true;
        }
        target.answers.answered += sums.answers.answered;
        target.answers.missed += sums.answers.missed;
        target.points.push_back(point);
    }
    return target;
}

UplinkReport ReportMaker::finish(const UplinkKey& key, Collected& collected) const {
    UplinkReport report;
    report.uplink = key;
    report.pieces = covered(collected.pieces, since_ms_, until_ms_);
    for (const Piece& piece : report.pieces) {
        const std::int64_t length_ms = piece.end_ms - piece.begin_ms;
        switch (piece.known) {
            case Known::unwatched:
                report.unwatched_ms += length_ms;
                break;
            case Known::unknown:
                report.unknown_ms += length_ms;
                break;
            case Known::active:
                report.active_ms += length_ms;
                break;
            case Known::failed:
                report.failed_ms += length_ms;
                report.longest_ms = std::max(report.longest_ms, length_ms);
                break;
        }
    }
    report.outages = outages_of(report.pieces, until_ms_);
    report.flaps = flaps_of(report.pieces);
    std::int64_t begun = 0;
    std::int64_t repaired = 0;
    std::int64_t repair_ms = 0;
    for (const Outage& outage : report.outages) {
        begun += outage.is_begin_seen ? 1 : 0;
        if (outage.is_begin_seen && outage.is_end_seen) {
            ++repaired;
            repair_ms += outage.end_ms - outage.begin_ms;
        }
    }
    if (begun > 0) {
        report.mean_between_ms = report.active_ms / begun;
    }
    if (repaired > 0) {
        report.mean_repair_ms = repair_ms / repaired;
    }
    report.by_hour = collected.by_hour;
    for (const auto& [address, parts] : collected.points) {
        report.targets.push_back(finish_target(address, parts));
    }
    return report;
}

Report ReportMaker::take() {
    Report report;
    report.since_ms = since_ms_;
    report.until_ms = until_ms_;
    for (auto& [key, collected] : uplinks_) {
        report.uplinks.push_back(finish(key, collected));
    }
    uplinks_.clear();
    return report;
}

}  // namespace lbwatch

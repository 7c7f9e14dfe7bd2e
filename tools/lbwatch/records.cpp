#include "lbwatch/records.h"

#include <algorithm>

namespace lbwatch {

void SpanRecorder::see(const World::Uplinks& uplinks, std::int64_t patience_ms, const Moment& now) {
    const bool is_gap =
        last_ && (now.boot_ms - last_->boot_ms > patience_ms || clock_step_ms(*last_, now) != 0);
    if (is_gap) {
        stop();
    }
    for (auto entry = open_.begin(); entry != open_.end();) {
        const auto found = uplinks.find(entry->first);
        Span& span = entry->second.span;
        if (found != uplinks.end()) {
            // The change came between two looks; the later one is when it was seen.
            span.end_ms = std::max(span.end_ms, now.wall_ms);
            entry->second.is_new = true;
        }
        if (found == uplinks.end() || found->second.state != span.state) {
            closed_.push_back(std::move(span));
            entry = open_.erase(entry);
        } else {
            ++entry;
        }
    }
    for (const auto& [key, uplink] : uplinks) {
        if (key.family != family_ || !uplink.has_been_read || open_.contains(key)) {
            continue;
        }
        open_[key].span = {.uplink = key,
                           .state = uplink.state,
                           .begin_ms = now.wall_ms,
                           .end_ms = now.wall_ms,
                           .reason = uplink.reason};
    }
    last_ = now;
}

void SpanRecorder::stop() {
    for (auto& [key, open] : open_) {
        closed_.push_back(std::move(open.span));
    }
    open_.clear();
    last_.reset();
}

std::vector<Span> SpanRecorder::open() const {
    std::vector<Span> spans;
    for (const auto& [key, open] : open_) {
        spans.push_back(open.span);
    }
    return spans;
}

std::vector<Span> SpanRecorder::take() {
    std::vector<Span> spans = std::move(closed_);
    closed_.clear();
    for (auto& [key, open] : open_) {
        if (open.is_new) {
            spans.push_back(open.span);
            open.is_new = false;
        }
    }
    return spans;
}

void MinuteRecorder::add(const std::vector<Cycle>& cycles, const Moment& now) {
    if (cycles.empty()) {
        return;
    }
    const std::int64_t minute = now.wall_ms / 60'000;
    auto& rows = minutes_[minute];
    for (const Cycle& cycle : cycles) {
        Minute& row = rows[{cycle.uplink, cycle.target}];
        row.minute = minute;
        row.uplink = cycle.uplink;
        row.target = cycle.target;
        ++(cycle.is_answered ? row.answered : row.missed);
        if (cycle.quality) {
            ++row.measured;
            row.loss_percent_sum += cycle.quality->loss_percent;
            row.rtt_ms_sum += cycle.quality->rtt_ms;
            row.jitter_ms_sum += cycle.quality->jitter_ms;
        }
    }
}

std::vector<Minute> MinuteRecorder::take(const Moment& now, bool with_current) {
    const std::int64_t current = now.wall_ms / 60'000;
    std::vector<Minute> taken;
    std::erase_if(minutes_, [&](auto& entry) {
        if (entry.first == current && !with_current) {
            return false;
        }
        for (auto& [key, row] : entry.second) {
            taken.push_back(row);
        }
        return true;
    });
    return taken;
}

}  // namespace lbwatch

#include "lbwatch/hook_queue.h"

#include <iterator>

namespace lbwatch {

namespace {

/// Two events about the same thing differ by its states alone.
bool is_about_the_same(const Event& one, const Event& other) {
    return one.kind == other.kind && one.target == other.target &&
           one.destinations == other.destinations;
}

}  // namespace

std::string HookQueue::lane_of(const Event& event) {
    // No name holds a NUL.
    return event.uplink.name + '\0' + std::to_string(event.uplink.family) + '\0' +
           event.uplink.namespace_name + '\0' + event.rule;
}

std::size_t HookQueue::add(const Event& event) {
    auto& lane = lanes_[lane_of(event)];
    lane.push_back(event);
    if (lane.size() <= most_waiting) {
        return 0;
    }
    const std::size_t before = lane.size();
    std::deque<Event> kept;
    for (auto one = lane.begin(); one != lane.end(); ++one) {
        bool is_latest = true;
        for (auto later = std::next(one); later != lane.end() && is_latest; ++later) {
            is_latest = !is_about_the_same(*one, *later);
        }
        if (is_latest) {
            kept.push_back(std::move(*one));
        }
    }
    // An uplink of more targets than that tells at least the latest.
    while (kept.size() > most_waiting * 4) {
        kept.pop_front();
    }
    lane = std::move(kept);
    return before - lane.size();
}

std::optional<Event> HookQueue::next() {
    if (running_.size() >= most_at_once || lanes_.empty()) {
        return std::nullopt;
    }
    auto lane = lanes_.upper_bound(last_);
    for (std::size_t tried = 0; tried < lanes_.size(); ++tried, ++lane) {
        if (lane == lanes_.end()) {
            lane = lanes_.begin();
        }
        if (running_.contains(lane->first)) {
            continue;
        }
        Event event = std::move(lane->second.front());
        lane->second.pop_front();
        last_ = lane->first;
        running_.insert(lane->first);
        if (lane->second.empty()) {
            lanes_.erase(lane);
        }
        return event;
    }
    return std::nullopt;
}

void HookQueue::done(const Event& event) {
    running_.erase(lane_of(event));
}

std::size_t HookQueue::waiting() const {
    std::size_t count = 0;
    for (const auto& [name, lane] : lanes_) {
        count += lane.size();
    }
    return count;
}

}  // namespace lbwatch

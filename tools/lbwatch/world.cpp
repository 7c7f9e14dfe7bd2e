#include "lbwatch/world.h"

#include <algorithm>

#include "lbwatch/target_results.h"

namespace lbwatch {

namespace {

/// An uplink that is missing in one dump may just be read at a bad moment.
constexpr int missing_dumps = 2;
/// Ages in a dump follow the daemon's wall clock, and jump with it; what is overdue by them for
/// less than this is waited for.
constexpr std::int64_t overdue_ms = 5000;

std::optional<std::int64_t> evaluation_age_s(const dumps::Interface& item) {
    return item.is_active ? item.since_success_s : item.since_failure_s;
}

/// Since when the state in a first dump has lasted: since it was last judged to be the other one.
/// None where it never was, or where the clock has been set since.
std::optional<std::int64_t> since_last_change(const dumps::Interface& item, const Moment& now) {
    const auto age_s = item.is_active ? item.since_failure_s : item.since_success_s;
    const std::int64_t age_ms = std::int64_t{age_s.value_or(-1)} * 1000;
    if (age_ms < 0 || age_ms > now.boot_ms) {
        return std::nullopt;
    }
    return now.boot_ms - age_ms;
}

/// Two thresholds of one result each may never be told apart by runs, so a failed result counts.
bool has_failed_target(const Uplink& uplink) {
    return std::any_of(uplink.targets.begin(), uplink.targets.end(),
                       [](const auto& entry) { return entry.second.verdict == Verdict::failure; });
}

Event event_of(EventKind kind, const UplinkKey& key, const Moment& now) {
    Event event;
    event.time_ms = now.wall_ms;
    event.kind = kind;
    event.uplink = key;
    return event;
}

/// Why a failed uplink has failed where no target was seen to reach the count of failures.
std::string reason_without_verdict(const Uplink& uplink, const dumps::Interface& item) {
    return (uplink.targets.size() == 1 ? uplink.targets.begin()->first + " " : std::string()) +
           "no " + std::to_string(item.success_ct) + " answers in a row" +
           (item.since_success_s ? "" : " since the daemon started");
}

/// The targets' probes; two that share a target share its run of results as well.
std::map<std::string, std::vector<dumps::Probe>> by_target(const dumps::Interface& item) {
    std::map<std::string, std::vector<dumps::Probe>> probes;
    for (const dumps::Probe& probe : item.probes) {
        if (!probe.target.empty()) {
            probes[probe.target].push_back(probe);
        }
    }
    return probes;
}

UplinkKey key_of(const dumps::Interface& item) {
    return {.namespace_name = item.namespace_name, .family = item.family, .name = item.name};
}

}  // namespace

std::optional<std::int64_t> seconds_since(const std::optional<std::int64_t>& begin_boot_ms,
                                          const Moment& now) {
    if (!begin_boot_ms) {
        return std::nullopt;
    }
    return std::max<std::int64_t>(0, (now.boot_ms - *begin_boot_ms + 500) / 1000);
}

const char* word_of(UplinkState state) {
    switch (state) {
        case UplinkState::unknown:
            return "unknown";
        case UplinkState::active:
            return "active";
        case UplinkState::failed:
            return "failed";
    }
    return "unknown";
}

const char* word_of(Verdict verdict) {
    switch (verdict) {
        case Verdict::unknown:
            return "unknown";
        case Verdict::success:
            return "success";
        case Verdict::failure:
            return "failure";
    }
    return "unknown";
}

std::optional<UplinkState> read_uplink_state(const std::string& word) {
    for (const UplinkState state :
         {UplinkState::unknown, UplinkState::active, UplinkState::failed}) {
        if (word == word_of(state)) {
            return state;
        }
    }
    return std::nullopt;
}

void World::remember(const UplinkKey& key, UplinkState told) {
    Uplink& uplink = uplinks_[key];
    uplink.told = told;
    uplink.is_told = true;
    uplink.is_unwatched = true;
}

Changes World::read(int family, const std::vector<dumps::Interface>& interfaces,
                    std::int64_t written_s, const Moment& now) {
    Changes changes;
    if (!begun_boot_ms_) {
        begun_boot_ms_ = now.boot_ms;
    }
    std::set<std::string> namespaces;
    for (const dumps::Interface& item : interfaces) {
        namespaces.insert(item.namespace_name);
    }
    std::set<UplinkKey> present;
    for (const dumps::Interface& item : interfaces) {
        const UplinkKey key = key_of(item);
        if (!present.insert(key).second) {
            continue;
        }
        Uplink& uplink = uplinks_[key];
        // Each worker rewrites the records of all: where there are several, the date of the
        // evaluation tells whose cycle it was.
        const auto age_s = evaluation_age_s(item);
        const auto evaluated_s = age_s ? std::make_optional(written_s - *age_s) : std::nullopt;
        const bool is_new_cycle =
            namespaces.size() == 1 ||
            (evaluated_s && (!uplink.counted_s || *evaluated_s > *uplink.counted_s));
        if (is_new_cycle) {
            uplink.counted_s = evaluated_s;
        }
        read_one(key, item, is_new_cycle, written_s, now, changes);
    }
    for (Event& event : drop_missing(family, present, missing_dumps, now)) {
        changes.events.push_back(std::move(event));
    }
    last_read_boot_ms_ = now.boot_ms;
    return changes;
}

void World::read_one(const UplinkKey& key, const dumps::Interface& item, bool is_new_cycle,
                     std::int64_t written_s, const Moment& now, Changes& changes) {
    Uplink& uplink = uplinks_[key];
    uplink.missing = 0;
    std::map<std::string, Target> targets;
    for (const auto& [address, probes] : by_target(item)) {
        Target& target = targets[address] = uplink.targets[address];
        take_over(target, probes, item);
        if (is_new_cycle && target.last_result != dumps::Result::none) {
            const bool is_answered = target.last_result == dumps::Result::answered;
            ++(is_answered ? target.answered : target.missed);
            changes.cycles.push_back({.uplink = key,
                                      .target = address,
                                      .is_answered = is_answered,
                                      .quality = target.quality});
        }
    }
    // A target that is learnt with the next hop goes with it.
    uplink.targets = std::move(targets);
    uplink.cycles += is_new_cycle ? 1 : 0;
    const UplinkState before = uplink.state;
    uplink.state = judged(uplink, item, written_s, now);
    // A single target of an active uplink has answered, before this program looked.
    if (uplink.state == UplinkState::active && uplink.targets.size() == 1) {
        Target& only = uplink.targets.begin()->second;
        only.verdict = only.verdict == Verdict::unknown ? Verdict::success : only.verdict;
    }
    if (before == UplinkState::failed && last_read_boot_ms_ &&
        now.boot_ms - *last_read_boot_ms_ <= patience_ms_) {
        uplink.down_ms += now.boot_ms - *last_read_boot_ms_;
    }
    // What is met for the first time, or again after a while, began when the dump says.
    if (!uplink.is_told || (uplink.is_unwatched && uplink.is_judged)) {
        uplink.since_boot_ms = since_last_change(item, now);
    }
    tell_details(key, uplink, item, now, changes.events);
    tell_state(key, uplink, now, changes.events);
}

/// Whether an inactive uplink would be active by now if it were sound. The daemon holds each for
/// inactive from its start on, so that alone is no judgement. One that loses some answers may never
/// have as many failures in a row as make a target fail.
bool World::has_had_time(const Uplink& uplink, const dumps::Interface& item,
                         const Moment& now) const {
    if (item.since_success_s) {
        return true;  // this daemon has held it for active
    }
    // A sound target is answered in every second cycle: time for two whole runs of answers.
    const std::int64_t cycles = std::int64_t{4} * item.success_ct;
    const bool is_broken = std::any_of(uplink.targets.begin(), uplink.targets.end(),
                                       [](const auto& entry) { return entry.second.is_broken; });
    return item.since_failure_s && is_broken && uplink.cycles >= cycles && begun_boot_ms_ &&
           now.boot_ms - *begun_boot_ms_ >= patience_ms_;
}

UplinkState World::judged(Uplink& uplink, const dumps::Interface& item, std::int64_t written_s,
                          const Moment& now) const {
    uplink.is_judged = uplink.is_judged || item.is_active || has_failed_target(uplink) ||
                       has_had_time(uplink, item, now);
    if (!uplink.is_judged) {
        return UplinkState::unknown;
    }
    const auto age_s = evaluation_age_s(item);
    uplink.evaluated_s = age_s ? std::make_optional(written_s - *age_s) : std::nullopt;
    const bool is_overdue = age_s && std::int64_t{*age_s} * 1000 > patience_ms_;
    if (!is_overdue) {
        uplink.overdue_since_ms.reset();
    } else if (!uplink.overdue_since_ms) {
        uplink.overdue_since_ms = now.boot_ms;
    }
    if (uplink.overdue_since_ms && now.boot_ms - *uplink.overdue_since_ms >= overdue_ms) {
        uplink.reason = "not evaluated for " + length_text(*age_s);
        return UplinkState::unknown;
    }
    const UplinkState state = item.is_active ? UplinkState::active : UplinkState::failed;
    if (state != uplink.state) {
        uplink.reason =
            reason_of(uplink.targets, item.is_active ? Verdict::success : Verdict::failure);
        if (uplink.reason.empty() && !item.is_active) {
            uplink.reason = reason_without_verdict(uplink, item);
        }
    }
    return state;
}

/// The targets' verdicts and the next hop.
void World::tell_details(const UplinkKey& key, Uplink& uplink, const dumps::Interface& item,
                         const Moment& now, std::vector<Event>& events) {
    for (auto& [address, target] : uplink.targets) {
        if (target.verdict == target.told || target.verdict == Verdict::unknown) {
            continue;
        }
        // The first verdict of a target is no change.
        if (target.told != Verdict::unknown) {
            Event made = event_of(EventKind::target, key, now);
            made.from = word_of(target.told);
            made.to = word_of(target.verdict);
            made.target = address;
            made.after_s = seconds_since(target.since_boot_ms, now);
            made.reason = told(address, target).substr(address.size() + 1);
            events.push_back(std::move(made));
            target.since_boot_ms = now.boot_ms;
        }
        target.told = target.verdict;
    }
    if (uplink.has_been_read && uplink.nexthop != item.nexthop) {
        Event made = event_of(EventKind::nexthop, key, now);
        made.from = uplink.nexthop;
        made.to = item.nexthop;
        events.push_back(std::move(made));
    }
    uplink.nexthop = item.nexthop;
    uplink.nexthop_from = item.nexthop_from;
    uplink.source_address = item.source_address;
    uplink.had_success = item.since_success_s.has_value();
    uplink.had_failure = item.since_failure_s.has_value();
    uplink.has_been_read = true;
}

void World::tell_state(const UplinkKey& key, Uplink& uplink, const Moment& now,
                       std::vector<Event>& events) {
    // A daemon that has just started has not judged yet; what was told before stays until it has.
    if (uplink.is_told && !uplink.is_judged) {
        return;
    }
    if (uplink.is_told && uplink.state == uplink.told) {
        uplink.is_unwatched = false;
        return;
    }
    Event made = event_of(EventKind::uplink, key, now);
    made.from = uplink.is_told ? word_of(uplink.told) : "absent";
    made.to = word_of(uplink.state);
    made.reason = uplink.is_judged ? uplink.reason : "not judged yet";
    if (uplink.is_unwatched) {
        made.reason +=
            (made.reason.empty() ? "" : "; ") + std::string("changed while nothing was watched");
    } else if (uplink.is_told) {
        made.after_s = seconds_since(uplink.since_boot_ms, now);
        uplink.since_boot_ms = now.boot_ms;
    }
    if (uplink.is_told && uplink.told != UplinkState::unknown &&
        uplink.state != UplinkState::unknown) {
        ++(uplink.state == UplinkState::active ? uplink.to_active : uplink.to_failed);
    }
    uplink.told = uplink.state;
    uplink.is_told = true;
    uplink.is_unwatched = false;
    events.push_back(std::move(made));
}

bool World::is_of_another_run(const std::vector<dumps::Interface>& interfaces,
                              std::int64_t written_s) const {
    return std::any_of(interfaces.begin(), interfaces.end(), [&](const auto& item) {
        const auto found = uplinks_.find(key_of(item));
        if (found == uplinks_.end()) {
            return false;
        }
        const Uplink& before = found->second;
        // A clock that was set back makes ages 0, which stands for "never" too.
        const bool is_later = !before.evaluated_s || written_s > *before.evaluated_s;
        return is_later && ((before.had_success && !item.since_success_s) ||
                            (before.had_failure && !item.since_failure_s));
    });
}

std::vector<Event> World::expire(int family, const std::string& reason, const Moment& now) {
    std::vector<Event> events;
    for (auto& [key, uplink] : uplinks_) {
        if (key.family == family && uplink.state != UplinkState::unknown) {
            uplink.state = UplinkState::unknown;
            uplink.reason = reason;
            tell_state(key, uplink, now, events);
        }
    }
    return events;
}

std::vector<Event> World::drop_missing(int family, const std::set<UplinkKey>& present, int allowed,
                                       const Moment& now) {
    std::vector<Event> events;
    for (auto entry = uplinks_.begin(); entry != uplinks_.end();) {
        auto& [key, uplink] = *entry;
        if (key.family != family || present.contains(key) || ++uplink.missing < allowed) {
            ++entry;
            continue;
        }
        Event made = event_of(EventKind::uplink, key, now);
        made.from = word_of(uplink.told);
        made.to = "absent";
        made.after_s =
            uplink.is_unwatched ? std::nullopt : seconds_since(uplink.since_boot_ms, now);
        made.reason = "no longer in the daemon's configuration";
        events.push_back(std::move(made));
        entry = uplinks_.erase(entry);
    }
    return events;
}

std::vector<Event> World::drop_family(int family, const Moment& now) {
    return drop_missing(family, {}, 0, now);
}

void World::forget_states() {
    for (auto& [key, uplink] : uplinks_) {
        uplink.state = UplinkState::unknown;
        uplink.reason.clear();
        uplink.is_judged = false;
        uplink.cycles = 0;
        uplink.is_unwatched = true;
        uplink.is_routed = false;
        uplink.evaluated_s.reset();
        uplink.overdue_since_ms.reset();
        uplink.counted_s.reset();
        uplink.had_success = uplink.had_failure = false;
        for (auto& [address, target] : uplink.targets) {
            target.verdict = Verdict::unknown;
            target.last_result = dumps::Result::none;
            target.since_boot_ms.reset();
            target.success_run = 0;
            target.failure_run = 0;
            target.quality.reset();
            target.fault.clear();
            target.was_answered = target.is_broken = false;
        }
    }
    for (auto& [key, rule] : rules_) {
        rule.since_boot_ms.clear();
    }
    last_read_boot_ms_.reset();
    begun_boot_ms_.reset();
}

}  // namespace lbwatch

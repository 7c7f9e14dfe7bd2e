#include "dumps/freshness.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "shared/plain_text.h"

namespace dumps {

namespace {

/// Rules and routes: whichever worker comes first writes them, for both families.
bool is_shared(const DumpFile& file) {
    return file.name != outbounds_name(4) && file.name != outbounds_name(6);
}

bool is_from_the_future(const DumpFile& file, Time now) {
    return age_s(file, now) < -clock_tolerance_s;
}

std::int64_t limit_of(const State& state, int family, std::optional<std::int64_t> asked_s) {
    const bool is_held = std::any_of(
        state.interfaces.begin(), state.interfaces.end(),
        [family](const Interface& one) { return one.family == family && one.has_extended_ping(); });
    return asked_s.value_or(is_held ? limit_with_extended_pings_s : usual_limit_s);
}

/// The family's age as far as the files that `counts` names tell; none where there are none. A file
/// from the future hides how old it is, so it counts as the oldest.
template <class Counts>
std::optional<Family> judged(const State& state, int family, std::int64_t limit_s, Counts counts) {
    std::vector<DumpFile> files;
    std::copy_if(state.files.begin(), state.files.end(), std::back_inserter(files), counts);
    const auto oldest = std::min_element(
        files.begin(), files.end(), [&state](const DumpFile& one, const DumpFile& other) {
            return std::pair(!is_from_the_future(one, state.seen), one.written) <
                   std::pair(!is_from_the_future(other, state.seen), other.written);
        });
    if (oldest == files.end()) {
        return std::nullopt;
    }
    const std::int64_t age = age_s(*oldest, state.seen);
    return Family{.family = family,
                  .oldest = *oldest,
                  .age_s = age,
                  .limit_s = limit_s,
                  .is_stale = age > limit_s || is_from_the_future(*oldest, state.seen)};
}

void grow(std::optional<int>& seconds, std::int64_t by) {
    if (seconds && by > 0) {
        seconds = static_cast<int>(
            std::min<std::int64_t>(*seconds + by, std::numeric_limits<int>::max()));
    }
}

std::string written_text(const Family& one) {
    const std::string since = one.age_s < 0 ? std::to_string(-one.age_s) + " s in the future"
                                            : std::to_string(one.age_s) + " s ago";
    return std::string("STALE: ") + family_name(one.family) + " written " + since + ", at " +
           utc_text(one.oldest.written);
}

/// Why a family is stale, and what mends it.
std::string cause_of(const State& state, const Family& one) {
    if (one.age_s < 0) {
        return "the clock was set back since; is the daemon running? (systemctl status lb)";
    }
    const bool is_alone = std::any_of(state.families.begin(), state.families.end(),
                                      [](const Family& other) { return !other.is_stale; });
    if (!is_alone) {
        return "is the daemon running? (systemctl status lb)";
    }
    const std::string path = shared::harmless(state.dump_directory + "/" + one.oldest.name);
    return "nothing writes " + path + " any more; where this family is no longer configured: rm " +
           path;
}

}  // namespace

std::optional<int> since_judged_s(const Interface& one) {
    const auto& of_state = one.is_active ? one.since_success_s : one.since_failure_s;
    const auto& other = one.is_active ? one.since_failure_s : one.since_success_s;
    if (of_state && *of_state < 0) {
        return std::nullopt;
    }
    const bool is_other_told = other && *other >= 0;
    if (of_state && is_other_told) {
        return std::min(*of_state, *other);
    }
    return is_other_told ? other : of_state;
}

std::int64_t age_s(const DumpFile& file, Time now) {
    return std::chrono::floor<std::chrono::seconds>(now - file.written).count();
}

namespace {

void judge_interfaces(State& state, const Family& family) {
    for (Interface& one : state.interfaces) {
        if (one.family != family.family) {
            continue;
        }
        const auto since_s = since_judged_s(one);
        one.is_stale = family.is_stale || (since_s && *since_s > family.limit_s);
        if (one.is_stale && !family.is_stale) {
            state.unjudged.push_back(one);
        }
        grow(one.since_success_s, family.own_age_s);
        grow(one.since_failure_s, family.own_age_s);
    }
}

template <class Item>
void mark_stale(std::vector<Item>& items, int family) {
    for (Item& item : items) {
        item.is_stale = item.is_stale || item.family == family;
    }
}

}  // namespace

void judge_freshness(State& state, Time now, std::optional<std::int64_t> limit_s) {
    state.seen = now;
    state.families.clear();
    state.unjudged.clear();
    for (const int family : {4, 6}) {
        const std::int64_t limit = limit_of(state, family, limit_s);
        const auto own = judged(state, family, limit, [family](const DumpFile& file) {
            return file.name == outbounds_name(family);
        });
        const auto shared = judged(state, family, limit, is_shared);
        const auto all = judged(state, family, limit, [family](const DumpFile& file) {
            return file.name == outbounds_name(family) || is_shared(file);
        });
        if (own) {
            state.families.push_back(*all);
            state.families.back().own_age_s = own->age_s;
            judge_interfaces(state, state.families.back());
        }
        if (own ? all->is_stale : shared && shared->is_stale) {
            mark_stale(state.rules, family);
            mark_stale(state.routes, family);
        }
    }
}

void leave_out_stale(State& state) {
    const auto drop = [](auto& items) {
        return std::erase_if(items, [](const auto& item) { return item.is_stale; });
    };
    state.left_out = {.interfaces = drop(state.interfaces),
                      .rules = drop(state.rules),
                      .routes = drop(state.routes)};
}

bool has_stale(const State& state) {
    return !state.unjudged.empty() || std::any_of(state.families.begin(), state.families.end(),
                                                  [](const Family& one) { return one.is_stale; });
}

std::string stale_lines(const State& state) {
    std::string lines;
    for (const Family& one : state.families) {
        if (one.is_stale) {
            lines += written_text(one) + ": " + cause_of(state, one) + "\n";
        }
    }
    for (const Interface& one : state.unjudged) {
        lines += "STALE: " + shared::harmless(one.name) + " (" + family_name(one.family) +
                 ", namespace " + shared::or_dash(one.namespace_name) + ") judged " +
                 std::to_string(*since_judged_s(one)) +
                 " s ago: its worker stands still (systemctl restart lb)\n";
    }
    return lines;
}

std::string utc_text(Time time) {
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm parts{};
    std::array<char, 40> text{};
    if (gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
        return "unknown";
    }
    return text.data();
}

}  // namespace dumps

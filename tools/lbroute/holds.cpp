#include "lbroute/holds.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <system_error>
#include <utility>

#include <nlohmann/json.hpp>

namespace lbroute {

namespace {

using nlohmann::json;

constexpr const char* file_name = "holds";
constexpr const char* lock_name = "holds.lock";
constexpr std::int64_t ms_per_s = 1000;
constexpr std::int64_t s_per_day = 86400;
constexpr std::int64_t longest_s = 3650 * s_per_day;

constexpr const char* family_text(Family family) {
    return family == Family::ipv4 ? "ipv4" : "ipv6";
}

auto is_of(const std::string& namespace_name, const std::string& interface, Family family) {
    return [&namespace_name, &interface, family](const Hold& hold) {
        return hold.namespace_name == namespace_name && hold.interface == interface &&
               hold.family == family;
    };
}

/// How many seconds a unit's letter stands for; 0 for no unit.
std::int64_t seconds_of_unit(char unit) {
    switch (unit) {
        case 's':
            return 1;
        case 'm':
            return 60;
        case 'h':
            return 3600;
        case 'd':
            return s_per_day;
    }
    return 0;
}

std::optional<Hold> hold_in(const json& entry) {
    if (!entry.is_object()) {
        return std::nullopt;
    }
    const auto text = [&entry](const char* key) -> const std::string* {
        const auto found = entry.find(key);
        return found == entry.end() ? nullptr : found->get_ptr<const std::string*>();
    };
    const std::string* const interface = text("interface");
    const std::string* const namespace_name = text("namespace");
    const std::string* const family = text("family");
    const auto until = entry.find("until_boottime_ms");
    const auto forced = entry.find("forced");
    const bool is_known = interface != nullptr && !interface->empty() &&
                          namespace_name != nullptr && family != nullptr &&
                          (*family == "ipv4" || *family == "ipv6") && until != entry.end() &&
                          (until->is_null() || until->is_number_integer()) &&
                          forced != entry.end() && forced->is_boolean();
    if (!is_known) {
        return std::nullopt;
    }
    Hold hold{.namespace_name = *namespace_name,
              .interface = *interface,
              .family = *family == "ipv4" ? Family::ipv4 : Family::ipv6,
              .until_ms = {},
              .is_forced = forced->get<bool>()};
    if (!until->is_null()) {
        hold.until_ms = until->get<std::int64_t>();
    }
    return hold;
}

/// The file as it stands, ended holds included.
HoldsReading read_file(const StateFolder& folder) {
    const auto content = folder.read(file_name);
    if (!content.text) {
        return {.holds = {}, .problem = content.problem, .is_unread = !content.problem.empty()};
    }
    HoldsReading reading = parse_holds(*content.text);
    if (!reading.problem.empty()) {
        reading.problem = folder.path() + "/" + file_name + " " + reading.problem;
    }
    return reading;
}

}  // namespace

std::int64_t boottime_ms() {
    constexpr std::int64_t ns_per_ms = 1000000;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return std::int64_t{now.tv_sec} * ms_per_s + now.tv_nsec / ns_per_ms;
}

std::optional<std::int64_t> parse_duration_ms(std::string_view text) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    const std::int64_t unit_s =
        error == std::errc{} && end - stopped == 1 ? seconds_of_unit(*stopped) : 0;
    if (unit_s == 0 || number < 1 || number > longest_s / unit_s) {
        return std::nullopt;
    }
    return number * unit_s * ms_per_s;
}

void add_hold(std::vector<Hold>& holds, Hold hold) {
    remove_hold(holds, hold.namespace_name, hold.interface, hold.family);
    holds.push_back(std::move(hold));
}

bool remove_hold(std::vector<Hold>& holds, const std::string& namespace_name,
                 const std::string& interface, Family family) {
    return std::erase_if(holds, is_of(namespace_name, interface, family)) > 0;
}

void drop_ended(std::vector<Hold>& holds, std::int64_t now_ms) {
    std::erase_if(holds, [now_ms](const Hold& hold) {
        return hold.until_ms.has_value() && *hold.until_ms <= now_ms;
    });
}

const Hold* hold_of(const std::vector<Hold>& holds, const std::string& namespace_name,
                    const std::string& interface, Family family) {
    const auto found = std::ranges::find_if(holds, is_of(namespace_name, interface, family));
    return found == holds.end() ? nullptr : &*found;
}

std::optional<std::int64_t> next_end_ms(const std::vector<Hold>& holds) {
    std::optional<std::int64_t> next;
    for (const Hold& hold : holds) {
        if (hold.until_ms && (!next || *hold.until_ms < *next)) {
            next = hold.until_ms;
        }
    }
    return next;
}

std::string holds_text(const std::vector<Hold>& holds) {
    json entries = json::array();
    for (const Hold& hold : holds) {
        entries.push_back({{"interface", hold.interface},
                           {"namespace", hold.namespace_name},
                           {"family", family_text(hold.family)},
                           {"until_boottime_ms", hold.until_ms ? json(*hold.until_ms) : json()},
                           {"forced", hold.is_forced}});
    }
    constexpr int indent = 2;
    return json{{"holds", std::move(entries)}}.dump(indent, ' ', false,
                                                    json::error_handler_t::replace) +
           "\n";
}

HoldsReading parse_holds(std::string_view text) {
    const json file = json::parse(text, nullptr, false);
    const auto entries = file.is_object() ? file.find("holds") : file.end();
    if (entries == file.end() || !entries->is_array()) {
        return {.holds = {},
                .problem = "is damaged: no hold is in force; hold again what must stay held",
                .is_unread = false};
    }
    HoldsReading reading;
    for (const json& entry : *entries) {
        if (auto hold = hold_in(entry)) {
            add_hold(reading.holds, std::move(*hold));
        } else {
            reading.problem = "is damaged: some holds are lost; hold again what must stay held";
        }
    }
    return reading;
}

HoldsReading read_holds(const StateFolder& folder, std::int64_t now_ms) {
    if (!folder.is_open()) {
        return {};
    }
    HoldsReading reading = read_file(folder);
    drop_ended(reading.holds, now_ms);
    return reading;
}

HoldsChange change_holds(const StateFolder& folder, std::int64_t now_ms,
                         const std::function<void(std::vector<Hold>&)>& change) {
    HoldsChange done;
    const Fd lock = folder.lock(lock_name, StateFolder::Wait::some_seconds, done.problem);
    if (!lock.is_open()) {
        return done;
    }
    HoldsReading reading = read_file(folder);
    drop_ended(reading.holds, now_ms);
    change(reading.holds);
    done.holds = std::move(reading.holds);
    done.problem = folder.write(file_name, holds_text(done.holds));
    done.is_written = done.problem.empty();
    if (done.is_written) {
        done.problem = reading.problem;
    }
    return done;
}

}  // namespace lbroute

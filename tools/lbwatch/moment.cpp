#include "lbwatch/moment.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace lbwatch {

namespace {

constexpr std::int64_t second_ms = 1000;
/// A clock that is steered drifts by at most half a millisecond a second; looks are a second or
/// a few apart.
constexpr std::int64_t least_step_ms = 1500;

std::int64_t read_clock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * second_ms + time.tv_nsec / 1'000'000;
}

std::optional<std::int64_t> age_ms(const std::string& text) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || end - unit != 1 || number < 0 || number > 100'000'000) {
        return std::nullopt;
    }
    switch (*unit) {
        case 's':
            return number * second_ms;
        case 'm':
            return number * 60 * second_ms;
        case 'h':
            return number * 3600 * second_ms;
        case 'd':
            return number * 86400 * second_ms;
        case 'w':
            return number * 7 * 86400 * second_ms;
    }
    return std::nullopt;
}

std::optional<std::int64_t> date_ms(const std::string& text) {
    for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm date{};
        date.tm_isdst = -1;
        const char* const rest = strptime(text.c_str(), format, &date);
        if (rest == nullptr) {
            continue;
        }
        const std::string zone = rest;
        if (zone.empty()) {
            return std::int64_t{mktime(&date)} * second_ms;
        }
        if (zone == "Z") {
            return std::int64_t{timegm(&date)} * second_ms;
        }
    }
    return std::nullopt;
}

}  // namespace

Moment now() {
    return {.wall_ms = read_clock(CLOCK_REALTIME), .boot_ms = read_clock(CLOCK_BOOTTIME)};
}

std::int64_t clock_step_ms(const Moment& before, const Moment& after) {
    const std::int64_t step = (after.wall_ms - before.wall_ms) - (after.boot_ms - before.boot_ms);
    return std::abs(step) < least_step_ms ? 0 : step;
}

std::string rfc3339(std::int64_t wall_ms) {
    // Whole seconds are rounded down, also before the epoch.
    const std::int64_t ms = (wall_ms % second_ms + second_ms) % second_ms;
    const auto seconds = static_cast<time_t>((wall_ms - ms) / second_ms);
    std::tm date{};
    gmtime_r(&seconds, &date);
    std::array<char, 32> day{};
    strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &date);
    std::array<char, 8> fraction{};
    snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(ms));
    return std::string(day.data()) + fraction.data();
}

std::string local_time(std::int64_t wall_ms) {
    const auto seconds = static_cast<time_t>(wall_ms / second_ms);
    std::tm date{};
    localtime_r(&seconds, &date);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &date);
    return text.data();
}

std::string length_text(std::int64_t seconds) {
    const auto part = [](std::int64_t number, const char* unit) {
        return std::to_string(number) + unit;
    };
    if (seconds >= 86400) {
        return part(seconds / 86400, "d ") + part(seconds / 3600 % 24, "h ") +
               part(seconds / 60 % 60, "m");
    }
    if (seconds >= 3600) {
        return part(seconds / 3600, "h ") + part(seconds / 60 % 60, "m");
    }
    return seconds >= 60 ? part(seconds / 60, "m ") + part(seconds % 60, "s") : part(seconds, "s");
}

std::optional<std::int64_t> read_time(const std::string& text, std::int64_t now_ms) {
    if (text == "now") {
        return now_ms;
    }
    if (const auto age = age_ms(text)) {
        return now_ms - *age;
    }
    return date_ms(text);
}

}  // namespace lbwatch

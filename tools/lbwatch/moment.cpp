#include "lbwatch/moment.h"

#include <array>
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

}  // namespace lbwatch

#include "shared/time_text.h"

#include <charconv>
#include <cmath>
#include <ctime>
#include <system_error>

namespace shared {

namespace {

constexpr std::int64_t second_ms = 1000;

/// A number of at most some thousand years of seconds, and what stands behind it.
std::optional<double> number_before(const std::string& text, std::string& rest) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [stopped, error] =
        std::from_chars(text.data(), end, number, std::chars_format::fixed);
    constexpr double most = 1e11;
    if (error != std::errc() || !(number >= 0) || number > most) {
        return std::nullopt;
    }
    rest.assign(stopped, end);
    return number;
}

std::optional<std::int64_t> age_ms(const std::string& text) {
    std::string unit;
    const auto number = number_before(text, unit);
    if (!number || unit.size() != 1) {
        return std::nullopt;
    }
    double seconds = 0;
    switch (unit[0]) {
        case 's':
            seconds = 1;
            break;
        case 'm':
            seconds = 60;
            break;
        case 'h':
            seconds = 3600;
            break;
        case 'd':
            seconds = 86400;
            break;
        case 'w':
            seconds = 7 * 86400;
            break;
        default:
            return std::nullopt;
    }
    constexpr double most = 1e8 * 7 * 86400;
    const double age_s = *number * seconds;
    return age_s <= most ? std::make_optional<std::int64_t>(std::llround(age_s * second_ms))
                         : std::nullopt;
}

/// The library takes the 31st of February for the 3rd of March.
bool is_day_of(const std::tm& written) {
    std::tm day{};
    day.tm_year = written.tm_year;
    day.tm_mon = written.tm_mon;
    day.tm_mday = written.tm_mday;
    timegm(&day);
    return day.tm_mon == written.tm_mon && day.tm_mday == written.tm_mday;
}

/// Nothing where the clocks were set forward past it.
std::optional<std::int64_t> local_ms(const std::tm& written) {
    std::tm local = written;
    local.tm_isdst = -1;
    const std::int64_t at_ms = std::int64_t{mktime(&local)} * second_ms;
    return local.tm_hour == written.tm_hour && local.tm_min == written.tm_min
               ? std::make_optional(at_ms)
               : std::nullopt;
}

/// A day begins an hour late where the clocks are set forward at midnight.
std::optional<std::int64_t> day_ms(std::tm day) {
    const auto midnight = local_ms(day);
    ++day.tm_hour;
    return midnight ? midnight : local_ms(day);
}

std::optional<std::int64_t> date_ms(const std::string& text) {
    constexpr const char* day_alone = "%Y-%m-%d";
    for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M",
                               "%Y-%m-%d %H:%M", day_alone}) {
        std::tm date{};
        const char* const rest = strptime(text.c_str(), format, &date);
        if (rest == nullptr) {
            continue;
        }
        const std::string zone = rest;
        if (!zone.empty() && zone != "Z") {
            continue;
        }
        if (!is_day_of(date)) {
            return std::nullopt;
        }
        if (zone == "Z") {
            return std::int64_t{timegm(&date)} * second_ms;
        }
        return format == day_alone ? day_ms(date) : local_ms(date);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::int64_t> read_epoch(const std::string& text) {
    std::string rest;
    const auto seconds = number_before(text, rest);
    return seconds && rest.empty()
               ? std::make_optional<std::int64_t>(std::llround(*seconds * second_ms))
               : std::nullopt;
}

std::optional<std::int64_t> read_time(const std::string& text, std::int64_t now_ms) {
    if (text == "now") {
        return now_ms;
    }
    if (const auto age = age_ms(text)) {
        return now_ms - *age;
    }
    // A small number is rather one without its unit.
    constexpr std::int64_t least_ms = 100'000'000 * second_ms;
    const auto epoch = read_epoch(text);
    return epoch && *epoch >= least_ms ? epoch : date_ms(text);
}

}  // namespace shared

#include "output/report_text.h"

#include <array>
#include <ctime>

#include "probe/lb_test.h"

namespace {

constexpr const char* indent = "  ";

std::string never() {
    return "n/a\t\t";
}

std::string success_age(int stamp_s, int now_s) {
    if (stamp_s == 0) {
        return never();
    }
    // Without a sign, so that no clock can make it overflow.
    const auto age_s = static_cast<std::uint32_t>(now_s) - static_cast<std::uint32_t>(stamp_s);
    return age_text(now_s > stamp_s ? age_s : 0);
}

/// B114: a failure's age has no guard against a clock that was set back, and is huge then.
std::string failure_age(int stamp_s, int now_s) {
    return stamp_s == 0
               ? never()
               : age_text(static_cast<std::uint32_t>(now_s) - static_cast<std::uint32_t>(stamp_s));
}

/// The date in ctime(3)'s form, with its line feed. Kept for the next call: all records of a report
/// have the same one (B112).
const std::string& date_text(int stamp_s) {
    thread_local int shown_s = 0;
    thread_local std::string shown;
    if (shown.empty() || shown_s != stamp_s) {
        constexpr std::size_t ctime_size = 26;
        const time_t time = stamp_s;
        std::array<char, ctime_size> text{};
        shown = ctime_r(&time, text.data()) == nullptr ? "\n" : text.data();
        shown_s = stamp_s;
    }
    return shown;
}

const char* result_mark(int last_result) {
    switch (last_result) {
        case 0:
            return " ";
        case 1:
            return "+";
        case 2:
            return "-";
    }
    return "";
}

std::string probe_lines(const LBHealth& health) {
    std::string lines;
    for_each_probe(health, [&lines](int, Probe& probe) {
        lines += indent;
        lines += result_mark(probe.last_result);
        lines += "Test:  ";
        lines += probe.status();
        lines += '\n';
    });
    return lines;
}

}  // namespace

std::string age_text(std::uint32_t age_s) {
    const std::uint32_t days = age_s / 86400;
    const std::uint32_t hours = age_s / 3600 % 24;
    const std::uint32_t minutes = age_s / 60 % 60;
    std::string text;
    if (days != 0) {
        text += std::to_string(days) + "d";
    }
    if (hours != 0) {
        text += std::to_string(hours) + "h";
    }
    if (minutes != 0) {
        text += std::to_string(minutes) + "m";
    }
    return text + std::to_string(age_s % 60) + "s\t";
}

// B115: blanks, tabs and all.
std::string report_record(const std::string& name, const LBHealth& health, int now_s) {
    constexpr std::size_t usual_size = 256;
    std::string text;
    text.reserve(usual_size);
    text += "Interface:  ";
    text += name;
    text += '\n';
    text += indent;
    text += health.active ? "Status:  active\n" : "Status:  failed\n";
    text += indent;
    text += "Last Status Change:  ";
    text += date_text(health.last_change);
    text += probe_lines(health);
    text += "    Last Interface Success:  ";
    text += success_age(health.history.last_success, now_s);
    text += "\n    Last Interface Failure:  ";
    text += failure_age(health.history.last_failure, now_s);
    text += "\n\n";
    return text;
}

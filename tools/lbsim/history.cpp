#include "lbsim/history.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <string_view>
#include <system_error>

#include "base/address_text.h"
#include "lbsim/scenario.h"
#include "shared/time_text.h"

namespace lbsim {

namespace {

std::vector<std::string> fields_of(std::string_view line) {
    std::vector<std::string> fields;
    while (true) {
        const auto end = std::min(line.find(','), line.size());
        std::string_view field = line.substr(0, end);
        while (!field.empty() && (field.front() == ' ' || field.front() == '"')) {
            field.remove_prefix(1);
        }
        while (!field.empty() &&
               (field.back() == ' ' || field.back() == '"' || field.back() == '\r')) {
            field.remove_suffix(1);
        }
        fields.emplace_back(field);
        if (end == line.size()) {
            return fields;
        }
        line.remove_prefix(end + 1);
    }
}

std::optional<bool> parse_choice(const std::string& word, std::initializer_list<const char*> no,
                                 std::initializer_list<const char*> yes) {
    const auto is_word = [&word](const char* one) { return word == one; };
    if (std::any_of(yes.begin(), yes.end(), is_word)) {
        return true;
    }
    return std::any_of(no.begin(), no.end(), is_word) ? std::make_optional(false) : std::nullopt;
}

/// Reads a line's fields into the observation; else the word that is wrong, and why.
std::optional<HistoryError> read_fields(const std::vector<std::string>& fields, int line,
                                        Observation& observation) {
    if (fields.size() != 5) {
        return HistoryError{line, "", "five fields are wanted: time,uplink,family,target,answered"};
    }
    // What depends on the zone or the moment of the reading is no record.
    const auto at_ms =
        fields[0].ends_with('Z') ? shared::read_time(fields[0], 0) : shared::read_epoch(fields[0]);
    const auto is_ipv6 = parse_choice(fields[2], {"4", "ipv4"}, {"6", "ipv6"});
    const auto is_answered = parse_choice(fields[4], {"0", "no", "false"}, {"1", "yes", "true"});
    if (!at_ms) {
        return HistoryError{line, fields[0],
                            "seconds since the epoch are wanted, or 2026-11-21T02:05:00Z"};
    }
    if (fields[1].empty()) {
        return HistoryError{line, "", "an uplink is wanted"};
    }
    if (!is_ipv6) {
        return HistoryError{line, fields[2], "a family is wanted: 4 or 6"};
    }
    if (!(*is_ipv6 ? parse_ipv6(fields[3]).has_value() : parse_ipv4(fields[3]).has_value())) {
        return HistoryError{line, fields[3], "the address of a target of that family is wanted"};
    }
    if (!is_answered) {
        return HistoryError{line, fields[4], "1 is wanted, or 0"};
    }
    observation = {.at_ms = *at_ms,
                   .uplink = fields[1],
                   .is_ipv6 = *is_ipv6,
                   .target = canonical(fields[3]),
                   .answered = *is_answered ? 1 : 0,
                   .missed = *is_answered ? 0 : 1};
    return std::nullopt;
}

}  // namespace

ParsedHistory parse_csv(std::string_view text) {
    ParsedHistory parsed;
    constexpr std::size_t most_errors = 20;
    for (int line = 1; !text.empty() && parsed.errors.size() < most_errors; ++line) {
        const auto end = std::min(text.find('\n'), text.size());
        const auto fields = fields_of(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        const bool is_empty = fields.size() == 1 && fields[0].empty();
        if (is_empty || (line == 1 && fields[0] == "time")) {
            continue;
        }
        Observation observation;
        if (const auto error = read_fields(fields, line, observation)) {
            parsed.errors.push_back(*error);
        } else {
            parsed.observations.push_back(std::move(observation));
        }
    }
    return parsed;
}

std::string shown_time(std::int64_t at_ms) {
    const std::time_t seconds = at_ms / 1000;
    std::tm time{};
    gmtime_r(&seconds, &time);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &time);
    return text;
}

int count_in_a_row(const std::string& reason) {
    constexpr std::string_view end = " in a row)";
    const auto begin = reason.rfind('(');
    if (!reason.ends_with(end) || begin == std::string::npos) {
        return 1;
    }
    int count = 0;
    const char* const last = reason.data() + reason.size() - end.size();
    const auto [read, error] = std::from_chars(reason.data() + begin + 1, last, count);
    return error == std::errc() && read == last && count > 0 ? count : 1;
}

}  // namespace lbsim

#include "lbsim/scenario_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <system_error>
#include <utility>

#include "base/address_text.h"

namespace lbsim {

namespace {

constexpr std::int64_t second_us = 1'000'000;

using Words = std::vector<std::string>;

Words words_of(std::string_view line) {
    Words words;
    line = line.substr(0, line.find('#'));
    constexpr std::string_view blanks = " \t\r";
    while (true) {
        const auto begin = line.find_first_not_of(blanks);
        if (begin == std::string_view::npos) {
            return words;
        }
        line.remove_prefix(begin);
        const auto end = std::min(line.find_first_of(blanks), line.size());
        words.emplace_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

std::optional<double> parse_number(std::string_view text) {
    double number = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || !(number >= 0)) {
        return std::nullopt;
    }
    return number;
}

std::optional<double> parse_share(std::string_view text) {
    if (!text.ends_with('%')) {
        return std::nullopt;
    }
    const auto share = parse_number(text.substr(0, text.size() - 1));
    return share && *share <= 100 ? share : std::nullopt;
}

bool is_address(const std::string& text) {
    return parse_ipv4(text) || parse_ipv6(text);
}

/// One line's words, taken one after the other; the first that does not fit is the line's error.
class Line {
  public:
    Line(int number, Words words) : number_(number), words_(std::move(words)) {}

    bool is_at_end() const { return at_ == words_.size(); }
    bool take(std::string_view word) {
        const bool is_it = !is_at_end() && words_[at_] == word;
        at_ += is_it ? 1 : 0;
        return is_it;
    }
    std::string next() { return is_at_end() ? std::string() : words_[at_++]; }
    /// About the word that was taken last, or about the end of the line.
    void fail(const std::string& reason) { fail("", reason); }
    void fail(const std::string& word, const std::string& reason) {
        if (!error) {
            error = ScenarioError{number_, word, reason};
        }
    }
    std::string rest_from(std::size_t first) const {
        std::string text;
        for (std::size_t i = first; i < words_.size(); ++i) {
            text += (text.empty() ? "" : " ") + words_[i];
        }
        return text;
    }

    std::optional<ScenarioError> error;

  private:
    int number_;
    Words words_;
    std::size_t at_ = 0;
};

std::optional<std::int64_t> take_duration(Line& line, const std::string& what) {
    const std::string word = line.next();
    const auto duration = parse_duration(word);
    if (!duration) {
        line.fail(word, what + " is wanted, such as 10s, 2m, 1.5h or 900ms");
    }
    return duration;
}

void take_share(Line& line, Event& event, Change change) {
    const std::string word = line.next();
    const auto share = parse_share(word);
    if (!share) {
        line.fail(word, "a share is wanted, from 0% to 100%");
    }
    event.change = change;
    event.percent = share.value_or(0);
}

void take_delay(Line& line, Event& event) {
    event.change = Change::delay;
    event.delay_ms = take_duration(line, "a delay").value_or(0) / 1000;
    if (line.take("jitter")) {
        event.jitter_ms = take_duration(line, "a jitter").value_or(0) / 1000;
    }
}

/// "down" or "up" behind `link`, "dead" or "alive" behind `nexthop`.
void take_either(Line& line, Event& event, const std::pair<const char*, Change>& bad,
                 const std::pair<const char*, Change>& good) {
    const std::string word = line.next();
    if (word == bad.first) {
        event.change = bad.second;
    } else if (word == good.first) {
        event.change = good.second;
    } else {
        line.fail(word, std::string("'") + bad.first + "' or '" + good.first + "' is wanted");
    }
}

void take_lease(Line& line, Event& event) {
    event.change = Change::lease;
    const std::string word = line.next();
    if (word == "none") {
        return;
    }
    if (!is_address(word)) {
        line.fail(word, "the address of the lease's router is wanted, or 'none'");
    }
    event.router = canonical(word);
}

void take_clock(Line& line, Event& event) {
    event.change = Change::clock;
    const std::string word = line.next();
    if (word != "back" && word != "forward") {
        line.fail(word, "'back' or 'forward' is wanted");
    }
    const std::int64_t step_us = take_duration(line, "how far the clock is set").value_or(0);
    event.clock_step_us = word == "back" ? -step_us : step_us;
}

void take_change(Line& line, Event& event) {
    const bool is_of_target = !event.target.empty();
    const std::string word = line.next();
    if (word == "dead") {
        event.change = Change::dead;
    } else if (word == "alive") {
        event.change = Change::alive;
    } else if (word == "clean") {
        event.change = Change::clean;
    } else if (word == "loss") {
        take_share(line, event, Change::loss);
    } else if (word == "delay" && (!is_of_target || event.uplink.empty())) {
        take_delay(line, event);
    } else if (is_of_target) {
        line.fail(word,
                  event.uplink.empty()
                      ? "a target can be dead, alive or clean, or have a loss or a delay"
                      : "a target through one uplink can be dead, alive or clean, or have a loss");
    } else if (word == "duplicates") {
        take_share(line, event, Change::duplicates);
    } else if (word == "reorder") {
        take_share(line, event, Change::reorder);
    } else if (word == "link" && event.family != Family::any) {
        line.fail(word, "a link goes down and up for both families: leave out 'ipv4' or 'ipv6'");
    } else if (word == "link") {
        take_either(line, event, {"down", Change::link_down}, {"up", Change::link_up});
    } else if (word == "nexthop") {
        take_either(line, event, {"dead", Change::nexthop_dead}, {"alive", Change::nexthop_alive});
    } else if (word == "lease") {
        take_lease(line, event);
    } else {
        line.fail(word,
                  "what happens is wanted: dead, alive, loss, delay, duplicates, reorder, link, "
                  "nexthop, lease, target or clean");
    }
}

std::string take_target(Line& line) {
    const std::string word = line.next();
    if (!is_address(word)) {
        line.fail(word, "the address of a target is wanted");
    }
    return canonical(word);
}

Event take_event(Line& line, int number) {
    Event event{.at_us = take_duration(line, "a time").value_or(0), .line = number};
    if (line.take("clock")) {
        take_clock(line, event);
    } else if (line.take("target")) {
        event.target = take_target(line);
    } else {
        event.uplink = line.next();
        if (event.uplink.empty()) {
            line.fail("an uplink is wanted, or 'target', or 'clock'");
        }
        if (line.take("ipv4")) {
            event.family = Family::ipv4;
        } else if (line.take("ipv6")) {
            event.family = Family::ipv6;
        }
        if (line.take("target")) {
            event.target = take_target(line);
        }
    }
    if (event.change != Change::clock) {
        take_change(line, event);
    }
    if (!line.is_at_end()) {
        line.fail(line.next(), "nothing more is understood on this line");
    }
    event.text = line.rest_from(1);
    return event;
}

}  // namespace

std::optional<std::int64_t> parse_duration(std::string_view text) {
    constexpr std::array<std::pair<std::string_view, double>, 5> units{
        {{"ms", 1e3}, {"s", 1e6}, {"m", 6e7}, {"h", 3.6e9}, {"d", 8.64e10}}};
    for (const auto& [unit, factor] : units) {
        if (!text.ends_with(unit)) {
            continue;
        }
        const auto number = parse_number(text.substr(0, text.size() - unit.size()));
        constexpr double most = 1e5 * 8.64e10;  // some centuries
        if (number && *number * factor <= most) {
            return std::llround(*number * factor);
        }
    }
    return std::nullopt;
}

std::string shown_duration(std::int64_t duration_us) {
    constexpr std::array<std::pair<std::int64_t, const char*>, 3> units{
        {{86'400 * second_us, "d"}, {3600 * second_us, "h"}, {60 * second_us, "m"}}};
    std::string text;
    for (const auto& [unit_us, word] : units) {
        if (duration_us >= unit_us) {
            text += std::to_string(duration_us / unit_us) + word + " ";
            duration_us %= unit_us;
        }
    }
    const std::int64_t tenths = duration_us / 100'000;
    if (tenths != 0 || text.empty()) {
        text += std::to_string(tenths / 10);
        text += tenths % 10 == 0 ? "" : std::string(".").append(std::to_string(tenths % 10));
        text += "s ";
    }
    text.pop_back();
    return text;
}

ParsedScenario parse_scenario(std::string_view text) {
    ParsedScenario parsed;
    for (int number = 1; !text.empty(); ++number) {
        const auto end = std::min(text.find('\n'), text.size());
        Words words = words_of(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (words.empty()) {
            continue;
        }
        Line line(number, std::move(words));
        Event event = take_event(line, number);
        if (line.error) {
            parsed.errors.push_back(*line.error);
        } else {
            parsed.events.push_back(std::move(event));
        }
    }
    std::stable_sort(parsed.events.begin(), parsed.events.end(),
                     [](const Event& one, const Event& other) { return one.at_us < other.at_us; });
    return parsed;
}

}  // namespace lbsim

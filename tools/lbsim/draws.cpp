#include "lbsim/draws.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <random>
#include <string_view>
#include <utility>

#include "lbsim/scenario_text.h"

namespace lbsim {

namespace {

constexpr double day_us = 8.64e10;

/// The standard's engine gives the same numbers everywhere; its distributions do not.
class Draws {
  public:
    Draws(std::uint64_t seed, const std::string& name) {
        std::uint64_t key = 0xcbf29ce484222325ULL;  // FNV-1a
        for (const char character : name) {
            key = (key ^ static_cast<std::uint8_t>(character)) * 0x100000001b3ULL;
        }
        engine_.seed(seed * 0x9e3779b97f4a7c15ULL ^ key);
    }
    /// From 0 up to, but without, 1.
    double share() { return static_cast<double>(engine_() >> 11U) * 0x1p-53; }
    double between(double least, double most) { return least + (most - least) * share(); }
    /// In whole tenths of a second, at least one.
    std::int64_t exponential_us(std::int64_t mean_us) {
        const double length = -std::log1p(-share()) * static_cast<double>(mean_us);
        constexpr std::int64_t step_us = 100'000;
        return std::max<std::int64_t>(1, std::llround(length / step_us)) * step_us;
    }
    std::size_t below(std::size_t count) {
        return std::min(count - 1, static_cast<std::size_t>(share() * static_cast<double>(count)));
    }

  private:
    std::mt19937_64 engine_;
};

enum class Kind { dead, link, loss, delay, target };

Kind draw_kind(Draws& draws, const OutageModel& model) {
    const std::array<std::pair<Kind, double>, 5> shares{{{Kind::dead, model.dead},
                                                         {Kind::link, model.link},
                                                         {Kind::loss, model.loss},
                                                         {Kind::delay, model.delay},
                                                         {Kind::target, model.target}}};
    double sum = 0;
    for (const auto& [kind, share] : shares) {
        sum += share;
    }
    double at = draws.share() * sum;
    for (const auto& [kind, share] : shares) {
        at -= share;
        if (at < 0) {
            return kind;
        }
    }
    return Kind::dead;
}

/// What an uplink's name stands for, of both families.
struct Line {
    std::int64_t start_us = 0;
    std::vector<std::string> targets;
};

/// The event that begins an outage; the one that ends it is always `clean`.
Event begin_of(Draws& draws, const OutageModel& model, const std::string& name, const Line& line) {
    Event event;
    event.uplink = name;
    const Kind kind = draw_kind(draws, model);
    switch (kind) {
        case Kind::dead:
            event.change = Change::dead;
            event.text = name + " dead";
            break;
        case Kind::link:
            event.change = Change::link_down;
            event.text = name + " link down";
            break;
        case Kind::loss:
            event.change = Change::loss;
            event.percent = std::round(draws.between(10, 70));
            event.text = name + " loss " + std::to_string(static_cast<int>(event.percent)) + "%";
            break;
        case Kind::delay:
            event.change = Change::delay;
            event.delay_ms = std::llround(draws.between(2, 30)) * 100;
            event.jitter_ms = event.delay_ms / 2;
            event.text = name + " delay " + std::to_string(event.delay_ms) + "ms jitter " +
                         std::to_string(event.jitter_ms) + "ms";
            break;
        case Kind::target:
            event.change = Change::dead;
            event.text = name + " dead";
            if (!line.targets.empty()) {
                event.target = line.targets[draws.below(line.targets.size())];
                event.text = name + " target " + event.target + " dead";
            }
            break;
    }
    return event;
}

}  // namespace

bool parse_kinds(const std::string& text, OutageModel& model) {
    OutageModel parsed = model;
    const std::map<std::string_view, double*> shares{{"dead", &parsed.dead},
                                                     {"link", &parsed.link},
                                                     {"loss", &parsed.loss},
                                                     {"delay", &parsed.delay},
                                                     {"target", &parsed.target}};
    for (const auto& [name, share] : shares) {
        *share = 0;
    }
    double sum = 0;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::string_view one = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(one.size() + 1, rest.size()));
        const auto equals = one.find('=');
        const auto found = shares.find(one.substr(0, equals));
        if (equals == std::string_view::npos || found == shares.end()) {
            return false;
        }
        const std::string number(one.substr(equals + 1));
        if (number.empty() || number.size() > 6 ||
            number.find_first_not_of("0123456789.") != std::string::npos ||
            std::count(number.begin(), number.end(), '.') > 1 || number == ".") {
            return false;
        }
        *found->second = std::stod(number);
        sum += *found->second;
    }
    if (sum <= 0) {
        return false;
    }
    model = parsed;
    return true;
}

std::string problem_of(const OutageModel& model) {
    const double share = model.outages_per_day * static_cast<double>(model.mean_length_us) / day_us;
    if (share < 1) {
        return "";
    }
    const double limit = std::ceil(day_us / static_cast<double>(model.mean_length_us));
    return "--outages-per-day: so many outages of " + shown_duration(model.mean_length_us) +
           " do not fit into a day; fewer than " + std::to_string(std::llround(limit)) + " do";
}

Scenario draw_outages(const std::vector<Uplink>& uplinks, std::int64_t duration_us,
                      const OutageModel& model, std::uint64_t seed) {
    std::map<std::string, Line> lines;
    for (const Uplink& uplink : uplinks) {
        Line& line = lines[uplink.name];
        line.start_us = std::max(line.start_us, uplink.start_us);
        line.targets.insert(line.targets.end(), uplink.targets.begin(), uplink.targets.end());
    }
    Scenario events;
    if (model.outages_per_day <= 0) {
        return events;
    }
    const std::int64_t mean_gap_us =
        static_cast<std::int64_t>(day_us / model.outages_per_day) - model.mean_length_us;
    for (const auto& [name, line] : lines) {
        Draws draws(seed, name);
        std::int64_t at_us = line.start_us;
        while (true) {
            at_us += draws.exponential_us(mean_gap_us);
            if (at_us >= duration_us) {
                break;
            }
            Event begin = begin_of(draws, model, name, line);
            begin.at_us = at_us;
            at_us += draws.exponential_us(model.mean_length_us);
            Event end;
            end.at_us = at_us;
            end.uplink = name;
            end.change = Change::clean;
            end.text = name + " clean";
            events.push_back(std::move(begin));
            events.push_back(std::move(end));
        }
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const Event& one, const Event& other) { return one.at_us < other.at_us; });
    return events;
}

}  // namespace lbsim

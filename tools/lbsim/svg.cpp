#include "lbsim/svg.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "lbsim/scenario_text.h"
#include "lbsim/truth.h"

namespace lbsim {

namespace {

constexpr double left = 170;
constexpr double width = 1000;
constexpr double top = 40;
constexpr double row_height = 46;
constexpr double band_height = 16;

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string escaped(const std::string& text) {
    std::string safe;
    for (const char character : text) {
        switch (character) {
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '&':
                safe += "&amp;";
                break;
            case '"':
                safe += "&quot;";
                break;
            default:
                safe += static_cast<unsigned char>(character) < ' ' ? '?' : character;
        }
    }
    return safe;
}

/// Places moments along the axis.
struct Axis {
    std::int64_t duration_us = 1;

    double at(std::int64_t moment_us) const {
        return left + width * static_cast<double>(std::min(moment_us, duration_us)) /
                          static_cast<double>(duration_us);
    }
};

std::string text_at(double x, double y, const char* anchor, const std::string& text) {
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" text-anchor=\"" + anchor + "\">" +
           escaped(text) + "</text>\n";
}

std::string band(const Axis& axis, std::int64_t from_us, std::int64_t to_us, double y,
                 const char* kind, const std::string& title) {
    const double x = axis.at(from_us);
    // However short it is, it is seen.
    const double wide = std::max(axis.at(to_us) - x, 0.5);
    return "<rect class=\"" + std::string(kind) + "\" x=\"" + number(x) + "\" y=\"" + number(y) +
           "\" width=\"" + number(wide) + "\" height=\"" + number(band_height) + "\"><title>" +
           escaped(title) + "</title></rect>\n";
}

std::string span_text(std::int64_t from_us, std::int64_t to_us, const char* what) {
    return std::string(what) + " from " + shown_duration(from_us) + " to " + shown_duration(to_us);
}

std::string truth_bands(const Axis& axis, const Truth& truth, double y) {
    std::string text;
    for (std::size_t i = 0; i < truth.size() && truth[i].from_us < axis.duration_us; ++i) {
        const std::int64_t to_us = i + 1 < truth.size()
                                       ? std::min(truth[i + 1].from_us, axis.duration_us)
                                       : axis.duration_us;
        const char* kind = "";
        switch (truth[i].condition) {
            case Condition::good:
                kind = "good";
                break;
            case Condition::impaired:
                kind = "impaired";
                break;
            case Condition::dead:
                kind = "dead";
                break;
            case Condition::unknown:
                kind = "unwatched";
                break;
        }
        text +=
            band(axis, truth[i].from_us, to_us, y, kind, span_text(truth[i].from_us, to_us, kind));
    }
    return text;
}

std::string verdict_bands(const Axis& axis, const Story& story, const Uplink& uplink, double y) {
    std::string text;
    std::int64_t from_us = 0;
    bool is_active = false;
    const auto end_at = [&](std::int64_t to_us) {
        const char* word = is_active ? "active" : "inactive";
        if (to_us > from_us) {
            text += band(axis, from_us, to_us, y, word, span_text(from_us, to_us, word));
        }
        from_us = to_us;
    };
    for (const ObservedChange& told : story.run.told) {
        if (told.kind == ObservedChange::Kind::state && told.uplink == uplink.name &&
            told.is_ipv6 == uplink.is_ipv6 && told.ns_name == uplink.ns_name) {
            end_at(told.at_us);
            is_active = told.is_up;
        }
    }
    end_at(axis.duration_us);
    return text;
}

/// A round step of which the axis holds some ten at most.
std::int64_t step_of(std::int64_t duration_us) {
    constexpr std::array<std::int64_t, 15> steps_s{
        1, 2, 5, 10, 30, 60, 120, 300, 600, 1800, 3600, 10800, 21600, 86'400, 259'200};
    for (const std::int64_t step : steps_s) {
        if (duration_us / (step * 1'000'000) <= 10) {
            return step * 1'000'000;
        }
    }
    constexpr std::int64_t day_us = 86'400'000'000;
    return (duration_us / 10 / day_us + 1) * day_us;
}

std::string axis_text(const Axis& axis, double bottom) {
    std::string text;
    for (std::int64_t at_us = 0; at_us <= axis.duration_us; at_us += step_of(axis.duration_us)) {
        const std::string x = number(axis.at(at_us));
        text += "<line x1=\"" + x + "\" x2=\"" + x + "\" y1=\"" + number(top - 6) + "\" y2=\"" +
                number(bottom) + "\"/>\n";
        text += text_at(axis.at(at_us), bottom + 16, "middle", shown_duration(at_us));
    }
    return text;
}

std::string legend_text(double y) {
    constexpr std::array<std::pair<const char*, const char*>, 6> kinds{
        {{"good", "works"},
         {"impaired", "impaired"},
         {"dead", "dead"},
         {"unwatched", "not watched"},
         {"active", "active (the daemon)"},
         {"inactive", "inactive (the daemon)"}}};
    std::string text;
    double x = left;
    for (const auto& [kind, word] : kinds) {
        text += "<rect class=\"" + std::string(kind) + "\" x=\"" + number(x) + "\" y=\"" +
                number(y - 10) + "\" width=\"12\" height=\"12\"/>\n";
        text += text_at(x + 18, y, "start", word);
        x += 165;
    }
    return text;
}

constexpr const char* style =
    "<style>text{font:12px sans-serif;fill:#222}line{stroke:#ccc}.good{fill:#8cc98c}"
    ".impaired{fill:#f2c14e}.dead{fill:#c8443c}.unwatched{fill:#fff;"
    "stroke:#8a94a0;stroke-width:.5;stroke-dasharray:2 "
    "2}.active{fill:#2b6cb0}.inactive{fill:#e3e6ea;"
    "stroke:#8a94a0;stroke-width:.5}</style>\n";

}  // namespace

std::string svg_text(const Story& story) {
    const Axis axis{std::max<std::int64_t>(story.run.duration_us, 1)};
    const double bottom = top + row_height * static_cast<double>(story.uplinks.size());
    std::string text = "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
                       number(left + width + 30) + " " + number(bottom + 60) + "\">\n" + style +
                       "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    text += text_at(left, 20, "start",
                    story.configuration +
                        ", simulated: what was true above, what the daemon held "
                        "for true below; seed " +
                        std::to_string(story.seed));
    text += axis_text(axis, bottom);
    for (std::size_t i = 0; i < story.uplinks.size(); ++i) {
        const double y = top + row_height * static_cast<double>(i);
        text += text_at(left - 10, y + band_height + 5, "end", shown(story.uplinks[i]));
        text += truth_bands(axis, truth_of(story.uplinks[i], story.scenario), y);
        text += verdict_bands(axis, story, story.uplinks[i], y + band_height + 2);
    }
    return text + legend_text(bottom + 44) + "</svg>\n";
}

}  // namespace lbsim

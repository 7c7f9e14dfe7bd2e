#include "lbsim/tune.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

#include "lbsim/scenario.h"
#include "lbsim/scenario_text.h"
#include "lbsim/table.h"
#include <nlohmann/json.hpp>

namespace lbsim {

namespace {

constexpr std::array<int, 8> counts{1, 2, 3, 4, 5, 6, 8, 10};

std::string shown_count(const std::optional<int>& count) {
    return count ? std::to_string(*count) : "as it is";
}

/// Seconds until a dead uplink was left, on average; nothing where none was.
std::optional<double> detection_s(const Trial& trial) {
    if (trial.deaths.left == 0) {
        return std::nullopt;
    }
    return static_cast<double>(trial.deaths.left_after_us) / 1e6 / trial.deaths.left;
}

struct Extent {
    double detection_s = 1;
    int flaps = 1;
};

Extent extent_of(const std::vector<Trial>& trials) {
    Extent extent;
    for (const Trial& trial : trials) {
        extent.detection_s = std::max(extent.detection_s, detection_s(trial).value_or(0));
        extent.flaps = std::max(extent.flaps, trial.all.flaps);
    }
    return extent;
}

/// "f" for a failure-ct, "s" for a success-ct, "@" for the present settings.
char mark_of(const Setting& setting) {
    return setting.is_present() ? '@' : setting.failure_ct ? 'f' : 's';
}

std::string curve_text(const std::vector<Trial>& trials) {
    constexpr int columns = 60;
    constexpr int lines = 12;
    const Extent extent = extent_of(trials);
    std::vector<std::string> field(lines + 1, std::string(columns + 1, ' '));
    for (auto trial = trials.rbegin(); trial != trials.rend(); ++trial) {  // the present one on top
        const auto at_s = detection_s(*trial);
        if (!at_s) {
            continue;
        }
        const auto x = static_cast<std::size_t>(*at_s / extent.detection_s * columns);
        const auto y = static_cast<std::size_t>(lines - trial->all.flaps * lines / extent.flaps);
        field[y][x] = mark_of(trial->setting);
    }
    std::string text = "flaps\n";
    for (std::size_t i = 0; i < field.size(); ++i) {
        const std::string label = i == 0                  ? std::to_string(extent.flaps)
                                  : i + 1 == field.size() ? "0"
                                                          : "";
        std::string line =
            std::string(6 - std::min<std::size_t>(6, label.size()), ' ') + label + " |" + field[i];
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    text += "       +" + std::string(columns + 1, '-') + "\n        0";
    const std::string end =
        shown_seconds(static_cast<std::int64_t>(extent.detection_s * 1e6)) + " until left";
    return text + std::string(columns - end.size(), ' ') + end +
           "\n        @ as configured, f another failure-ct, s another success-ct\n";
}

Deaths deaths_of(const std::vector<Row>& rows) {
    struct Death {
        std::int64_t begin_us = 0;
        bool is_left = false;
    };
    Deaths deaths;
    std::map<std::size_t, Death> open;  // by uplink
    for (const Row& row : rows) {
        if (row.condition != Condition::dead) {
            open.erase(row.uplink);
            continue;
        }
        const bool is_open = open.contains(row.uplink);
        if (!is_open && !row.was_active) {
            continue;
        }
        if (!is_open) {
            ++deaths.all;
        }
        Death& death = open.try_emplace(row.uplink, Death{.begin_us = row.at_us}).first->second;
        if (!death.is_left && row.state_after_us) {
            const std::int64_t after_us = row.at_us + *row.state_after_us - death.begin_us;
            death.is_left = true;
            ++deaths.left;
            deaths.left_after_us += after_us;
            deaths.longest_us = std::max(deaths.longest_us, after_us);
        }
    }
    return deaths;
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, "%.2f", value);
    return text;
}

}  // namespace

std::vector<Setting> settings_to_try() {
    std::vector<Setting> settings{{}};
    for (const int count : counts) {
        settings.push_back({.success_ct = {}, .failure_ct = count});
    }
    for (const int count : counts) {
        settings.push_back({.success_ct = count, .failure_ct = {}});
    }
    return settings;
}

Trial trial_of(const Setting& setting, const Summary& summary) {
    Trial trial{.setting = setting};
    for (const Row& row : summary.rows) {
        trial.all.add(row);
    }
    trial.deaths = deaths_of(summary.rows);
    for (const UplinkTotal& total : summary.uplinks) {
        trial.changes += total.changes;
    }
    return trial;
}

std::string tuning_text(const std::vector<Trial>& trials, std::int64_t duration_us) {
    Table table({"", "failure-ct", "success-ct", "left after (mean)", "(longest)", "never left",
                 "into dead", "left unused", "changes", "flaps"},
                1);
    for (const Trial& trial : trials) {
        const auto at_s = detection_s(trial);
        table.add({trial.setting.is_present() ? "@" : "", shown_count(trial.setting.failure_ct),
                   shown_count(trial.setting.success_ct),
                   at_s ? shown_seconds(static_cast<std::int64_t>(*at_s * 1e6)) : "-",
                   at_s ? shown_seconds(trial.deaths.longest_us) : "-",
                   std::to_string(trial.deaths.never_left()), shown_seconds(trial.all.into_dead_us),
                   shown_seconds(trial.all.left_unused_us), std::to_string(trial.changes),
                   std::to_string(trial.all.flaps)});
    }
    return std::to_string(trials.size()) + " runs of " + shown_duration(duration_us) +
           " each, in the same world with the same draws:\n\n" + table.text() + '\n' +
           curve_text(trials);
}

std::string tuning_json(const std::vector<Trial>& trials, std::int64_t duration_us,
                        std::uint64_t seed) {
    using Json = nlohmann::ordered_json;
    const auto count = [](const std::optional<int>& value) {
        return value ? Json(*value) : Json();
    };
    Json settings = Json::array();
    for (const Trial& trial : trials) {
        const auto at_s = detection_s(trial);
        settings.push_back({{"present", trial.setting.is_present()},
                            {"failure_ct", count(trial.setting.failure_ct)},
                            {"success_ct", count(trial.setting.success_ct)},
                            {"left_after_s", at_s ? Json(*at_s) : Json()},
                            {"deaths", trial.deaths.all},
                            {"never_left", trial.deaths.never_left()},
                            {"into_dead_s", static_cast<double>(trial.all.into_dead_us) / 1e6},
                            {"left_unused_s", static_cast<double>(trial.all.left_unused_us) / 1e6},
                            {"changes", trial.changes},
                            {"flaps", trial.all.flaps}});
    }
    return Json{{"events", Json::array()},
                {"summary",
                 {{"runs", trials.size()},
                  {"seconds", static_cast<double>(duration_us) / 1e6},
                  {"seed", seed},
                  {"settings", std::move(settings)}}}}
               .dump(1) +
           '\n';
}

std::string tuning_svg(const std::vector<Trial>& trials) {
    constexpr double left = 60;
    constexpr double top = 30;
    constexpr double width = 600;
    constexpr double height = 360;
    const Extent extent = extent_of(trials);
    const auto text_at = [](double x, double y, const char* anchor, const std::string& text) {
        return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" text-anchor=\"" + anchor +
               "\">" + text + "</text>\n";
    };
    std::string text =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 720 440\">\n"
        "<style>text{font:12px sans-serif;fill:#222}line{stroke:#888}.f{fill:#c8443c}.s{fill:"
        "#2b6cb0}.present{fill:none;stroke:#222;stroke-width:2}</style>\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n"
        "<line x1=\"60\" y1=\"30\" x2=\"60\" y2=\"390\"/><line x1=\"60\" y1=\"390\" x2=\"660\" "
        "y2=\"390\"/>\n";
    text += text_at(left, 18, "start", "flaps (" + std::to_string(extent.flaps) + " at the top)");
    text += text_at(left + width, 412, "end",
                    "seconds until a dead uplink was left (" + number(extent.detection_s) + ")");
    text += text_at(left, 432, "start",
                    "red: another failure-ct, blue: another success-ct, ring: as configured");
    for (const Trial& trial : trials) {
        const auto at_s = detection_s(trial);
        if (!at_s) {
            continue;
        }
        const std::string x = number(left + width * *at_s / extent.detection_s);
        const std::string y = number(top + height - height * trial.all.flaps / extent.flaps);
        const bool is_present = trial.setting.is_present();
        const auto& count =
            trial.setting.failure_ct ? trial.setting.failure_ct : trial.setting.success_ct;
        text += "<circle class=\"" +
                std::string(is_present                 ? "present"
                            : trial.setting.failure_ct ? "f"
                                                       : "s") +
                "\" cx=\"" + x + "\" cy=\"" + y + "\" r=\"" + (is_present ? "8" : "4") +
                "\"><title>" +
                (is_present ? "as configured"
                            : (trial.setting.failure_ct ? "failure-ct " : "success-ct ") +
                                  std::to_string(*count)) +
                "</title></circle>\n";
    }
    return text + "</svg>\n";
}

}  // namespace lbsim

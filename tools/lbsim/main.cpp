#include <algorithm>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "lbsim/draws.h"
#include "lbsim/history.h"
#include "lbsim/replay.h"
#include "lbsim/report.h"
#include "lbsim/scenario_text.h"
#include "lbsim/session.h"
#include "lbsim/svg.h"
#include "lbsim/tune.h"
#include "shared/command_line.h"
#include "shared/standard_output.h"
#include "shared/time_text.h"
#include <CLI/CLI.hpp>

namespace {

using namespace lbsim;

constexpr double default_days = 30;
constexpr double tuning_days = 2;

struct Options {
    std::string configuration;
    std::string scenario;
    std::string compared;
    std::string duration;
    std::string svg;
    std::string kinds;
    std::string history;
    std::string since;
    std::string until;
    std::string mean_outage;
    std::uint64_t seed = 1;
    std::optional<double> days;
    OutageModel model;
    bool is_random = false;
    bool is_tuned = false;
    bool as_json = false;
};

std::string valid_duration(const std::string& text) {
    const auto duration_us = parse_duration(text);
    return duration_us && *duration_us > 0
               ? std::string()
               : "'" + text + "' is no length of time, such as 90s, 10m, 1.5h or 30d";
}

/// What the operator should know before believing the answer.
void warn(const Configuration& configuration) {
    for (const std::string& message : configuration.loaded.messages) {
        std::cerr << "lbsim: " << configuration.path << ": the loader says: " << message << '\n';
    }
    if (!configuration.loaded.without_worker.empty()) {
        std::cerr << "lbsim: " << configuration.path
                  << ": without a rule of their family, so not simulated: "
                  << configuration.loaded.without_worker << '\n';
    }
}

void print(const std::vector<Story>& stories, const Options& options) {
    const Story& story = stories.front();
    const Story* const other = stories.size() > 1 ? &stories[1] : nullptr;
    if (options.as_json) {
        std::cout << json_text(story, other);
        return;
    }
    std::cout << head_text(story);
    if (other != nullptr) {
        std::cout << head_text(*other) << '\n' << comparison_text(story, *other);
        return;
    }
    std::cout << '\n' << timeline_text(story) << '\n' << table_text(story);
}

/// What happens, and for how long where nobody says.
struct Course {
    Scenario scenario;
    std::optional<std::int64_t> duration_us;
};

std::int64_t now_ms() {
    return std::int64_t{std::time(nullptr)} * 1000;
}

std::string valid_file(const std::string& text) {
    return text.empty() ? "the name of a file is wanted" : std::string();
}

/// The library takes -1 for the largest number.
std::string valid_seed(const std::string& text) {
    return text.starts_with('-') ? "'" + text + "' is no seed: a number from 0 on is wanted"
                                 : std::string();
}

std::string valid_time(const std::string& text) {
    return shared::read_time(text, now_ms())
               ? std::string()
               : "'" + text +
                     "' is no time, such as 12h, 2026-11-21, 2026-11-21T14:05 or "
                     "2026-11-21T13:05:00Z";
}

Course drawn_course(const Options& options, const std::vector<Uplink>& uplinks) {
    OutageModel model = options.model;
    model.mean_length_us = parse_duration(options.mean_outage).value_or(model.mean_length_us);
    if (!options.kinds.empty()) {
        parse_kinds(options.kinds, model);
    }
    if (const std::string problem = problem_of(model); !problem.empty()) {
        throw Unusable{"lbsim: " + problem + '\n'};
    }
    const double days = options.days.value_or(options.is_tuned ? tuning_days : default_days);
    const std::int64_t duration_us =
        parse_duration(options.duration).value_or(static_cast<std::int64_t>(days * 8.64e10));
    return {draw_outages(uplinks, duration_us, model, options.seed), duration_us};
}

Course replayed_course(const Options& options, const std::vector<Uplink>& uplinks) {
    const auto moment = [](const std::string& text) {
        return text.empty() ? std::nullopt : shared::read_time(text, now_ms());
    };
    const Period period{.since_ms = moment(options.since), .until_ms = moment(options.until)};
    if (period.since_ms && period.until_ms && *period.since_ms >= *period.until_ms) {
        throw Unusable{"lbsim: --since " + options.since + " (" + shown_time(*period.since_ms) +
                       ") is not before --until " + options.until + " (" +
                       shown_time(*period.until_ms) + ")\n"};
    }
    Replayed replayed = replay_of(read_history(options.history, period), period, uplinks);
    if (replayed.duration_us <= 0) {
        throw Unusable{
            "lbsim: " + options.history + ": nothing was recorded " +
            (period.since_ms || period.until_ms ? "in that time " : "") +
            "of what the configuration asks: no target of one of its uplinks is there\n"};
    }
    for (const std::string& doubt : replayed.doubts) {
        std::cerr << "lbsim: " << options.history << ": " << doubt << '\n';
    }
    std::cerr << "lbsim: " << options.history << ": second 0 is " << shown_time(replayed.begin_ms)
              << "; the daemon starts then\n";
    return {std::move(replayed.scenario),
            parse_duration(options.duration).value_or(replayed.duration_us)};
}

Course course_of(const Options& options, const std::vector<Uplink>& uplinks) {
    if (!options.history.empty()) {
        return replayed_course(options, uplinks);
    }
    if (!options.scenario.empty()) {
        return {read_scenario(options.scenario, uplinks), parse_duration(options.duration)};
    }
    if (options.is_random || options.is_tuned) {
        return drawn_course(options, uplinks);
    }
    return {single_failures(uplinks), parse_duration(options.duration)};
}

int end_of_output() {
    return shared::end_output("lbsim") ? 0 : 2;
}

int tune(const Options& options) {
    const Configuration configuration = load_configuration(options.configuration);
    warn(configuration);
    const std::vector<Uplink>& uplinks = configuration.loaded.uplinks;
    Course course = course_of(options, uplinks);
    if (!course.duration_us) {
        // The largest counts take their time after the last event.
        constexpr std::int64_t patience = 5;
        for (const Uplink& uplink : uplinks) {
            const std::int64_t end_us = duration_of(course.scenario, {uplink});
            course.duration_us =
                std::max(course.duration_us.value_or(0), end_us + patience * uplink.settle_us);
        }
    }
    const auto trials =
        try_settings(configuration, course.scenario,
                     {.duration_us = course.duration_us, .seed = options.seed}, settings_to_try());
    if (!options.svg.empty()) {
        write_file(options.svg, tuning_svg(trials));
    }
    std::cout << (options.as_json
                      ? tuning_json(trials, *course.duration_us, options.seed)
                      : options.configuration + ": seed " + std::to_string(options.seed) + ", " +
                            tuning_text(trials, *course.duration_us));
    return end_of_output();
}

int run(const Options& options) {
    std::vector<Configuration> configurations{load_configuration(options.configuration)};
    std::vector<Uplink> uplinks = configurations.front().loaded.uplinks;
    if (!options.compared.empty()) {
        configurations.push_back(load_configuration(options.compared));
        uplinks = slowest_of(uplinks, configurations.back().loaded.uplinks);
    }
    for (const Configuration& one : configurations) {
        warn(one);
    }
    const Course course = course_of(options, uplinks);
    const auto stories = run_all(configurations, course.scenario,
                                 {.duration_us = course.duration_us, .seed = options.seed});
    if (!options.svg.empty()) {
        write_file(options.svg, svg_text(stories.front()));
    }
    print(stories, options);
    return end_of_output();
}

void add_options(CLI::App& app, Options& options) {
    app.add_option("CONF", options.configuration, "the configuration");
    auto* const scenario =
        app.add_option("SCENARIO", options.scenario, "what happens, one event a line")
            ->check(valid_file);
    app.add_option("--for", options.duration,
                   "how long: 90s, 10m, 30d; by default until the last event has been judged")
        ->check(valid_duration);
    app.add_option("--seed", options.seed, "of all that is drawn; 1 by default")->check(valid_seed);
    auto* const compare =
        app.add_option("--compare", options.compared,
                       "another configuration in the same world, and what differs")
            ->check(valid_file);
    app.add_flag("--json", options.as_json, "events and summary as a JSON object, for programs");
    app.add_option("--svg", options.svg, "draw what was true and what the daemon took for true")
        ->check(valid_file);
    scenario->excludes(app.add_option("--scenario", options.scenario, "the same, as an option")
                           ->check(valid_file));
    auto* const replay = app.add_option("--replay", options.history,
                                        "what a history of lbwatch, or comma-separated "
                                        "time,uplink,family,target,answered, has recorded")
                             ->check(valid_file)
                             ->excludes(scenario);
    app.add_option("--since", options.since, "of --replay: from then on (12h, 2026-11-21, ...)")
        ->check(valid_time)
        ->needs(replay);
    app.add_option("--until", options.until, "of --replay: before then")
        ->check(valid_time)
        ->needs(replay);
    app.add_flag("--tune", options.is_tuned,
                 "try other counts in the same world; without a scenario or a history, in drawn "
                 "outages over two days")
        ->excludes(compare);
    auto* const random =
        app.add_flag("--random", options.is_random, "outages drawn from the seed, over days")
            ->excludes(scenario)
            ->excludes(replay);
    app.add_option("--days", options.days, "of --random; 30 by default")
        ->check(CLI::Range(0.01, 36500.0))
        ->check(shared::problem_of_nan)
        ->needs(random);
    app.add_option("--outages-per-day", options.model.outages_per_day,
                   "of each uplink with --random; 4 by default")
        ->check(CLI::Range(0.0, 10000.0))
        ->check(shared::problem_of_nan)
        ->needs(random);
    app.add_option("--mean-outage", options.mean_outage,
                   "mean length of an outage with --random; 2m by default")
        ->check(valid_duration)
        ->needs(random);
    app.add_option("--kinds", options.kinds,
                   "shares of the kinds of outages with --random; "
                   "dead=5,link=1,loss=2,delay=1,target=1 by default")
        ->check([](const std::string& text) {
            OutageModel model;
            return parse_kinds(text, model)
                       ? std::string()
                       : "'" + text + "' is not as dead=5,link=1,loss=2,delay=1,target=1";
        })
        ->needs(random);
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(
        "Runs the balancing daemon on a simulated network under a virtual clock, and tells what "
        "it would have done. Without a scenario: each single failure of an uplink or a target in "
        "turn. Nothing of this machine is asked or changed. Exit status: 0, or 2 for errors.",
        "lbsim");
    app.failure_message(shared::failure_text);
    app.set_version_flag("--version", "lbsim " LB_VERSION);
    add_options(app, options);
    try {
        app.parse(argc, argv);
        // Behind what the library complains of: an unknown option is told before.
        if (options.configuration.empty()) {
            throw CLI::RequiredError("CONF");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        return options.is_tuned ? tune(options) : run(options);
    } catch (const Unusable& unusable) {
        std::cerr << unusable.text;
        return 2;
    } catch (const std::exception& failure) {
        std::cerr << "lbsim: " << failure.what() << '\n';
        return 2;
    }
}

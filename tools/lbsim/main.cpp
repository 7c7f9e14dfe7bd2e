#include <cstdint>
#include <iostream>
#include <string>

#include "lbsim/report.h"
#include "lbsim/session.h"
#include <CLI/CLI.hpp>

namespace {

using namespace lbsim;

struct Options {
    std::string configuration;
    std::string scenario;
    std::string compared;
    std::string duration;
    std::uint64_t seed = 1;
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

int run(const Options& options) {
    std::vector<Configuration> configurations{load_configuration(options.configuration)};
    if (!options.compared.empty()) {
        configurations.push_back(load_configuration(options.compared));
    }
    for (const Configuration& one : configurations) {
        warn(one);
    }
    const std::vector<Uplink>& uplinks = configurations.front().loaded.uplinks;
    const Scenario scenario = options.scenario.empty() ? single_failures(uplinks)
                                                       : read_scenario(options.scenario, uplinks);
    print(run_all(configurations, scenario,
                  {.duration_us = parse_duration(options.duration), .seed = options.seed}),
          options);
    std::cout.flush();
    return std::cout ? 0 : 2;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(
        "Runs the balancing daemon on a simulated network under a virtual clock, and tells what "
        "it would have done. Without a scenario: each single failure of an uplink or a target in "
        "turn. Nothing of this machine is asked or changed. Exit status: 0, or 2 for errors.",
        "lbsim");
    app.set_version_flag("--version", "lbsim " LB_VERSION);
    app.add_option("CONF", options.configuration, "the configuration")->required();
    app.add_option("SCENARIO", options.scenario, "what happens, one event a line");
    app.add_option("--for", options.duration,
                   "how long: 90s, 10m, 30d; by default until the last event has been judged")
        ->check(valid_duration);
    app.add_option("--seed", options.seed, "of all that is drawn; 1 by default");
    app.add_option("--compare", options.compared,
                   "another configuration in the same world, and what differs");
    app.add_flag("--json", options.as_json, "events and summary as a JSON object, for programs");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    try {
        return run(options);
    } catch (const Unusable& unusable) {
        std::cerr << unusable.text;
        return 2;
    }
}

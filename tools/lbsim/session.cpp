#include "lbsim/session.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "lbsim/apart.h"
#include "lbsim/packed.h"
#include "lbsim/scenario_text.h"
#include "shared/output_file.h"
#include "shared/plain_text.h"

namespace lbsim {

namespace {

void complain(const std::string& path, int error) {
    throw Unusable{"lbsim: " + path + ": " + strerror(error) + '\n'};
}

/// Twenty at most: what is no scenario at all has as many as lines.
std::string errors_text(const std::string& path, const std::vector<ScenarioError>& errors) {
    constexpr std::size_t most = 20;
    std::string text;
    for (std::size_t i = 0; i < std::min(errors.size(), most); ++i) {
        const ScenarioError& error = errors[i];
        text += "lbsim: " + path + ":" + std::to_string(error.line) + ": " +
                (error.word.empty() ? "at the end of the line" : quoted(error.word)) + ": " +
                error.reason + '\n';
    }
    if (errors.size() > most) {
        text += "lbsim: " + path + ": and " + std::to_string(errors.size() - most) +
                " more lines with an error\n";
    }
    return text;
}

void require(const std::string& error) {
    if (!error.empty()) {
        throw Unusable{"lbsim: " + error + '\n'};
    }
}

}  // namespace

std::string quoted(const std::string& word) {
    constexpr std::size_t most = 60;
    std::string text(1, '\'');
    text.append(shared::harmless(word.substr(0, most)));
    return text.append(word.size() > most ? "...'" : "'");
}

std::string read_file(const std::string& path) {
    return read_beginning(path, std::numeric_limits<std::size_t>::max());
}

std::string read_beginning(const std::string& path, std::size_t most) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "re"), fclose);
    std::string text;
    char buffer[65536];
    std::size_t count = 0;
    while (file != nullptr && text.size() < most &&
           (count = fread(buffer, 1, std::min(sizeof buffer, most - text.size()), file.get())) >
               0) {
        text.append(buffer, count);
    }
    if (file == nullptr || ferror(file.get()) != 0) {
        complain(path, errno);
    }
    return text;
}

void write_file(const std::string& path, const std::string& text) {
    const std::string problem = shared::write_output(path, text);
    if (!problem.empty()) {
        throw Unusable{"lbsim: " + problem + '\n'};
    }
}

Scenario read_scenario(const std::string& path, const std::vector<Uplink>& uplinks) {
    ParsedScenario parsed = parse_scenario(read_file(path));
    const auto unfit = check_scenario(parsed.events, uplinks);
    parsed.errors.insert(parsed.errors.end(), unfit.begin(), unfit.end());
    std::stable_sort(
        parsed.errors.begin(), parsed.errors.end(),
        [](const ScenarioError& one, const ScenarioError& other) { return one.line < other.line; });
    if (!parsed.errors.empty()) {
        throw Unusable{errors_text(path, parsed.errors)};
    }
    return std::move(parsed.events);
}

Configuration load_configuration(const std::string& path) {
    Configuration configuration{.path = path, .text = read_file(path), .loaded = {}};
    const Apart apart = run_apart([&configuration] { return packed(load(configuration.text)); });
    require(apart.error);
    configuration.loaded = unpacked_loaded(apart.result);
    if (configuration.loaded.uplinks.empty()) {
        throw Unusable{"lbsim: " + path +
                       ": nothing to simulate: no namespace has both an uplink and a rule of one "
                       "family; lbcheck tells why\n"};
    }
    return configuration;
}

namespace {

Plan plan_of(const Configuration& configuration, const Scenario& scenario, std::int64_t duration_us,
             std::uint64_t seed) {
    return {.configuration = configuration.text,
            .scenario = scenario,
            .duration_us = duration_us,
            .seed = seed,
            .success_ct = {},
            .failure_ct = {}};
}

}  // namespace

std::vector<Trial> try_settings(const Configuration& configuration, const Scenario& scenario,
                                const Wanted& wanted, const std::vector<Setting>& settings) {
    const std::vector<Uplink>& uplinks = configuration.loaded.uplinks;
    const std::int64_t duration_us = wanted.duration_us.value_or(duration_of(scenario, uplinks));
    std::vector<std::function<std::string()>> tasks;
    for (const Setting& setting : settings) {
        Plan plan = plan_of(configuration, scenario, duration_us, wanted.seed);
        plan.success_ct = setting.success_ct;
        plan.failure_ct = setting.failure_ct;
        tasks.emplace_back([plan, &uplinks] { return packed(simulate(plan, uplinks)); });
    }
    const auto answers = run_apart(tasks);
    std::vector<Trial> trials;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        require(answers[i].error);
        const Run run = unpacked_run(answers[i].result);
        trials.push_back(trial_of(settings[i], summarize(uplinks, scenario, run)));
    }
    return trials;
}

std::vector<Story> run_all(const std::vector<Configuration>& configurations,
                           const Scenario& scenario, const Wanted& wanted) {
    std::int64_t duration_us = 0;
    for (const Configuration& one : configurations) {
        duration_us = std::max(duration_us, duration_of(scenario, one.loaded.uplinks));
    }
    std::vector<std::function<std::string()>> tasks;
    for (const Configuration& one : configurations) {
        const Plan plan =
            plan_of(one, scenario, wanted.duration_us.value_or(duration_us), wanted.seed);
        tasks.emplace_back(
            [plan, &uplinks = one.loaded.uplinks] { return packed(simulate(plan, uplinks)); });
    }
    const auto answers = run_apart(tasks);
    std::vector<Story> stories;
    for (std::size_t i = 0; i < answers.size(); ++i) {
        require(answers[i].error);
        Story story{.configuration = configurations[i].path,
                    .uplinks = configurations[i].loaded.uplinks,
                    .scenario = scenario,
                    .seed = wanted.seed,
                    .run = unpacked_run(answers[i].result),
                    .summary = {}};
        story.summary = summarize(story.uplinks, story.scenario, story.run);
        stories.push_back(std::move(story));
    }
    return stories;
}

}  // namespace lbsim

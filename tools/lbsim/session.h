#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lbsim/report.h"
#include "lbsim/tune.h"

/// From the files that a command names to a story. Whatever is wrong is an `Unusable` with a text
/// that names the cause.
namespace lbsim {

struct Unusable {
    std::string text;  ///< lines, each with a line feed
};

/// A word of a file, harmless on a terminal.
std::string quoted(const std::string& word);

std::string read_file(const std::string& path);
/// So many bytes at most, from its beginning.
std::string read_beginning(const std::string& path, std::size_t most);
void write_file(const std::string& path, const std::string& text);
/// The scenario of a file, held against the configuration's uplinks.
Scenario read_scenario(const std::string& path, const std::vector<Uplink>& uplinks);

/// A configuration, and what the loader made of it.
struct Configuration {
    std::string path;
    std::string text;
    Loaded loaded;
};
Configuration load_configuration(const std::string& path);

struct Wanted {
    std::optional<std::int64_t> duration_us;  ///< else as long as the scenario needs
    std::uint64_t seed = 1;
};
/// Runs one configuration with each of the settings, in one world.
std::vector<Trial> try_settings(const Configuration& configuration, const Scenario& scenario,
                                const Wanted& wanted, const std::vector<Setting>& settings);

/// Runs the configurations in one world, each in a process of its own, side by side.
std::vector<Story> run_all(const std::vector<Configuration>& configurations,
                           const Scenario& scenario, const Wanted& wanted);

}  // namespace lbsim

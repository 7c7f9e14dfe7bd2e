#pragma once

#include <cmath>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>

/// What the command lines of the programs have in common.
namespace shared {

/// For `CLI::App::failure_message`: an error says whose it is, in a journal for example.
inline std::string failure_text(const CLI::App* app, const CLI::Error& error) {
    return app->get_name() + ": " + CLI::FailureMessage::simple(app, error);
}

/// Beside a CLI::Range, which "nan" passes: why it is no such number; empty for one.
inline std::string problem_of_nan(const std::string& text) {
    return std::isnan(strtod(text.c_str(), nullptr)) ? "'" + text + "' is no number"
                                                     : std::string();
}

}  // namespace shared

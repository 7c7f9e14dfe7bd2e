#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>

#include "lbcheck/findings.h"
#include "lbcheck/live_findings.h"
#include "shared/command_line.h"
#include "shared/standard_output.h"
#include "shared/usual_paths.h"
#include <CLI/CLI.hpp>

namespace {

struct Options {
    std::string path;
    std::string output_directory = shared::usual_output;
    bool is_strict = false;
    bool as_json = false;
    bool wants_explanation = false;
    bool is_live = false;
};

int check_file(const Options& options) {
    const lbcheck::Checked checked = lbcheck::check(options.path);
    std::cout << (options.as_json ? lbcheck::as_json(options.path, checked.findings)
                                  : lbcheck::as_text(options.path, checked.findings));
    if (options.wants_explanation) {
        std::cout << lbcheck::explain(checked.data);
    }
    return lbcheck::exit_status(checked.findings, options.is_strict);
}

int check_router(const Options& options) {
    const lbcheck::Checked checked = lbcheck::check(options.path);
    if (!options.as_json) {
        std::cout << lbcheck::as_text(options.path, checked.findings) << std::flush;
    }
    const auto findings = lbcheck::judge_live(
        lbcheck::collect_facts(options.path, checked.data, options.output_directory));
    std::cout << (options.as_json ? lbcheck::live_json(options.path, checked.findings, findings)
                                  : lbcheck::live_text(findings));
    return std::max(lbcheck::exit_status(checked.findings, options.is_strict),
                    lbcheck::live_exit_status(findings, options.is_strict));
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(
        "Tells what the balancing daemon would understand of a configuration, and what it would "
        "silently ignore; with --live also whether this router lets it work. Exit status: 0, 1 "
        "for warnings with --strict, 2 for errors.",
        "lbcheck");
    app.failure_message(shared::failure_text);
    app.set_version_flag("--version", "lbcheck " LB_VERSION);
    app.add_option("FILE", options.path, "the configuration; with --live /etc/lb.conf by default");
    app.add_flag("--strict", options.is_strict,
                 "warnings count as well, and what could not be looked at");
    auto* const json =
        app.add_flag("--json", options.as_json, "findings as a JSON object, for programs");
    auto* const explain =
        app.add_flag("--explain", options.wants_explanation,
                     "print the configuration as understood, with times and routes")
            ->excludes(json);
    auto* const live =
        app.add_flag("--live", options.is_live,
                     "look at this router too: links, firewall, next hops, routes, services")
            ->excludes(explain);
    app.add_option("-o", options.output_directory, "the daemon's output directory, for --live")
        ->type_name("DIR")
        ->capture_default_str()
        ->needs(live);
    try {
        app.parse(argc, argv);
        if (options.path.empty() && !options.is_live) {
            throw CLI::RequiredError("FILE");
        }
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (options.path.empty()) {
        options.path = shared::usual_configuration;
    }
    if (!options.is_live) {
        const int status = check_file(options);
        return shared::end_output("lbcheck") ? status : 2;
    }
    const int status = check_router(options);
    // The receivers of next hops' answers run on to the end: nothing is torn down beneath them.
    std::_Exit(shared::end_output("lbcheck") ? status : 2);
}

#include <iostream>

#include "lbcheck/findings.h"
#include <CLI/CLI.hpp>

int main(int argc, char* argv[]) {
    std::string path;
    bool is_strict = false;
    bool as_json = false;
    bool wants_explanation = false;
    CLI::App app(
        "Tells what the balancing daemon would understand of a configuration, and what it would "
        "silently ignore. Exit status: 0, 1 for warnings with --strict, 2 for errors.",
        "lbcheck");
    app.set_version_flag("--version", "lbcheck " LB_VERSION);
    app.add_option("FILE", path, "the configuration")->required();
    app.add_flag("--strict", is_strict, "warnings count as well");
    auto* const json = app.add_flag("--json", as_json, "findings as a JSON object, for programs");
    app.add_flag("--explain", wants_explanation,
                 "print the configuration as understood, with the routes when all uplinks work")
        ->excludes(json);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    const lbcheck::Checked checked = lbcheck::check(path);
    std::cout << (as_json ? lbcheck::as_json(path, checked.findings)
                          : lbcheck::as_text(path, checked.findings));
    if (wants_explanation) {
        std::cout << lbcheck::explain(checked.data);
    }
    std::cout.flush();
    return lbcheck::exit_status(checked.findings, is_strict);
}

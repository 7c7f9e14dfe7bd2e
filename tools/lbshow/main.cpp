#include <unistd.h>

#include <bit>
#include <chrono>
#include <iostream>
#include <thread>

#include "lbshow/state.h"
#include "lbshow/views.h"
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Shows what the balancing daemon knows: its interfaces, rules and routes, from the dumps that "
    "it "
    "writes in every cycle.";

struct Options {
    std::string directory = "/var/run/load-balance";
    std::string what;
    lbshow::Selection selection;
    bool as_json = false;
    bool as_metrics = false;
    std::string byte_order;
    bool is_watching = false;
    double pause_s = 2;
};

bool is_swapped(const std::string& byte_order) {
    const bool is_native_big = std::endian::native == std::endian::big;
    return !byte_order.empty() && (byte_order == "big") != is_native_big;
}

std::string shown(const lbshow::State& state, const Options& options) {
    if (options.as_json) {
        return lbshow::json(state, options.selection);
    }
    if (options.as_metrics) {
        return lbshow::metrics(state, options.selection);
    }
    return lbshow::tables(state, options.selection, isatty(STDOUT_FILENO) == 1);
}

/// Prints the state once; false after telling what is wrong.
bool show(const Options& options) {
    lbshow::State state;
    const std::string problem =
        lbshow::read_state(options.directory, is_swapped(options.byte_order), state);
    if (!problem.empty()) {
        std::cerr << "lbshow: " << problem << std::endl;
        return false;
    }
    const std::string unknown = lbshow::select(state, options.selection);
    if (!unknown.empty()) {
        std::cerr << "lbshow: nothing is called '" << unknown << "'" << std::endl;
        return false;
    }
    std::cout << shown(state, options) << std::flush;
    return static_cast<bool>(std::cout);
}

/// Shows again and again until the output is closed; a state that cannot be read may be whole again
/// at the next look.
int watch(const Options& options) {
    while (std::cout) {
        if (isatty(STDOUT_FILENO) == 1) {
            std::cout << "\033[H\033[2J";
        }
        show(options);
        std::this_thread::sleep_for(std::chrono::duration<double>(options.pause_s));
    }
    return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(description, "lbshow");
    app.add_option("what", options.what, "interfaces, rules or routes; all three by default")
        ->check(CLI::IsMember({"interfaces", "rules", "routes"}));
    app.add_option("name", options.selection.names,
                   "of interfaces, of rules (1_ipv4 or 1), or prefixes of routes");
    app.add_option("-o", options.directory, "the daemon's output directory")
        ->type_name("DIR")
        ->capture_default_str();
    auto* const as_json = app.add_flag("--json", options.as_json, "a JSON object, for programs");
    app.add_flag("--metrics", options.as_metrics, "Prometheus text format")->excludes(as_json);
    auto* const watched =
        app.add_option("--watch", options.pause_s, "show again every 2, or so many, seconds")
            ->type_name("[SECONDS]")
            ->expected(0, 1)
            ->check(CLI::Range(0.1, 86400.0));
    app.add_option("--byte-order", options.byte_order,
                   "byte order of dumps that were copied from another machine")
        ->check(CLI::IsMember({"big", "little"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    if (!options.what.empty()) {
        options.selection.interfaces = options.what == "interfaces";
        options.selection.rules = options.what == "rules";
        options.selection.routes = options.what == "routes";
    }
    if (watched->count() > 0) {
        return watch(options);
    }
    return show(options) ? 0 : 1;
}

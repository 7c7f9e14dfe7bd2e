#include <unistd.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "dumps/dump_files.h"
#include "dumps/freshness.h"
#include "dumps/in_force.h"
#include "lbshow/views.h"
#include "shared/command_line.h"
#include "shared/plain_text.h"
#include "shared/standard_output.h"
#include "shared/usual_paths.h"
#ifdef LB_HISTORY
#include "lbwatch/uplink_past.h"
#endif
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Shows what the balancing daemon knows: its interfaces, rules and routes, from the dumps that "
    "it writes in every cycle.";

enum Status { shown_well = 0, not_shown = 1, stale = 3 };

struct Options {
    std::string directory = shared::usual_output;
    std::string history;  ///< empty: the usual one where it is there; "none": not asked
    std::string what;
    lbshow::Selection selection;
    bool as_json = false;
    bool as_metrics = false;
    std::string byte_order;
    std::optional<std::int64_t> stale_after_s;
    bool wants_stale = false;
    double pause_s = 2;
};

bool is_swapped(const std::string& byte_order) {
    const bool is_native_big = std::endian::native == std::endian::big;
    return !byte_order.empty() && (byte_order == "big") != is_native_big;
}

std::string shown(const dumps::State& state, const Options& options) {
    if (options.as_json) {
        return lbshow::json(state, options.selection);
    }
    if (options.as_metrics) {
        return lbshow::metrics(state, LB_VERSION);
    }
    return lbshow::tables(state, options.selection, isatty(STDOUT_FILENO) == 1);
}

/// The history's word on each interface. The usual one belongs to the usual dumps, and may be
/// missing. False where one that was asked for cannot be read.
bool add_past([[maybe_unused]] dumps::State& state, [[maybe_unused]] const Options& options) {
#ifdef LB_HISTORY
    const bool is_usual = options.history.empty();
    const std::string path = is_usual ? shared::usual_history : options.history;
    if (path == "none" || (is_usual && (options.directory != shared::usual_output ||
                                        access(path.c_str(), R_OK) != 0))) {
        return true;
    }
    const std::string problem = lbwatch::read_past(path, state);
    if (!problem.empty()) {
        std::cerr << "lbshow: " << shared::harmless(problem) << std::endl;
    }
    return problem.empty() || is_usual;
#else
    return true;
#endif
}

dumps::Time now() {
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

/// Prints the state once, or tells what is wrong.
Status show(const Options& options) {
    dumps::State state;
    const std::string problem =
        dumps::read_state(options.directory, is_swapped(options.byte_order), state);
    if (!problem.empty()) {
        std::cerr << "lbshow: " << problem << std::endl;
        return not_shown;
    }
    dumps::judge_freshness(state, now(), options.stale_after_s);
    dumps::resolve_next_hops(state);
    const bool has_past = options.as_metrics || add_past(state, options);
    const std::string unknown = lbshow::select(state, options.selection);
    if (!unknown.empty()) {
        std::cerr << "lbshow: nothing is called '" << unknown << "'" << std::endl;
        return not_shown;
    }
    // A series is of now or it is not there.
    if (!options.wants_stale || options.as_metrics) {
        dumps::leave_out_stale(state);
    }
    std::cout << shown(state, options);
    if (!shared::end_output("lbshow") || !has_past) {
        return not_shown;
    }
    return dumps::has_stale(state) ? stale : shown_well;
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
    return not_shown;
}

bool is_number(const std::string& word) {
    char* end = nullptr;
    const double number = strtod(word.c_str(), &end);
    return !word.empty() && *end == '\0' && std::isfinite(number);
}

/// The words of the command line, last one first. `--watch` takes the word behind it only where
/// that is a number: in `--watch interfaces` it is what to watch.
std::vector<std::string> words_of(int argc, char* argv[]) {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        words.emplace_back(argv[i]);
        if (words.back() == "--watch") {
            words.back() +=
                i + 1 < argc && is_number(argv[i + 1]) ? std::string("=") + argv[++i] : "=2";
        }
    }
    std::reverse(words.begin(), words.end());
    return words;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(description, "lbshow");
    app.failure_message(shared::failure_text);
    app.set_version_flag("--version", "lbshow " LB_VERSION);
    app.add_option("what", options.what, "interfaces, rules or routes; all three by default")
        ->check(CLI::IsMember({"interfaces", "rules", "routes"}));
    app.add_option("name", options.selection.names,
                   "of interfaces, of rules (1_ipv4 or 1), or prefixes of routes");
    app.add_option("-o", options.directory, "the daemon's output directory")
        ->type_name("DIR")
        ->capture_default_str();
#ifdef LB_HISTORY
    app.add_option("--history", options.history,
                   std::string("since when, by this history of lbwatch, or none; ") +
                       shared::usual_history + " where it is there")
        ->type_name("FILE");
#endif
    auto* const as_json = app.add_flag("--json", options.as_json, "a JSON object, for programs");
    app.add_flag("--metrics", options.as_metrics, "Prometheus text format")->excludes(as_json);
    auto* const watched =
        app.add_option("--watch", options.pause_s, "show again every 2, or so many, seconds")
            ->type_name("[SECONDS]")
            ->expected(0, 1)
            ->check(CLI::Range(0.1, 86400.0))
            ->check(shared::problem_of_nan);
    app.add_option(
           "--stale-after", options.stale_after_s,
           "the age from which on dumps are stale (15; 60 for a family with extended pings)")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 31'536'000));
    app.add_flag("--all", options.wants_stale, "show what is stale too, in tables and JSON");
    app.add_option("--byte-order", options.byte_order,
                   "byte order of dumps that were copied from another machine")
        ->check(CLI::IsMember({"big", "little"}));
    try {
        app.parse(words_of(argc, argv));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? shown_well : not_shown;
    }
    if (!options.what.empty()) {
        options.selection.interfaces = options.what == "interfaces";
        options.selection.rules = options.what == "rules";
        options.selection.routes = options.what == "routes";
    }
    if (watched->count() > 0) {
        return watch(options);
    }
    return show(options);
}

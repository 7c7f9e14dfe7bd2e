#include <iostream>
#include <string>

#include "lbwatch/commands.h"
#include "shared/command_line.h"
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Follows the balancing daemon from outside: tells what changes, remembers it, and reports how "
    "often each uplink was down.";

void add_selection(CLI::App& app, std::string& history, std::string& since, std::string& until,
                   std::string& uplink) {
    app.add_option("--history", history, "the history file")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--since", since, "from then on: an age (90s, 15m, 12h, 1d) or a date")
        ->type_name("TIME")
        ->capture_default_str();
    app.add_option("--until", until, "and before then")->type_name("TIME")->capture_default_str();
    app.add_option("--uplink", uplink, "of this uplink only")->type_name("NAME");
}

void add_run_options(CLI::App& app, lbwatch::WatchOptions& options) {
    app.add_option("-o", options.out_dir, "the daemon's output directory")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--history", options.history, "the history file, or none to keep nothing")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--hooks", options.hooks,
                   "run this folder's executables for each event, or none")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--listen", options.listen,
                   "serve the page, metrics and answers to programs there")
        ->type_name("ADDRESS:PORT");
    app.add_option("--host", options.hosts,
                   "answer requests that call this machine so, beside its own name")
        ->type_name("NAME")
        ->expected(1)
        ->take_all();
    app.add_flag("--json", options.as_json, "events as JSON, one object a line");
}

}  // namespace

int main(int argc, char* argv[]) {
    lbwatch::WatchOptions watch;
    lbwatch::EventsOptions events;
    lbwatch::ReportOptions report;
    CLI::App app(description, "lbwatch");
    app.failure_message(shared::failure_text);
    app.set_version_flag("--version", "lbwatch " LB_VERSION);
    app.require_subcommand(0, 1);
    add_run_options(app, watch);
    auto* const run = app.add_subcommand("run", "follow the daemon until ended (the default)");
    add_run_options(*run, watch);
    auto* const listed = app.add_subcommand("events", "tell past events from the history");
    add_selection(*listed, events.history, events.since, events.until, events.uplink);
    listed->add_flag("--json", events.as_json, "one JSON object a line");
    auto* const reported = app.add_subcommand("report", "tell how often each uplink was down");
    add_selection(*reported, report.history, report.since, report.until, report.uplink);
    auto* const as_json = reported->add_flag("--json", report.as_json, "a JSON object");
    auto* const as_csv =
        reported->add_flag("--csv", report.as_csv, "comma-separated values")->excludes(as_json);
    reported->add_option("--html", report.html, "write a page that needs nothing else to be read")
        ->type_name("FILE")
        ->excludes(as_json)
        ->excludes(as_csv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 1;
    }
    // In front of another command they would be those of `run`, which nobody means there.
    for (const CLI::Option* option : app.get_options()) {
        if (option->count() > 0 && (listed->parsed() || reported->parsed())) {
            std::cerr << "lbwatch: " << option->get_name()
                      << " stands in front of the command; options stand behind it\n";
            return 1;
        }
    }
    if (listed->parsed()) {
        return lbwatch::tell_events(events);
    }
    if (reported->parsed()) {
        return lbwatch::report(report);
    }
    return lbwatch::watch(watch);
}

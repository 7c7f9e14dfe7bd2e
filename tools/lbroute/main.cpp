#include <string>

#include "core/process.h"
#include "lbroute/daemon.h"
#include "lbroute/maintenance.h"
#include "lbroute/status.h"
#include "shared/command_line.h"
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Puts the routes that the balancing daemon decides on into force: reads the fragments that it "
    "writes and makes the kernel's routes agree with them. Without a command it runs until it is "
    "ended.";

/// What the command line may hold beside the options of the program itself.
struct Words {
    bool as_json = false;
    lbroute::HoldRequest hold;
    std::string family;
};

void add_options(CLI::App& app, lbroute::Options& options) {
    app.add_option("-f", options.configuration, "the balancing daemon's configuration")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("-o", options.output_directory, "the balancing daemon's output directory")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--table", options.table, "the kernel's routing table, by number; 254 is main")
        ->type_name("N")
        ->check(CLI::Range(1U, 4294967295U))
        ->capture_default_str();
    app.add_flag("!--no-sticky", options.is_sticky,
                 "plain multipath routes: flows may move when an uplink leaves or returns");
    app.add_flag("--keep-flows", options.keeps_flows,
                 "leave the translated flows of a lost uplink as they are");
    app.add_flag("--flush", options.flushes,
                 "take all routes away at the end; with --once at once");
    auto* const bird2 =
        app.add_option(
               "--bird2", options.bird2_file,
               "write the routes into FILE for bird 2 or 3, instead of the kernel's; of the "
               "default namespace only")
            ->type_name("FILE")
            ->excludes("--table")
            ->excludes("--no-sticky")
            ->excludes("--keep-flows");
    app.add_option("--birdc", options.birdc, "what makes bird read FILE")
        ->type_name("COMMAND")
        ->needs(bird2)
        ->capture_default_str();
    auto* const once =
        app.add_flag("--once", options.runs_once, "put the fragments into force and end");
    app.add_flag("--dry-run", options.is_dry,
                 "print the ip commands that would do it, and change nothing")
        ->excludes(once);
}

CLI::App* add_hold_words(CLI::App& command, Words& words) {
    command.add_option("INTERFACE", words.hold.interface, "the uplink")->required();
    command.add_option("--family", words.family, "of one family only")
        ->check(CLI::IsMember({"ipv4", "ipv6"}));
    command.add_option("--namespace", words.hold.namespace_name, "in which the uplink is")
        ->type_name("NS");
    return &command;
}

}  // namespace

int main(int argc, char* argv[]) {
    // No socket may get the number of a stream that was closed: the log would be written into it.
    hold_standard_streams();
    lbroute::Options options;
    Words words;
    CLI::App app(description, "lbroute");
    app.failure_message(shared::failure_text);
    app.set_version_flag("--version", "lbroute " LB_VERSION);
    app.require_subcommand(0, 1);
    app.fallthrough();
    add_options(app, options);
    auto* const status = app.add_subcommand(
        "status",
        "shows routes, next hops and shares; exit status 0 where the kernel agrees with "
        "the fragments, 1 where not");
    status->add_flag("--json", words.as_json, "a JSON object, for programs");
    auto* const hold = add_hold_words(
        *app.add_subcommand("hold", "takes an uplink out of all routes, whatever the daemon says"),
        words);
    hold->add_option("--for", words.hold.duration, "so long: 90s, 30m, 2h or 1d")
        ->type_name("TIME");
    hold->add_flag("--force", words.hold.is_forced,
                   "also where it is the last next hop of a route");
    auto* const release = add_hold_words(*app.add_subcommand("release", "ends a hold"), words);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    if (!words.family.empty()) {
        words.hold.family = words.family == "ipv4" ? lbroute::Family::ipv4 : lbroute::Family::ipv6;
    }
    if (status->parsed()) {
        return lbroute::show_status(options, app.count("--table") > 0, words.as_json);
    }
    if (hold->parsed()) {
        return lbroute::hold(options, words.hold);
    }
    if (release->parsed()) {
        return lbroute::release(options, words.hold);
    }
    return options.is_dry ? lbroute::show_commands(options) : lbroute::run(options);
}

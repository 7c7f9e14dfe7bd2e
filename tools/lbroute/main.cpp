#include "lbroute/daemon.h"
#include <CLI/CLI.hpp>

int main(int argc, char* argv[]) {
    lbroute::Options options;
    CLI::App app("Puts the routes that the balancing daemon writes into the kernel.", "lbroute");
    app.add_option("-f", options.configuration, "the daemon's configuration")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("-o", options.output_directory, "the daemon's output directory")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--table", options.table, "the kernel's routing table")
        ->type_name("N")
        ->capture_default_str();
    app.add_flag("!--no-sticky", options.is_sticky, "plain multipath routes");
    app.add_flag("--keep-flows", options.keeps_flows, "leave translated flows of a lost uplink");
    app.add_flag("--flush", options.flushes, "take all routes away at the end");
    app.add_flag("--once", options.runs_once, "apply and end");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    return lbroute::run(options);
}

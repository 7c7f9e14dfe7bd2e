#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "config/lb_data_factory.h"
#include "decision/lease_file.h"
#include "lb-lease/lease_store.h"
#include "lb-lease/lease_text.h"
#include "shared/quiet_log.h"
#include "shared/usual_paths.h"
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Writes the lease file from which the balancing daemon takes the next hop of an uplink with "
    "'nexthop dhcp'; for the scripts of DHCP clients. Exit status: 0, 1 when it cannot be written, "
    "2 for a wrong command line, 3 (and silent) when the configuration has no such uplink.";

enum Status { done = 0, failed = 1, misused = 2, left_alone = 3 };

struct Options {
    std::string interface;
    std::vector<std::string> routers;
    std::string static_routes;
    std::string configuration = shared::usual_configuration;
    bool is_ipv6 = false;
    bool is_gone = false;
};

int tell(Status status, const std::string& problem) {
    std::cerr << "lb-lease: " << problem << std::endl;
    return status;
}

/// Scripts call for every interface of the machine: what is no business of the daemon is told to a
/// person only.
int leave_alone(const Options& options) {
    if (isatty(STDERR_FILENO) == 1) {
        tell(left_alone, options.interface + " is left alone: no '" +
                             (options.is_ipv6 ? "interface6 " : "interface ") + options.interface +
                             "' in " + options.configuration + " has 'nexthop dhcp'");
    }
    return left_alone;
}

/// Asks the daemon's own loader, whose messages about other lines are the daemon's to log.
int check_configured(const Options& options) {
    if (access(options.configuration.c_str(), R_OK) != 0) {
        if (errno == ENOENT && options.configuration == shared::usual_configuration) {
            return leave_alone(options);
        }
        return tell(failed, options.configuration + " cannot be read: " + std::strerror(errno));
    }
    const shared::QuietLog quiet;
    LBDataFactory loader;
    const bool is_complete = loader.load(options.configuration);
    if (!is_complete) {
        return tell(failed,
                    options.configuration + " is not whole, see: lbcheck " + options.configuration);
    }
    const auto& uplinks = loader.data.family(options.is_ipv6);
    const auto uplink = uplinks.find(options.interface);
    return uplink != uplinks.end() && uplink->second.nexthop == "dhcp" ? done
                                                                       : leave_alone(options);
}

/// Those that count; none means that there is no lease.
std::vector<std::string> routers_of(const Options& options) {
    const std::optional<std::string> router = lblease::default_router(options.static_routes);
    if (!router) {
        tell(misused, "left out what is no list of static routes of " + options.interface + ": '" +
                          options.static_routes + "'");
    }
    return router.value_or("").empty() ? options.routers : std::vector{*router};
}

int run(const Options& options) {
    if (const std::string problem = lblease::problem_of_name(options.interface); !problem.empty()) {
        return tell(misused, "the interface name " + problem);
    }
    if (options.is_gone != options.routers.empty()) {
        return tell(misused,
                    options.is_gone ? "--gone takes no router" : "a router is missing, or --gone");
    }
    if (const int status = check_configured(options); status != done) {
        return status;
    }
    const std::string name = lease_name(options.interface, options.is_ipv6);
    const std::vector<std::string> routers = routers_of(options);
    if (routers.empty()) {
        const std::string problem = lblease::remove_lease(name);
        return problem.empty() ? done : tell(failed, problem);
    }
    std::string first;
    for (const std::string& text : routers) {
        const lblease::Router router =
            lblease::parse_router(text, options.is_ipv6, options.interface);
        if (!router.problem.empty()) {
            return tell(misused, "the router of " + options.interface + ", '" + text + "', " +
                                     router.problem);
        }
        first = first.empty() ? router.address : first;
    }
    const std::string problem =
        lblease::write_lease(name, lblease::lease_text(options.interface, options.is_ipv6, first));
    return problem.empty() ? done : tell(failed, problem);
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(description, "lb-lease");
    app.add_option("INTERFACE", options.interface,
                   "the uplink, by the name of its kernel interface")
        ->required();
    app.add_option("ROUTER", options.routers, "the addresses of its routers; the first counts");
    auto* const ipv6 =
        app.add_flag("--ipv6", options.is_ipv6, "the next hop of IPv6 instead of that of IPv4");
    app.add_option("--static-routes", options.static_routes,
                   "classless static routes of the lease: the router of the default route among "
                   "them counts before ROUTER and --gone")
        ->type_name("ROUTES")
        ->excludes(ipv6);
    app.add_flag("--gone", options.is_gone, "there is no lease any more: remove the file");
    app.add_option("-f", options.configuration, "the daemon's configuration")
        ->type_name("FILE")
        ->capture_default_str();
    app.set_version_flag("--version", "lb-lease " LB_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? done : misused;
    }
    umask(022);
    return run(options);
}

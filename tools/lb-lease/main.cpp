#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "config/lb_data_factory.h"
#include "decision/lease_file.h"
#include "lb-lease/lease_store.h"
#include "lb-lease/lease_text.h"
#include "shared/command_line.h"
#include "shared/quiet_log.h"
#include "shared/usual_paths.h"
#include <CLI/CLI.hpp>

namespace {

constexpr const char* description =
    "Writes the lease file from which the balancing daemon takes the next hop of an uplink with "
    "'nexthop dhcp'; for the scripts of DHCP clients. Exit status: 0, 1 when it cannot be written, "
    "2 for a wrong command line, 3 when the configuration has no such uplink as far as it can be "
    "read: the file is written all the same, for a configuration that comes later, and what fails "
    "is passed over in silence.";
// A name for the machine's start, another one each time (random(4)).
constexpr const char* boot_file = "/proc/sys/kernel/random/boot_id";

enum Status { done = 0, failed = 1, misused = 2, no_uplink = 3 };

struct Options {
    std::string interface;
    std::vector<std::string> routers;
    std::string static_routes;
    std::string configuration = shared::usual_configuration;
    bool is_ipv6 = false;
    bool is_gone = false;
    bool removes_old = false;
};

int tell(Status status, const std::string& problem) {
    std::cerr << "lb-lease: " << problem << std::endl;
    return status;
}

int result_of(const std::string& problem) {
    return problem.empty() ? done : tell(failed, problem);
}

/// Empty where it cannot be read.
std::string this_boot() {
    std::ifstream file(boot_file);
    std::string boot;
    std::getline(file, boot);
    return boot;
}

struct Asked {
    bool is_uplink = false;
    std::string doubt;  ///< why the configuration may say something else once it can be read
};

/// Asks the daemon's own loader, whose messages about other lines are the daemon's to log.
Asked ask_configuration(const Options& options) {
    if (access(options.configuration.c_str(), R_OK) != 0) {
        const bool is_none =
            errno == ENOENT && options.configuration == shared::usual_configuration;
        return {false,
                is_none ? "" : options.configuration + " cannot be read: " + std::strerror(errno)};
    }
    const shared::QuietLog quiet;
    LBDataFactory loader;
    const bool is_complete = loader.load(options.configuration);
    const auto& uplinks = loader.data.family(options.is_ipv6);
    const auto uplink = uplinks.find(options.interface);
    return {uplink != uplinks.end() && uplink->second.nexthop == "dhcp",
            is_complete
                ? ""
                : options.configuration + " is not whole, see: lbcheck " + options.configuration};
}

/// Scripts call for every interface of the machine: what is no business of the daemon is told to a
/// person only.
int tell_no_uplink(const Options& options, const std::string& doubt) {
    const std::string counts = options.interface + " is none of the uplinks with 'nexthop dhcp'";
    if (!doubt.empty()) {
        return tell(no_uplink, doubt + "; until it can be read as a whole, " + counts);
    }
    if (isatty(STDERR_FILENO) == 1) {
        return tell(no_uplink, counts + ": no '" +
                                   (options.is_ipv6 ? "interface6 " : "interface ") +
                                   options.interface + "' in " + options.configuration + " has it");
    }
    return no_uplink;
}

/// What is to be stored; without a router and a problem, that there is no lease.
struct Lease {
    std::string router;
    std::string problem;
};

Lease lease_of(const Options& options) {
    const std::optional<std::string> router = lblease::default_router(options.static_routes);
    std::vector<std::string> routers = options.routers;
    if (!router.value_or("").empty()) {
        routers = {*router};
    }
    std::string first;
    for (const std::string& text : routers) {
        const lblease::Router parsed =
            lblease::parse_router(text, options.is_ipv6, options.interface);
        if (!parsed.problem.empty()) {
            return {"",
                    "the router of " + options.interface + ", '" + text + "', " + parsed.problem};
        }
        first = first.empty() ? parsed.address : first;
    }
    return {first, ""};
}

std::string store(const Options& options, const std::string& router) {
    const std::string name = lease_name(options.interface, options.is_ipv6);
    return router.empty()
               ? lblease::remove_lease(name)
               : lblease::write_lease(name, lblease::lease_text({.interface = options.interface,
                                                                 .is_ipv6 = options.is_ipv6,
                                                                 .router = router,
                                                                 .boot = this_boot()}));
}

int tell_lease(const Options& options) {
    if (const std::string problem = lblease::problem_of_name(options.interface); !problem.empty()) {
        return tell(misused, "the interface name " + problem);
    }
    if (options.is_gone != options.routers.empty()) {
        return tell(misused,
                    options.is_gone ? "--gone takes no router" : "a router is missing, or --gone");
    }
    const auto [is_uplink, doubt] = ask_configuration(options);
    const auto [router, problem] = lease_of(options);
    if (!is_uplink) {
        // Where the new router finds no room, the old one must not count once the interface is
        // named.
        if (problem.empty() && !store(options, router).empty()) {
            store(options, "");
        }
        return tell_no_uplink(options, doubt);
    }
    if (!lblease::default_router(options.static_routes)) {
        tell(misused, "left out what is no list of static routes of " + options.interface + ": '" +
                          options.static_routes + "'");
    }
    return problem.empty() ? result_of(store(options, router)) : tell(misused, problem);
}

int remove_old(const Options& options) {
    if (!options.interface.empty()) {
        return tell(misused, "--remove-old takes nothing else");
    }
    const std::string boot = this_boot();
    return boot.empty() ? tell(failed, std::string(boot_file) + " cannot be read")
                        : result_of(lblease::remove_leases_of_other_boots(boot));
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    CLI::App app(description, "lb-lease");
    app.failure_message(shared::failure_text);
    app.add_option("INTERFACE", options.interface,
                   "the uplink, by the name of its kernel interface");
    app.add_option("ROUTER", options.routers, "the addresses of its routers; the first counts");
    auto* const ipv6 =
        app.add_flag("--ipv6", options.is_ipv6, "the next hop of IPv6 instead of that of IPv4");
    auto* const static_routes =
        app.add_option(
               "--static-routes", options.static_routes,
               "classless static routes of the lease: the router of the default route among "
               "them counts before ROUTER and --gone")
            ->type_name("ROUTES")
            ->excludes(ipv6);
    auto* const gone =
        app.add_flag("--gone", options.is_gone, "there is no lease any more: remove the file");
    app.add_flag("--remove-old", options.removes_old,
                 "remove every file that was written before the machine's last start")
        ->excludes(ipv6, static_routes, gone);
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
    return options.removes_old ? remove_old(options) : tell_lease(options);
}

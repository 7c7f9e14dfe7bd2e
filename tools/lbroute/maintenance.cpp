#include "lbroute/maintenance.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <set>
#include <vector>

#include "lbroute/daemon_record.h"
#include "lbroute/holds.h"
#include "lbroute/report_text.h"
#include "lbroute/site.h"
#include "lbroute/surroundings.h"
#include "shared/standard_output.h"

namespace lbroute {

namespace {

int fail(const std::string& problem) {
    std::cerr << "lbroute: " << problem << std::endl;
    return 1;
}

std::string where(const HoldRequest& request) {
    return request.namespace_name.empty() ? "" : " in namespace " + request.namespace_name;
}

std::string release_command(const HoldRequest& request) {
    std::string command = "lbroute release " + request.interface;
    if (!request.namespace_name.empty()) {
        command += " --namespace " + request.namespace_name;
    }
    if (request.family) {
        command += *request.family == Family::ipv6 ? " --family ipv6" : " --family ipv4";
    }
    return command;
}

/// The families in which the uplink is known, of those that were asked for.
std::vector<Family> families_of(const HoldRequest& request, const Uplinks& uplinks) {
    std::vector<Family> families;
    for (const Family family : {Family::ipv4, Family::ipv6}) {
        const bool is_asked = !request.family || *request.family == family;
        if (is_asked && uplinks.find(request.namespace_name, family, request.interface)) {
            families.push_back(family);
        }
    }
    return families;
}

std::string unknown_text(const HoldRequest& request, const Site& site) {
    std::string text = "no uplink is called " + request.interface + where(request) + " in " +
                       site.configuration_path() + " or in the dumps below " + site.dump_folder();
    for (const Uplink& uplink : site.uplinks().uplinks) {
        const bool is_elsewhere = uplink.interface == request.interface &&
                                  uplink.namespace_name != request.namespace_name;
        if (is_elsewhere && !uplink.namespace_name.empty()) {
            return text + "; it is in namespace " + uplink.namespace_name + ": --namespace " +
                   uplink.namespace_name;
        }
    }
    return text;
}

std::string names_of(const std::vector<Family>& families) {
    std::string text;
    for (const Family family : families) {
        text.append(text.empty() ? "" : " and ").append(name_of(family));
    }
    return text;
}

/// That a route goes on over held uplinks, all of them, as nothing else is left to it.
std::string kept_text(const std::set<std::string>& kept, const std::string& held_now) {
    std::string names;
    for (const std::string& name : kept) {
        names += (names.empty() ? "" : ", ") + name;
    }
    return " goes on over " + names +
           (kept.size() == 1
                ? ": it has no other next hop (--force takes it away too)"
                : ": all of its next hops are held (--force takes " + held_now + " away too)");
}

/// Tells which routes go on over the uplink, because nothing else is left to them.
void tell_kept_routes(const Options& options, const HoldRequest& request, const Uplinks& uplinks,
                      const std::vector<Hold>& holds, const DaemonRecord& daemon) {
    ServedNamespace served(request.namespace_name, options);
    std::string problem;
    served.follow(problem);
    if (!served.is_entered()) {
        return;
    }
    for (FragmentFile& file : served.fragments()) {
        file.read(boottime_ms());
    }
    View view = served.look(surroundings_of(request.namespace_name, uplinks, holds), true);
    if (daemon.is_running()) {
        apply_refusals(daemon, request.namespace_name, view);
    }
    for (const PlannedRoute& route : view.wanted.routes) {
        std::set<std::string> kept;
        for (const PlannedHop& hop : route.hops) {
            if (hop.state == HopState::last_though_held) {
                kept.insert(hop.interface);
            }
        }
        if (kept.contains(request.interface)) {
            std::cout << name_of(route.prefix.address.family) << " " << route.prefix.text()
                      << kept_text(kept, request.interface) << "\n";
        }
    }
}

}  // namespace

int hold(const Options& options, const HoldRequest& request) {
    Site site(options.configuration, options.output_directory);
    site.read_configuration();
    site.read_dumps(boottime_ms());
    const std::vector<Family> families = families_of(request, site.uplinks());
    if (families.empty()) {
        return fail(unknown_text(request, site));
    }
    std::optional<std::int64_t> until_ms;
    if (!request.duration.empty()) {
        const auto duration_ms = parse_duration_ms(request.duration);
        if (!duration_ms) {
            return fail("'" + request.duration + "' is no time: 90s, 30m, 2h or 1d");
        }
        until_ms = boottime_ms() + *duration_ms;
    }
    std::string problem;
    const StateFolder folder =
        StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::make, problem);
    if (!folder.is_open()) {
        return fail(problem);
    }
    const HoldsChange change = change_holds(folder, boottime_ms(), [&](std::vector<Hold>& holds) {
        for (const Family family : families) {
            add_hold(holds, {.namespace_name = request.namespace_name,
                             .interface = request.interface,
                             .family = family,
                             .until_ms = until_ms,
                             .is_forced = request.is_forced});
        }
    });
    if (!change.is_written) {
        return fail(change.problem);
    }
    if (!change.problem.empty()) {
        std::cerr << "lbroute: " << change.problem << std::endl;
    }
    std::cout << request.interface << where(request) << " is held in " << names_of(families)
              << (until_ms ? " for " + span_text(*until_ms - boottime_ms())
                           : " until " + release_command(request))
              << "\n";
    const DaemonRecord daemon = read_record(folder);
    tell_kept_routes(options, request, site.uplinks(), change.holds, daemon);
    if (!daemon.is_running()) {
        std::cout << "lbroute does not run: the hold counts once it does\n";
    }
    return shared::end_output("lbroute") ? 0 : 1;
}

int release(const Options& /*options*/, const HoldRequest& request) {
    std::string problem;
    const StateFolder folder =
        StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::leave, problem);
    std::vector<Family> released;
    HoldsChange change;
    if (folder.is_open()) {
        change = change_holds(folder, boottime_ms(), [&](std::vector<Hold>& holds) {
            released.clear();
            for (const Family family : {Family::ipv4, Family::ipv6}) {
                const bool is_asked = !request.family || *request.family == family;
                if (is_asked &&
                    remove_hold(holds, request.namespace_name, request.interface, family)) {
                    released.push_back(family);
                }
            }
        });
        if (!change.is_written) {
            return fail(change.problem);
        }
    } else if (!problem.empty()) {
        return fail(problem);
    }
    if (released.empty()) {
        const auto elsewhere = std::ranges::find(change.holds, request.interface, &Hold::interface);
        std::string hint;
        if (elsewhere != change.holds.end()) {
            HoldRequest other = request;
            other.namespace_name = elsewhere->namespace_name;
            other.family = elsewhere->family;
            hint = "; what is held ends with: " + release_command(other);
        }
        return fail(request.interface + where(request) + " is not held" + hint);
    }
    std::cout << request.interface << where(request) << " is released in " << names_of(released)
              << "\n";
    return shared::end_output("lbroute") ? 0 : 1;
}

}  // namespace lbroute

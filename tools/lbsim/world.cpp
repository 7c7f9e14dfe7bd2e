#include "lbsim/world.h"

#include <algorithm>
#include <cstdint>

#include "base/address_text.h"
#include "decision/lease_file.h"
#include "probe/send_path.h"

namespace lbsim {

namespace {

std::string in_range(const char* range, int number) {
    return range + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
}

/// As the DHCP clients write it.
std::string lease_text(const std::string& router, bool is_ipv6) {
    return is_ipv6 ? "new_routers='" + router + "'\n"
                   : "lease {\n  option routers " + router + ";\n}\n";
}

/// The router of an event at the start; nothing where none says.
const Event* first_lease(const Uplink& uplink, const Scenario& scenario) {
    const auto found = std::find_if(scenario.begin(), scenario.end(), [&](const Event& event) {
        return event.at_us == 0 && event.change == Change::lease && concerns(event, uplink) &&
               takes_lease(event, uplink);
    });
    return found == scenario.end() ? nullptr : &*found;
}

}  // namespace

World::World(Simulation& machine, const std::vector<Uplink>& uplinks, const Scenario& scenario)
    : machine_(machine) {
    int number = 0;
    for (const Uplink& uplink : uplinks) {
        places_.push_back({.uplink = uplink, .first_router = {}, .router = {}});
        build(places_.back(), scenario, number++);
    }
    int process = 1000;
    for (const auto& [ns_name, space] : machine_.namespaces) {
        for (const bool is_ipv6 : {false, true}) {
            machine_.add_routing_daemon(++process, is_ipv6, ns_name);
        }
    }
    for (const Event& event : scenario) {
        machine_.after_us(event.at_us, [this, event] { happen(event); });
    }
}

Simulation::Link& World::link_of(const Place& place) {
    return machine_.namespaces[place.uplink.ns_name].links.at(place.uplink.name);
}

Simulation::Target& World::target_of(const Place& place, const std::string& address) {
    return machine_.namespaces[place.uplink.ns_name].targets[address];
}

void World::build(Place& place, const Scenario& scenario, int number) {
    const Uplink& uplink = place.uplink;
    auto& links = machine_.namespaces[uplink.ns_name].links;
    if (!links.contains(uplink.name)) {
        machine_.add_link(uplink.name, uplink.ns_name);
    }
    Simulation::Link& link = links.at(uplink.name);
    link.takes_frames = !echoes_through_tunnel(uplink.name);
    if (!uplink.source.empty()) {
        link.addresses.push_back(canonical(uplink.source));
    } else if (uplink.is_ipv6) {
        link.addresses.push_back("fe80::1:" + std::to_string(number + 1));
    } else {
        link.addresses.push_back(in_range("198.18.", number));
    }
    for (const std::string& target : uplink.targets) {
        target_of(place, target);
    }
    if (uplink.nexthop == "tunnel") {
        link.peer = in_range("198.19.", number);
        set_router(place, link.peer);
    } else if (uplink.nexthop != "dhcp") {
        set_router(place, canonical(uplink.nexthop));
    } else if (const Event* given = first_lease(uplink, scenario)) {
        set_router(place, given->router);
    } else {
        const std::string router =
            uplink.is_ipv6 ? "fe80::2:" + std::to_string(number + 1) : in_range("198.19.", number);
        made_up_routers[shown(uplink)] = router;
        set_router(place, router);
    }
    place.first_router = place.router;
}

/// The next hop before falls silent with its lease; without a router the lease file goes, and the
/// next hop stays.
void World::set_router(Place& place, const std::string& router) {
    const bool is_leased = place.uplink.nexthop == "dhcp";
    const std::string path = lease_path(place.uplink.name, place.uplink.is_ipv6);
    if (router.empty()) {
        machine_.files.erase(path);
        return;
    }
    set_next_hop(place, false);
    place.router = router;
    auto& next_hops = link_of(place).next_hops;
    if (!next_hops.contains(router)) {
        ++last_mac_;
        next_hops[router].mac = {2,
                                 0,
                                 0,
                                 2,
                                 static_cast<std::uint8_t>(last_mac_ >> 8),
                                 static_cast<std::uint8_t>(last_mac_)};
    }
    set_next_hop(place, true);
    target_of(place, router);
    if (is_leased) {
        machine_.files[path] = lease_text(router, place.uplink.is_ipv6);
    }
}

void World::set_link(const Place& place, bool is_up) {
    link_of(place).is_up = is_up;
    if (!is_up) {  // a kernel forgets the neighbours of a link that goes
        std::erase_if(machine_.neighbours, [&place](const auto& entry) {
            const auto& [ns_name, ifname, address] = entry.first;
            return ns_name == place.uplink.ns_name && ifname == place.uplink.name;
        });
    }
    machine_.announce_change();
}

void World::set_next_hop(const Place& place, bool is_alive) {
    const auto hop = link_of(place).next_hops.find(place.router);
    if (hop != link_of(place).next_hops.end()) {
        hop->second.answers = is_alive;
        hop->second.forwards = is_alive;
    }
}

void World::clean(Place& place, bool is_link_meant) {
    link_of(place).impairments[place.uplink.is_ipv6 ? 1 : 0] = {};
    if (is_link_meant) {
        set_link(place, true);
    }
    for (const std::string& address : place.uplink.targets) {
        Simulation::Target& target = target_of(place, address);
        target.cut_links.erase(place.uplink.name);
        target.lossy_links.erase(place.uplink.name);
    }
    if (place.uplink.nexthop == "dhcp" && place.router != place.first_router) {
        set_router(place, place.first_router);
    }
    set_next_hop(place, true);
}

void World::change_uplink(Place& place, const Event& event) {
    Simulation::Impairments& impairments = link_of(place).impairments[place.uplink.is_ipv6 ? 1 : 0];
    switch (event.change) {
        case Change::dead:
            impairments.passes = false;
            break;
        case Change::alive:
            impairments.passes = true;
            break;
        case Change::loss:
            impairments.loss_percent = event.percent;
            break;
        case Change::delay:
            impairments.delay_ms = event.delay_ms;
            impairments.jitter_ms = event.jitter_ms;
            break;
        case Change::duplicates:
            impairments.duplicate_percent = event.percent;
            break;
        case Change::reorder:
            impairments.reorder_percent = event.percent;
            break;
        case Change::link_down:
            set_link(place, false);
            break;
        case Change::link_up:
            set_link(place, true);
            break;
        case Change::nexthop_dead:
            set_next_hop(place, false);
            break;
        case Change::nexthop_alive:
            set_next_hop(place, true);
            break;
        case Change::lease:
            if (takes_lease(event, place.uplink)) {
                set_router(place, event.router);
            }
            break;
        case Change::clean:
            clean(place, event.family == Family::any);
            break;
        case Change::clock:  // of no uplink
        case Change::unwatched:
        case Change::watched:
            break;  // it stays as it was before
    }
}

void World::change_target(const Place& place, const Event& event) {
    Simulation::Target& target = target_of(place, event.target);
    const bool is_through_one = !event.uplink.empty();
    switch (event.change) {
        case Change::dead:
            if (is_through_one) {
                target.cut_links.insert(place.uplink.name);
            } else {
                target.answers = false;
            }
            break;
        case Change::alive:
            if (is_through_one) {
                target.cut_links.erase(place.uplink.name);
                target.lossy_links.erase(place.uplink.name);
            } else {
                target.answers = true;
            }
            break;
        case Change::loss:
            if (is_through_one) {
                target.cut_links.erase(place.uplink.name);
                target.lossy_links[place.uplink.name] = event.percent;
            } else {
                target.loss_percent = event.percent;
            }
            break;
        case Change::delay:
            target.delay_ms = Simulation::Target{}.delay_ms + event.delay_ms;
            target.jitter_ms = event.jitter_ms;
            break;
        case Change::clean:
            if (is_through_one) {
                target.cut_links.erase(place.uplink.name);
                target.lossy_links.erase(place.uplink.name);
            } else {
                target = {.cut_links = target.cut_links, .lossy_links = target.lossy_links};
            }
            break;
        case Change::duplicates:
        case Change::reorder:
        case Change::link_down:
        case Change::link_up:
        case Change::nexthop_dead:
        case Change::nexthop_alive:
        case Change::lease:
        case Change::clock:
        case Change::unwatched:
        case Change::watched:
            break;  // no scenario has them of a target
    }
}

void World::happen(const Event& event) {
    if (event.change == Change::clock) {
        machine_.step_wall_clock(event.clock_step_us);
        return;
    }
    for (Place& place : places_) {
        if (!concerns(event, place.uplink)) {
            continue;
        }
        if (event.target.empty()) {
            change_uplink(place, event);
        } else {
            change_target(place, event);
        }
    }
}

}  // namespace lbsim

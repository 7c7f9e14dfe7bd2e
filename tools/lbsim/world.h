#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/simulated/simulation.h"
#include "lbsim/scenario.h"
#include "lbsim/uplink.h"

namespace lbsim {

/// The network around the configured uplinks on a simulated machine: a link of each name with a
/// next hop that answers, the targets behind it, and a routing daemon for each namespace and
/// family. What the configuration leaves open is made up: own addresses of 198.18.0.0/16, routers
/// of leases and far ends of tunnels of 198.19.0.0/16 (RFC 2544), link-local ones in IPv6.
class World {
  public:
    /// Builds it, and enters every event into the machine's future, from this moment on. Keeps a
    /// reference to the machine.
    World(Simulation& machine, const std::vector<Uplink>& uplinks, const Scenario& scenario);

    /// Routers of leases that no event at the start gives, by the uplink as shown.
    std::map<std::string, std::string> made_up_routers;

  private:
    struct Place {
        Uplink uplink;
        std::string first_router;  ///< a learnt next hop at the start, which `clean` brings back
        std::string router;        ///< the next hop in use; empty for none
    };

    Simulation::Link& link_of(const Place& place);
    Simulation::Target& target_of(const Place& place, const std::string& address);
    void build(Place& place, const Scenario& scenario, int number);
    void set_router(Place& place, const std::string& router);
    void happen(const Event& event);
    void change_uplink(Place& place, const Event& event);
    void change_target(const Place& place, const Event& event);
    /// The link stays as it is where only one of its families is meant.
    void clean(Place& place, bool is_link_meant);
    void set_link(const Place& place, bool is_up);
    void set_next_hop(const Place& place, bool is_alive);

    Simulation& machine_;
    std::vector<Place> places_;
    int last_mac_ = 0;
};

}  // namespace lbsim

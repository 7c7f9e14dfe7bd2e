#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "core/workers.h"
#include "host/simulated/simulation.h"
#include "probe/lb_test.h"
#include "probe/reply_socket.h"

/// The daemon's own loader, probes, evaluation, decision and output on a simulated machine, with
/// its workers driven step by step in virtual time.
struct SimulatedRouter : testing::Test {
    ~SimulatedRouter() override {
        workers.clear();
        lb.reset();
        // The daemon's tables live as long as the process, and its sockets with the machine.
        for (const ProbeFamily* family : {&ipv4_probes, &ipv6_probes}) {
            family->results.clear();
            family->packet_id = 0;
            for (const auto& [ns_name, space] : sim.namespaces) {
                close_namespace(*family, ns_name);
                family->initialized.set(ns_name, false);
                family->received.set(ns_name, false);
            }
        }
    }

    /// An uplink with an address, and a next hop behind it that answers.
    Simulation::Link& add_uplink(const std::string& name, const std::string& address,
                                 const std::string& nexthop) {
        Simulation::Link& link = sim.add_link(name, sim.namespace_in_force);
        link.addresses = {address};
        link.next_hops[nexthop].mac = {2, 0, 0, 0, 2, static_cast<std::uint8_t>(link.index)};
        return link;
    }
    Simulation::Target& add_target(const std::string& address) {
        return sim.in_force().targets[address];
    }

    /// Loads the configuration as the process does and begins the workers that it needs.
    void start(const std::string& configuration) {
        sim.files["/etc/lb.conf"] = configuration;
        lb = std::make_unique<LoadBalance>(output_dir);
        lb->set_conf("/etc/lb.conf");
        for (const auto& [place, work] : work_by_namespace(lb->data)) {
            if (work.needs_worker()) {
                sim.namespace_in_force = place.first;
                begin_work(&workers.emplace_back(*lb, place.first, place.second).ctx);
            }
        }
    }
    /// Whole cycles of all workers, in their order, on one clock.
    void run_cycles(int count) {
        for (int i = 0; i < count; ++i) {
            for (Worker& worker : workers) {
                sim.namespace_in_force = *worker.ctx.ns_name;
                work_once(&worker.ctx);
            }
            sim.pass_s(1);
            for (Worker& worker : workers) {
                sim.namespace_in_force = *worker.ctx.ns_name;
                begin_next_cycle(&worker.ctx);
            }
        }
    }
    /// Cycles until the interface is as wanted: their number, or -1 after `at_most`.
    int cycles_until(const std::string& name, bool is_active, int at_most = 100) {
        for (int i = 0; i <= at_most; ++i) {
            if (lb->data.health.at(name).active == is_active) {
                return i;
            }
            run_cycles(1);
        }
        return -1;
    }
    /// The operator lines about changed states, with their second from the beginning of the log.
    std::vector<std::string> changes() const {
        std::vector<std::string> texts;
        for (const auto& line : sim.log) {
            if (line.text.find("changed state to") != std::string::npos) {
                texts.push_back(std::to_string(line.at_ms / 1000 - 1000) + " s " +
                                line.text.substr(line.text.find("IP")));
            }
        }
        return texts;
    }

    Simulation sim;
    std::string output_dir = "/var/run/load-balance";
    std::unique_ptr<LoadBalance> lb;
    std::deque<Worker> workers;
};

/// Two uplinks with one target each behind their next hops, sharing the default route.
inline constexpr const char* two_uplinks = R"(
health {
    interface gi1_1 {
        success-ct 2
        failure-ct 2
        nexthop 192.0.2.1
        rule 1 {
            type ping {
                target 203.0.113.1
                resp-time 2000
            }
        }
    }
    interface gi1_2 {
        success-ct 2
        failure-ct 2
        nexthop 198.51.100.1
        rule 1 {
            type ping {
                target 203.0.113.2
                resp-time 2000
            }
        }
    }
}
rule 1_ipv4 {
    interface gi1_1 {
        weight 1
    }
    interface gi1_2 {
        weight 3
    }
    target {
        address 0.0.0.0/0
    }
}
)";

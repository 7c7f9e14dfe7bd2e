#include "lbsim/daemon.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

namespace lbsim {

namespace {

constexpr std::int64_t pause_us = 1'000'000;  // B19
/// What a cycle of few uplinks takes on a router. It matters: a probe of a second's patience is
/// older than that in the next cycle but one only because of it.
constexpr std::int64_t work_us = 1000;

/// A pass serves the records in the order of their places in memory (B90), which on a heap is an
/// accident. Here it is that of their names, so that it is the same in every run: the places stay,
/// and the records are laid into them anew.
void lay_in_order_of_names(std::map<std::string, LBHealth>& records) {
    using Record = std::pair<std::string, LBHealth>;
    const std::vector<Record> by_name(records.begin(), records.end());
    std::vector<std::map<std::string, LBHealth>::node_type> places;
    while (!records.empty()) {
        places.push_back(records.extract(records.begin()));
    }
    std::sort(places.begin(), places.end(), [](const auto& one, const auto& other) {
        return std::less<>()(&one.mapped(), &other.mapped());
    });
    for (std::size_t i = 0; i < places.size(); ++i) {
        places[i].key() = by_name[i].first;
        places[i].mapped() = by_name[i].second;
        records.insert(std::move(places[i]));
    }
}

}  // namespace

Daemon::Daemon(Simulation& machine, const std::string& configuration) : machine_(machine) {
    constexpr const char* path = shared::usual_configuration;
    machine_.files[path] = configuration;
    engine_.set_conf(path);
    for (const bool is_ipv6 : {false, true}) {
        lay_in_order_of_names(engine_.data.family(is_ipv6));
    }
}

void Daemon::start(std::function<void(const context&)> after_step) {
    after_step_ = std::move(after_step);
    for (const auto& [place, work] : work_by_namespace(engine_.data)) {
        if (!work.needs_worker()) {
            continue;
        }
        machine_.namespace_in_force = place.first;
        Worker& worker = workers_.emplace_back(engine_, place.first, place.second);
        begin_work(&worker.ctx);
        machine_.after_us(0, [this, &worker] { step(worker, true); });
    }
}

void Daemon::step(Worker& worker, bool is_first) {
    // Another worker may be waiting in its own step.
    const std::string before = std::exchange(machine_.namespace_in_force, *worker.ctx.ns_name);
    if (!is_first) {
        begin_next_cycle(&worker.ctx);
    }
    work_once(&worker.ctx);
    ++steps_;
    after_step_(worker.ctx);
    machine_.namespace_in_force = before;
    machine_.after_us(work_us + pause_us, [this, &worker] { step(worker, false); });
}

}  // namespace lbsim

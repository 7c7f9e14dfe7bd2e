#include "lbsim/daemon.h"

#include <utility>

namespace lbsim {

namespace {

constexpr std::int64_t pause_us = 1'000'000;  // B19
/// What a cycle of few uplinks takes on a router. It matters: a probe of a second's patience is
/// older than that in the next cycle but one only because of it.
constexpr std::int64_t work_us = 1000;

}  // namespace

Daemon::Daemon(Simulation& machine, const std::string& configuration) : machine_(machine) {
    constexpr const char* path = "/etc/lb.conf";
    machine_.files[path] = configuration;
    engine_.set_conf(path);
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

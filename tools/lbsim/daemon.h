#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "core/load_balance.h"
#include "core/workers.h"
#include "host/simulated/simulation.h"
#include "shared/usual_paths.h"

namespace lbsim {

/// The daemon's engine and workers on a simulated machine. Each worker's step is an event of the
/// machine: a second and a millisecond of work after the end of the one before, also while another
/// worker waits within an extended ping. Workers take their turns of one moment in a fixed order:
/// by namespace, IPv4 before IPv6.
///
/// One in the life of a process: the daemon's process-wide tables are filled, and its probes are
/// never freed (B135).
class Daemon {
  public:
    /// Loads the configuration; the machine's log has what the loader said. Keeps a reference to
    /// the machine.
    Daemon(Simulation& machine, const std::string& configuration);

    /// Begins the workers that the configuration needs and enters their first steps. `after_step`
    /// is called after each step with its worker's context.
    void start(std::function<void(const context&)> after_step);

    LBData& data() { return engine_.data; }
    const LBData& data() const { return engine_.data; }
    std::int64_t steps() const { return steps_; }

  private:
    void step(Worker& worker, bool is_first);

    Simulation& machine_;
    std::string output_folder_ = shared::usual_output;
    LoadBalance engine_{output_folder_};
    std::deque<Worker> workers_;
    std::function<void(const context&)> after_step_;
    std::int64_t steps_ = 0;
};

}  // namespace lbsim

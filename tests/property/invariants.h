#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "host/simulated/simulation.h"
#include "lbsim/daemon.h"
#include "lbsim/scenario.h"
#include "lbsim/truth.h"
#include "lbsim/uplink.h"
#include "property/random_router.h"

namespace property {

/// Looks at the daemon after each of its steps, and notes what must not be:
///
/// - a target's verdict turns to success without as many answers as its count asks since it failed;
/// - an uplink is inactive that has worked, or active that has been dead, for longer than its
///   slowest verdict takes, counted from the last change of the network and the last fault;
/// - the routes are not those over the active members with their weights, or a change of them is
///   not in the fragment in the same cycle;
/// - the fragment is written, or the routing daemon told, though nothing has changed;
/// - probes in flight, or the memory of the process, grow;
/// - a worker stands still.
class Invariants {
  public:
    Invariants(Simulation& machine, lbsim::Daemon& daemon,
               const std::vector<lbsim::Uplink>& uplinks, const lbsim::Scenario& scenario,
               const std::vector<FaultWindow>& windows);

    void look(const context& ctx);
    /// At the end of half the time, and at the end of all.
    void note_memory();
    /// At the end of all.
    void judge_pace(std::int64_t duration_us);

    /// At most so many are kept, each with its second.
    static constexpr std::size_t most = 5;
    std::vector<std::string> broken;

  private:
    struct Watched {
        const lbsim::Uplink* uplink = nullptr;
        const LBHealth* health = nullptr;
        lbsim::Truth truth{};
        std::vector<std::int64_t> disturbed_us{};  ///< what else happens to it, in order
        std::map<std::string, int> verdicts{};
        std::map<std::string, int> answers_before{};  ///< when the target failed last
    };
    struct Fragment {
        std::string routes{};
        std::string text{};  ///< as the file should be
        bool is_written = false;
        int writings = 0;
        int reloads = 0;
    };

    void note(const std::string& text);
    void look_at_verdicts(Watched& one);
    void look_at_state(const Watched& one);
    void look_at_routes(const context& ctx);
    void look_at_probes_in_flight();
    std::string expected_routes(const context& ctx) const;
    std::int64_t calm_since_us(const Watched& one) const;
    bool is_failing(Simulation::Call call) const;

    Simulation& machine_;
    LBData& data_;
    const std::vector<FaultWindow>& windows_;
    std::int64_t start_us_;
    std::int64_t at_us_ = 0;
    std::vector<Watched> watched_;
    std::map<std::pair<std::string, bool>, Fragment> fragments_;
    /// (namespace, link, target) -> answers that came in time, whatever became of them.
    std::map<std::tuple<std::string, std::string, std::string>, int> answers_;
    std::map<std::pair<std::string, bool>, std::int64_t> steps_;  ///< of each worker
    std::size_t probes_ = 0;
    std::vector<std::size_t> memory_;
};

}  // namespace property

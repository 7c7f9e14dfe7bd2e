#include "property/outage_judge.h"

#include <algorithm>

#include "lbsim/scenario.h"
#include "lbsim/scenario_text.h"

namespace property {

namespace {

constexpr std::int64_t two_cycles_us = 2'002'000;

struct Turn {
    std::int64_t at_us = 0;
    bool is_up = false;
};

std::vector<Turn> states_of(const lbsim::Uplink& uplink, const lbsim::Run& run) {
    std::vector<Turn> turns;
    for (const lbsim::ObservedChange& told : run.told) {
        if (told.kind == lbsim::ObservedChange::Kind::state && told.uplink == uplink.name &&
            told.is_ipv6 == uplink.is_ipv6 && told.ns_name == uplink.ns_name) {
            turns.push_back({told.at_us, told.is_up});
        }
    }
    return turns;
}

std::vector<Turn> routes_of(std::size_t uplink, const lbsim::Run& run) {
    std::vector<Turn> turns;
    for (const lbsim::Routed& routed : run.routed) {
        if (routed.uplink == uplink) {
            turns.push_back({routed.at_us, routed.is_routed});
        }
    }
    return turns;
}

class Judge {
  public:
    explicit Judge(Judgement& judgement) : judgement_(judgement) {}

    /// Each wanted turn was told within the time, and no other.
    void compare(const std::string& who, const std::vector<Turn>& wanted,
                 const std::vector<std::int64_t>& patience_us, const std::vector<Turn>& told) {
        std::size_t next = 0;
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            const Turn& turn = wanted[i];
            for (; next < told.size() && told[next].at_us < turn.at_us; ++next) {
                fault(who, told[next], "though nothing had happened");
            }
            if (next == told.size() || told[next].is_up != turn.is_up ||
                told[next].at_us > turn.at_us + patience_us[i]) {
                fault(who, turn,
                      "was not told within " + lbsim::shown_duration(patience_us[i]) +
                          " of this moment");
                continue;
            }
            judgement_.longest_us = std::max(judgement_.longest_us, told[next].at_us - turn.at_us);
            ++judgement_.told;
            ++next;
        }
        for (; next < told.size(); ++next) {
            fault(who, told[next], "though nothing had happened");
        }
    }

  private:
    void fault(const std::string& who, const Turn& turn, const std::string& what) {
        judgement_.faults.push_back(lbsim::shown_duration(turn.at_us) + ": " + who +
                                    (turn.is_up ? " active " : " inactive ") + what);
    }

    Judgement& judgement_;
};

}  // namespace

Judgement judge(const std::vector<Outage>& outages, const std::vector<lbsim::Uplink>& uplinks,
                const lbsim::Run& run) {
    Judgement judgement;
    Judge judge(judgement);
    for (std::size_t i = 0; i < uplinks.size(); ++i) {
        const std::string name = lbsim::shown(uplinks[i]);
        std::vector<Turn> wanted{{0, true}};
        std::vector<std::int64_t> patience_us{uplinks[i].start_us};
        for (const Outage& outage : outages) {
            if (outage.uplink == i) {
                wanted.push_back({outage.from_us, false});
                wanted.push_back({outage.to_us, true});
                patience_us.insert(patience_us.end(), 2, uplinks[i].settle_us);
            }
        }
        const std::vector<Turn> states = states_of(uplinks[i], run);
        judge.compare(name, wanted, patience_us, states);
        judge.compare("the routes through " + name, states,
                      std::vector<std::int64_t>(states.size(), two_cycles_us), routes_of(i, run));
    }
    return judgement;
}

}  // namespace property

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbsim/run.h"

/// What a daemon told of its uplinks, held against the outages that they had. Pure.
namespace property {

/// Of one uplink, too long to be missed; those of one uplink lie too far apart to be taken for one.
struct Outage {
    std::size_t uplink = 0;
    std::int64_t from_us = 0;
    std::int64_t to_us = 0;
};

struct Judgement {
    std::int64_t told = 0;        ///< changes of state that were wanted and came in time
    std::int64_t longest_us = 0;  ///< what one of them took
    std::vector<std::string> faults{};
};

/// Every uplink becomes active within its `start_us`; inactive and active again within its
/// `settle_us` of each outage's begin and end; its routes follow within two cycles; and nothing
/// else is told. Outages are in the order of their moments and end before the run does.
Judgement judge(const std::vector<Outage>& outages, const std::vector<lbsim::Uplink>& uplinks,
                const lbsim::Run& run);

}  // namespace property

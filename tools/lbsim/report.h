#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lbsim/run.h"
#include "lbsim/scenario.h"
#include "lbsim/summary.h"
#include "lbsim/uplink.h"

/// What is printed. Pure: the same values give the same bytes.
namespace lbsim {

/// All that a report tells of.
struct Story {
    std::string configuration;  ///< its path
    std::vector<Uplink> uplinks;
    Scenario scenario;
    std::uint64_t seed = 1;
    Run run;
    Summary summary;
};

/// One line on what was simulated, and one on what was made up for it.
std::string head_text(const Story& story);
/// Beyond so many rows of the table neither they nor the timeline are printed one by one.
inline constexpr std::size_t most_rows = 60;
/// What happened and what the daemon did, line by line.
std::string timeline_text(const Story& story);
/// A row for each event and uplink, or one for each kind of event. Then a line for each uplink, and
/// what the columns mean.
std::string table_text(const Story& story);
/// The same of two configurations in one world.
std::string comparison_text(const Story& one, const Story& other);

/// `{"events": [...], "summary": {...}}`, with a line feed behind; with `other`, its summary as
/// "compared" in it.
std::string json_text(const Story& story, const Story* other = nullptr);

}  // namespace lbsim

// The wall clock of a simulated router, and the judge of long runs in which it is set.

#include <gtest/gtest.h>

#include "host/clock.h"
#include "lbsim/scenario_text.h"
#include "lbsim/world.h"
#include "property/outage_judge.h"

namespace {

using namespace lbsim;
using property::Outage;

constexpr std::int64_t s = 1'000'000;

TEST(WallClock, is_set_by_a_scenario_while_the_other_clock_goes_on) {
    Simulation machine;
    const World world(machine, {},
                      parse_scenario("10s clock back 1h\n20s clock forward 2h").events);
    const timespec wall = wall_now();
    const timespec monotonic = monotonic_now();
    machine.pass_s(15);
    EXPECT_EQ(wall_now().tv_sec, wall.tv_sec + 15 - 3600);
    machine.pass_s(15);
    EXPECT_EQ(wall_now().tv_sec, wall.tv_sec + 30 + 3600);
    EXPECT_EQ(monotonic_now().tv_sec, monotonic.tv_sec + 30);
}

TEST(WallClock, concerns_no_uplink) {
    Uplink uplink;
    uplink.name = "gi1_1";
    EXPECT_FALSE(concerns(parse_scenario("1s clock back 1h").events.front(), uplink));
}

/// One uplink with an outage from the 100th to the 200th second, as a daemon tells it that is in
/// time and right.
class OutageJudge : public testing::Test {
  protected:
    OutageJudge() {
        uplinks_.front().name = "gi1_1";
        uplinks_.front().start_us = 20 * s;
        uplinks_.front().settle_us = 10 * s;
        for (const auto& [at_s, is_up] : {std::pair(5, true), {108, false}, {209, true}}) {
            run_.told.push_back({.at_us = at_s * s,
                                 .kind = ObservedChange::Kind::state,
                                 .uplink = "gi1_1",
                                 .is_up = is_up});
            run_.routed.push_back({.at_us = at_s * s, .uplink = 0, .is_routed = is_up});
        }
    }

    std::string first_fault() const {
        const auto faults = property::judge(outages_, uplinks_, run_).faults;
        return faults.empty() ? "" : faults.front();
    }

    std::vector<Uplink> uplinks_ = std::vector<Uplink>(1);
    std::vector<Outage> outages_{{.uplink = 0, .from_us = 100 * s, .to_us = 200 * s}};
    lbsim::Run run_;
};

TEST_F(OutageJudge, finds_nothing_where_all_was_told_in_time) {
    const auto judgement = property::judge(outages_, uplinks_, run_);
    EXPECT_EQ(judgement.faults, std::vector<std::string>());
    EXPECT_EQ(judgement.told, 6);
    EXPECT_EQ(judgement.longest_us, 9 * s);
}

TEST_F(OutageJudge, misses_an_outage_that_was_not_told) {
    outages_.push_back({.uplink = 0, .from_us = 300 * s, .to_us = 400 * s});
    EXPECT_EQ(first_fault(), "5m: gi1_1 ipv4 inactive was not told within 10s of this moment");
}

TEST_F(OutageJudge, misses_one_that_was_told_late) {
    run_.told[1].at_us = 111 * s;
    run_.routed[1].at_us = 111 * s;
    EXPECT_EQ(first_fault(), "1m 40s: gi1_1 ipv4 inactive was not told within 10s of this moment");
}

TEST_F(OutageJudge, finds_what_nothing_had_caused) {
    outages_.clear();
    EXPECT_EQ(first_fault(), "1m 48s: gi1_1 ipv4 inactive though nothing had happened");
}

TEST_F(OutageJudge, finds_an_uplink_that_was_down_before_its_outage) {
    run_.told[1].at_us = 99 * s;
    run_.routed[1].at_us = 99 * s;
    EXPECT_EQ(first_fault(), "1m 39s: gi1_1 ipv4 inactive though nothing had happened");
}

TEST_F(OutageJudge, finds_routes_that_did_not_follow) {
    run_.routed[1].at_us = 111 * s;
    EXPECT_EQ(first_fault(),
              "1m 48s: the routes through gi1_1 ipv4 inactive was not told within 2s of this "
              "moment");
}

TEST_F(OutageJudge, wants_a_good_uplink_active_from_the_start) {
    run_ = lbsim::Run();
    outages_.clear();
    EXPECT_EQ(first_fault(), "0s: gi1_1 ipv4 active was not told within 20s of this moment");
}

}  // namespace

#include <gtest/gtest.h>

#include "lbshow/selection.h"
#include "lbshow/state.h"
#include "lbshow/views.h"
#include "unit/support/given_dumps.h"

namespace {

using given::Dump;
using given::is_big_here;
using given::outbound;
using given::route;
using given::rule;
using given::state;

TEST(Dumps, of_either_byte_order_tell_the_same) {
    lbshow::State swapped = state();
    swapped.interfaces = lbshow::read_interfaces(outbound(!is_big_here), 4, true).items;
    swapped.rules = lbshow::read_rules(rule(!is_big_here), true).items;
    swapped.routes = lbshow::read_routes(route(!is_big_here), true).items;
    EXPECT_EQ(lbshow::json(swapped, {}), lbshow::json(state(), {}));
}

TEST(Dumps, of_the_wrong_byte_order_are_refused) {
    EXPECT_NE(lbshow::read_routes(route(!is_big_here), false).problem, "");
}

TEST(Dumps, cut_within_a_record_say_so) {
    Dump cut = route();
    cut.resize(200);
    const auto read = lbshow::read_routes(cut, false);
    EXPECT_EQ(read.problem.empty(), false);
    Dump one_and_a_half = route();
    const Dump second = route();
    one_and_a_half.insert(one_and_a_half.end(), second.begin(), second.begin() + 50);
    const auto truncated = lbshow::read_routes(one_and_a_half, false);
    EXPECT_TRUE(truncated.is_truncated);
    EXPECT_EQ(truncated.items.size(), 1U);
}

TEST(Dumps, foreign_files_are_refused) {
    Dump noise(4312 * 2);
    for (std::size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    EXPECT_NE(lbshow::read_interfaces(noise, 4, false).problem, "");
    EXPECT_NE(lbshow::read_rules(noise, false).problem, "");
    EXPECT_NE(lbshow::read_routes(noise, false).problem, "");
    Dump counted = outbound();
    counted[4288] = 51;
    EXPECT_NE(lbshow::read_interfaces(counted, 4, false).problem, "");
}

TEST(Ages, of_zero_seconds_are_now_for_the_present_state_and_never_for_the_other) {
    Dump dump = outbound();
    std::fill(dump.begin() + 4289, dump.begin() + 4297, std::uint8_t{0});
    const auto active = lbshow::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(active.since_success_s, 0);
    EXPECT_EQ(active.since_failure_s, std::nullopt);
    dump[4311] = 0;
    const auto failed = lbshow::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(failed.since_success_s, std::nullopt);
    EXPECT_EQ(failed.since_failure_s, 0);
    dump[188 + 54] = 0;  // neither probe has a result yet
    dump[270 + 54] = 0;
    EXPECT_EQ(lbshow::read_interfaces(dump, 4, false).items.at(0).since_failure_s, std::nullopt);
}

TEST(Dumps, tell_position_and_type_of_probes) {
    const auto probes = state().interfaces.at(0).probes;
    ASSERT_EQ(probes.size(), 2U);
    EXPECT_EQ(probes[0].position, 1);
    EXPECT_STREQ(probes[0].type(), "ping");
    EXPECT_EQ(probes[1].position, 2);
    EXPECT_STREQ(probes[1].type(), "ping_ext");
}

TEST(Selection, leaves_what_is_named) {
    lbshow::State one = state();
    EXPECT_EQ(
        lbshow::select(one, {.interfaces = true, .rules = true, .routes = true, .names = {"12"}}),
        "");
    EXPECT_TRUE(one.interfaces.empty());
    EXPECT_EQ(one.rules.size(), 1U);
    EXPECT_EQ(one.routes.size(), 1U);
    EXPECT_EQ(
        lbshow::select(one, {.interfaces = true, .rules = true, .routes = true, .names = {"eth9"}}),
        "eth9");
}

}  // namespace

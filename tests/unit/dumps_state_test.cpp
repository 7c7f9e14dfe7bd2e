#include <gtest/gtest.h>

#include "dumps/state.h"
#include "lbshow/selection.h"
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
    dumps::State swapped = state();
    swapped.interfaces = dumps::read_interfaces(outbound(!is_big_here), 4, true).items;
    swapped.rules = dumps::read_rules(rule(!is_big_here), true).items;
    swapped.routes = dumps::read_routes(route(!is_big_here), true).items;
    EXPECT_EQ(lbshow::json(swapped, {}), lbshow::json(state(), {}));
}

TEST(Dumps, of_the_wrong_byte_order_are_refused) {
    EXPECT_NE(dumps::read_routes(route(!is_big_here), false).problem, "");
}

TEST(Dumps, cut_within_a_record_say_so) {
    Dump cut = route();
    cut.resize(200);
    const auto read = dumps::read_routes(cut, false);
    EXPECT_EQ(read.problem.empty(), false);
    Dump one_and_a_half = route();
    const Dump second = route();
    one_and_a_half.insert(one_and_a_half.end(), second.begin(), second.begin() + 50);
    const auto truncated = dumps::read_routes(one_and_a_half, false);
    EXPECT_TRUE(truncated.is_truncated);
    EXPECT_EQ(truncated.items.size(), 1U);
}

TEST(Dumps, foreign_files_are_refused) {
    Dump noise(4312 * 2);
    for (std::size_t i = 0; i < noise.size(); ++i) {
        noise[i] = static_cast<std::uint8_t>(i * 31 + 7);
    }
    EXPECT_NE(dumps::read_interfaces(noise, 4, false).problem, "");
    EXPECT_NE(dumps::read_rules(noise, false).problem, "");
    EXPECT_NE(dumps::read_routes(noise, false).problem, "");
    Dump counted = outbound();
    counted[4288] = 51;
    EXPECT_NE(dumps::read_interfaces(counted, 4, false).problem, "");
}

/// A byte that no daemon writes there.
struct WrongByte {
    std::size_t at;
    int value;
    const char* what;
};

TEST(Dumps, with_a_single_wrong_byte_in_an_interface_are_refused) {
    constexpr std::size_t last_probe = 188 + 49 * 82;
    for (const WrongByte& wrong : {WrongByte{0, 0, "no name"},
                                   {63, 'x', "name"},
                                   {141, 'x', "next hop"},
                                   {187, 'x', "source address"},
                                   {188 + 45, 'x', "target"},
                                   {188 + 54, 3, "result"},
                                   {188 + 55, 2, "extended"},
                                   {188 + 57, 1, "the byte that is always 0"},
                                   {last_probe + 45, 'x', "last target"},
                                   {last_probe + 54, 3, "last result"},
                                   {4288, 51, "number of probes"},
                                   {4309, 2, "dhcp"},
                                   {4310, 2, "tunnel"},
                                   {4311, 2, "active"}}) {
        Dump dump = outbound();
        dump.at(wrong.at) = static_cast<std::uint8_t>(wrong.value);
        const auto read = dumps::read_interfaces(dump, 4, false);
        EXPECT_NE(read.problem, "") << wrong.what;
        EXPECT_TRUE(read.items.empty()) << wrong.what;
        EXPECT_FALSE(read.is_truncated) << wrong.what;
    }
}

TEST(Dumps, with_a_single_wrong_byte_in_a_rule_or_route_are_refused) {
    for (const WrongByte& wrong : {WrongByte{63, 'x', "member"},
                                   {65, 2, "family of a member"},
                                   {49 * 66 + 63, 'x', "last member"},
                                   {49 * 66 + 65, 2, "family of the last member"},
                                   {3300, 51, "number of members"},
                                   {3333, 1, "the number that is always 0"},
                                   {3342, 2, "family"}}) {
        Dump dump = rule();
        dump.at(wrong.at) = static_cast<std::uint8_t>(wrong.value);
        EXPECT_NE(dumps::read_rules(dump, false).problem, "") << wrong.what;
    }
    for (const WrongByte& wrong : {WrongByte{0, 0, "no prefix"},
                                   {49, 'x', "prefix"},
                                   {95, 'x', "next hop"},
                                   {108, 2, "family"}}) {
        Dump dump = route();
        dump.at(wrong.at) = static_cast<std::uint8_t>(wrong.value);
        EXPECT_NE(dumps::read_routes(dump, false).problem, "") << wrong.what;
    }
}

TEST(Dumps, may_be_full_to_their_last_entry) {
    Dump dump = outbound();
    dump[4288] = 50;
    EXPECT_EQ(dumps::read_interfaces(dump, 4, false).problem, "");
    dump = rule();
    dump[3300] = 50;
    ASSERT_EQ(dumps::read_rules(dump, false).items.size(), 1U);
    EXPECT_EQ(dumps::read_rules(dump, false).items[0].members.size(), 50U);
}

TEST(Dumps, are_told_from_those_of_the_other_byte_order_by_their_counts) {
    const auto is_read = [](int at, std::uint32_t number) {
        const Dump dump = given::Bytes(4312, is_big_here).text(0, "gi1_1").number(at, number);
        return dumps::read_interfaces(dump, 4, false).problem.empty();
    };
    for (const int at : {4301, 4305}) {
        EXPECT_TRUE(is_read(at, 0)) << at;
        EXPECT_TRUE(is_read(at, 0xffff)) << at;
        EXPECT_FALSE(is_read(at, 0x10000)) << at;
        EXPECT_TRUE(is_read(at, 0x10001)) << at;
        EXPECT_FALSE(is_read(at, 0x03000000)) << at;
        EXPECT_FALSE(is_read(at, 0xffffffff)) << at;
    }
    const auto is_position = [](std::uint32_t number) {
        const Dump dump = given::Bytes(109, is_big_here).text(0, "10.0.0.0/8").number(100, number);
        return dumps::read_routes(dump, false).problem.empty();
    };
    EXPECT_FALSE(is_position(0));
    EXPECT_TRUE(is_position(1));
    EXPECT_TRUE(is_position(50));
    EXPECT_FALSE(is_position(51));
}

TEST(Ages, of_zero_seconds_are_now_for_the_present_state_and_never_for_the_other) {
    Dump dump = outbound();
    std::fill(dump.begin() + 4289, dump.begin() + 4297, std::uint8_t{0});
    const auto active = dumps::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(active.since_success_s, 0);
    EXPECT_EQ(active.since_failure_s, std::nullopt);
    dump[4311] = 0;
    const auto failed = dumps::read_interfaces(dump, 4, false).items.at(0);
    EXPECT_EQ(failed.since_success_s, std::nullopt);
    EXPECT_EQ(failed.since_failure_s, 0);
    dump[188 + 54] = 0;  // neither probe has a result yet
    dump[270 + 54] = 0;
    EXPECT_EQ(dumps::read_interfaces(dump, 4, false).items.at(0).since_failure_s, std::nullopt);
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
    dumps::State one = state();
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

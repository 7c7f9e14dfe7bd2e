#include <gtest/gtest.h>

#include "dumps/freshness.h"
#include "lbshow/views.h"
#include "unit/support/given_dumps.h"

namespace {

using given::judged;

TEST(Tables, are_aligned) {
    EXPECT_EQ(
        lbshow::tables(judged(), {}, false),
        "INTERFACE  FAMILY  NAMESPACE  STATE   ROUTED  NEXT HOP   FROM  SOURCE      LAST UP  LAST "
        "DOWN\n"
        "gi1_1      ipv4    blue       active  yes     192.0.2.1  dhcp  192.0.2.10  6s       "
        "never\n"
        "\n"
        "INTERFACE  PROBE  TYPE      TARGET        LAST PROBE  SUCCESSES  FAILURES  QUALITY\n"
        "gi1_1      1      ping      198.51.100.1  answered    3/3        0/2       -\n"
        "gi1_1      2      ping_ext  198.51.100.2  no answer   0/3        2/2       loss 10/1% rtt "
        "104/200ms jitter 896/50ms\n"
        "\n"
        "RULE     NAMESPACE  MODE      INTERFACE    WEIGHT\n"
        "12_ipv4  blue       failover  gi1_1        3\n"
        "12_ipv4  blue       failover  eth0 (ipv6)  1\n"
        "\n"
        "RULE     PREFIX      METRIC  NEXT HOPS\n"
        "12_ipv4  10.0.0.0/8  -       192.0.2.1 dev gi1_1\n"
        "\n"
        "written: ipv4 1 s ago, rules 1 s ago, routes 1 s ago\n");
}

TEST(Tables, with_a_history_tell_since_when_and_how_many_flaps) {
    lbshow::Selection interfaces_only{.interfaces = true, .rules = false, .routes = false};
    dumps::State state = judged();
    state.has_history = true;
    const auto has = [&](const std::string& end) {
        return lbshow::tables(state, interfaces_only, false).find(end) != std::string::npos;
    };
    EXPECT_TRUE(has("  LAST DOWN  SINCE  FLAPS TODAY\n"));
    EXPECT_TRUE(has("  never      -      -\n"));
    state.interfaces[0].past = {.since_s = 93'600, .is_begin_seen = true, .flaps_today = 2};
    EXPECT_TRUE(has("  never      1d2h   2\n"));
    state.interfaces[0].past->is_begin_seen = false;
    EXPECT_TRUE(has("  never      > 1d2h  2\n"));
}

TEST(Tables, age_of_a_date_in_the_future_has_a_minus) {
    dumps::State state = judged();
    state.interfaces[0].since_failure_s = -93'600;
    EXPECT_NE(lbshow::tables(state, {}, false).find("6s       -1d2h\n"), std::string::npos);
}

TEST(Tables, are_coloured_without_losing_their_alignment) {
    lbshow::Selection interfaces_only{.interfaces = true, .rules = false, .routes = false};
    const std::string text = lbshow::tables(judged(), interfaces_only, true);
    EXPECT_NE(text.find("blue       \033[32mactive\033[0m  yes     192.0.2.1"), std::string::npos)
        << text;
}

TEST(Tables, show_control_characters_of_foreign_names_as_text) {
    dumps::State bad = judged();
    bad.interfaces[0].name = "a\033[2Jb\n";
    const std::string text = lbshow::tables(bad, {}, false);
    EXPECT_NE(text.find("a\\x1b[2Jb\\x0a"), std::string::npos);
    EXPECT_EQ(text.find('\033'), std::string::npos);
}

TEST(Tables, of_a_dead_daemon_say_so_in_the_first_line_and_show_nothing_else) {
    dumps::State dead = judged(61);
    dumps::leave_out_stale(dead);
    EXPECT_EQ(lbshow::tables(dead, {}, false),
              "STALE: ipv4 written 61 s ago, at 2026-11-21T14:10:05Z: is the daemon running? "
              "(systemctl status lb)\n"
              "left out as stale (--all shows them): interfaces 1, rules 1, routes 1\n"
              "\n"
              "written: ipv4 61 s ago, rules 61 s ago, routes 61 s ago\n");
}

TEST(Tables, of_everything_show_what_was_so_as_past) {
    const std::string text = lbshow::tables(judged(61), {}, true);
    EXPECT_TRUE(text.starts_with("STALE: ipv4 written 61 s ago")) << text;
    EXPECT_NE(text.find("\033[31mwas active\033[0m"), std::string::npos) << text;
    EXPECT_NE(text.find("12_ipv4 (stale)  10.0.0.0/8"), std::string::npos) << text;
    EXPECT_EQ(text.find("\033[32m"), std::string::npos) << "nothing stale is green\n" << text;
}

TEST(Tables, without_items_keep_their_heads_while_nothing_is_stale) {
    dumps::State empty = judged();
    empty.interfaces.clear();
    empty.rules.clear();
    empty.routes.clear();
    const std::string text = lbshow::tables(empty, {}, false);
    EXPECT_EQ(text.substr(0, 9), "INTERFACE");
    EXPECT_NE(text.find("NEXT HOPS\n"), std::string::npos);
}

TEST(Tables, show_the_weights_of_shared_routes) {
    dumps::State shared = judged();
    shared.routes[0].nexthop = "";
    shared.routes[0].in_force.push_back(
        {.address = "198.51.100.1", .interface = "gi1_2", .weight = 1});
    EXPECT_NE(lbshow::tables(shared, {}, false)
                  .find("192.0.2.1 dev gi1_1 weight 3, 198.51.100.1 dev gi1_2 weight 1\n"),
              std::string::npos);
}

}  // namespace

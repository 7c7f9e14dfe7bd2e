// What a simulation prints, of stories made by hand.

#include <gtest/gtest.h>

#include "lbsim/report.h"
#include "lbsim/scenario_text.h"
#include "lbsim/svg.h"
#include "lbsim/table.h"
#include "lbsim/tune.h"

namespace {

using namespace lbsim;

constexpr std::int64_t s = 1'000'000;

Uplink uplink(const std::string& name, bool is_ipv6 = false, const std::string& ns_name = "") {
    Uplink made;
    made.name = name;
    made.is_ipv6 = is_ipv6;
    made.ns_name = ns_name;
    return made;
}

/// gi1_1 dies at 20 s and is left after 7 s; eth0 in blue flaps and is never left.
Story two_uplinks() {
    Story story;
    story.configuration = "lb.conf";
    story.seed = 7;
    story.uplinks = {uplink("gi1_1"), uplink("eth0", true, "blue")};
    story.scenario = parse_scenario("20s gi1_1 dead\n25s eth0 dead").events;
    story.run.duration_us = 60 * s;
    story.run.cycles = 118;
    story.run.echoes = 236;
    story.run.made_up_routers = {{"gi1_1 ipv4", "192.0.2.1"}};
    Row row{.at_us = 20 * s, .event = "gi1_1 dead", .uplink = 0, .condition = Condition::dead};
    row.state_after_us = 7 * s;
    row.route_after_us = 7'500'000;
    row.into_dead_us = 7'500'000;
    story.summary.rows.push_back(row);
    row = {.at_us = 25 * s, .event = "eth0 dead", .uplink = 1, .condition = Condition::dead};
    row.into_dead_us = 35 * s;
    row.left_unused_us = 2 * s;
    row.flaps = 12;
    story.summary.rows.push_back(row);
    story.summary.uplinks = {{.into_dead_us = 7'500'000,
                              .left_unused_us = 0,
                              .dead_us = 40 * s,
                              .unwatched_us = 0,
                              .active_us = 27 * s,
                              .changes = 2,
                              .flaps = 0},
                             {.into_dead_us = 35 * s,
                              .left_unused_us = 2 * s,
                              .dead_us = 35 * s,
                              .unwatched_us = 0,
                              .active_us = 58 * s,
                              .changes = 15,
                              .flaps = 12}};
    return story;
}

/// Its rows so often that they are told by their kinds.
Story many_rows() {
    Story story = two_uplinks();
    const auto once = story.summary.rows;
    for (int i = 0; i < 30; ++i) {
        story.summary.rows.insert(story.summary.rows.end(), once.begin(), once.end());
    }
    return story;
}

std::string before_legend(const std::string& text) {
    return text.substr(0, text.find("\nstate after: "));
}

TEST(Tables, have_columns_as_wide_as_their_widest_cell) {
    Table table({"name", "a", "longer"}, 1);
    table.add({"x", "1000", ""});
    table.add({"longest", "2", "3"});
    EXPECT_EQ(table.text(),
              "name        a  longer\n"
              "x        1000\n"
              "longest     2       3\n");
    Table left({"a", "b"}, 2);
    left.add({"1", "x"});
    EXPECT_EQ(left.text(), "a  b\n1  x\n");
}

TEST(Tables, show_seconds_to_the_nearest_tenth) {
    EXPECT_EQ(shown_seconds(0), "0.0 s");
    EXPECT_EQ(shown_seconds(49'999), "0.0 s");
    EXPECT_EQ(shown_seconds(50'000), "0.1 s");
    EXPECT_EQ(shown_seconds(12'345'678), "12.3 s");
    EXPECT_EQ(shown_seconds(-50'000), "-0.1 s");
    EXPECT_EQ(shown_seconds(-49'999), "0.0 s");
    EXPECT_EQ(shown_seconds(-1'950'000), "-2.0 s");
}

TEST(StoryText, begins_with_what_was_simulated_and_made_up) {
    EXPECT_EQ(head_text(two_uplinks()),
              "lb.conf: 1m simulated, seed 7, 118 cycles, 236 echoes\n"
              "made up: the lease of gi1_1 ipv4 names the router 192.0.2.1\n");
}

TEST(StoryText, has_a_row_for_each_event_and_a_line_for_each_uplink) {
    EXPECT_EQ(before_legend(table_text(two_uplinks())),
              "at   event       uplink             state after  route after  into dead  left "
              "unused  flaps\n"
              "20s  gi1_1 dead  gi1_1 ipv4               7.0 s        7.5 s      7.5 s        0.0 "
              "s      0\n"
              "25s  eth0 dead   eth0 ipv6 in blue        never            -     35.0 s        2.0 "
              "s     12\n"
              "\n"
              "in all             active    dead  into dead  left unused  changes  flaps\n"
              "gi1_1 ipv4         27.0 s  40.0 s      7.5 s        0.0 s        2      0\n"
              "eth0 ipv6 in blue  58.0 s  35.0 s     35.0 s        2.0 s       15     12\n");
}

TEST(StoryText, uplink_that_may_go_either_way_is_unchanged_and_unwatched_time_has_a_column) {
    Story story = two_uplinks();
    story.summary.rows[1].is_expected = false;
    story.summary.uplinks[1].unwatched_us = 3 * s;
    const std::string text = table_text(story);
    EXPECT_NE(text.find("eth0 ipv6 in blue    unchanged            -"), std::string::npos) << text;
    EXPECT_NE(text.find("changes  flaps  not watched\n"), std::string::npos) << text;
    EXPECT_NE(text.find("     15     12        3.0 s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("      2      0        0.0 s\n"), std::string::npos) << text;
}

TEST(StoryText, many_rows_are_told_by_their_kinds) {
    Story story = many_rows();
    story.summary.rows[0].state_after_us = 68 * s;
    ASSERT_GT(story.summary.rows.size(), most_rows);
    const std::string text = table_text(story);
    EXPECT_EQ(text.substr(0, text.find("\n\n") + 1),
              "event  uplink             times  followed  state after (mean)  (longest)  "
              "route after (mean)  into dead  left unused  flaps\n"
              "dead   gi1_1 ipv4            31        31               9.0 s     68.0 s  "
              "             7.5 s    232.5 s        0.0 s      0\n"
              "dead   eth0 ipv6 in blue     31         0                   -          -  "
              "                 -   1085.0 s       62.0 s    372\n");
    EXPECT_EQ(timeline_text(story), "2 events, 0 answers: --json has them all\n");
    story.summary.rows.resize(most_rows);
    EXPECT_EQ(table_text(story).substr(0, 2), "at");
    EXPECT_EQ(timeline_text(story).substr(0, 11), "     20.0 s");
}

TEST(StoryText, kinds_are_what_became_of_the_uplink) {
    Story story = many_rows();
    story.summary.rows[0].condition = Condition::good;
    story.summary.rows[0].event = "start";
    story.summary.rows[2].condition = Condition::good;
    story.summary.rows[4].condition = Condition::impaired;
    story.summary.rows[6].condition = Condition::unknown;
    const std::string text = table_text(story);
    for (const char* const line : {"\nstart        gi1_1 ipv4             1         1 ",
                                   "\nworks again  gi1_1 ipv4             1         1 ",
                                   "\nimpaired     gi1_1 ipv4             1         1 ",
                                   "\nnot watched  gi1_1 ipv4             1         1 ",
                                   "\ndead         gi1_1 ipv4            27        27 "}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
}

TEST(StoryText, timeline_has_events_and_answers_in_the_order_of_time) {
    Story story = two_uplinks();
    story.scenario = parse_scenario("20s gi1_1 dead\n30s gi1_1 alive\n60s gi1_1 dead").events;
    ObservedChange told{.at_us = 5 * s, .kind = ObservedChange::Kind::state, .uplink = "gi1_1"};
    told.is_up = true;
    story.run.told.push_back(told);
    told = {
        .at_us = 20 * s, .kind = ObservedChange::Kind::target, .uplink = "eth0", .is_ipv6 = true};
    told.ns_name = "blue";
    told.text = "target 2001:db8::1 failure";
    story.run.told.push_back(told);
    told = {.at_us = 27'060'000, .kind = ObservedChange::Kind::state, .uplink = "gi1_1"};
    story.run.told.push_back(told);
    told = {.at_us = 27'060'000, .kind = ObservedChange::Kind::routes};
    told.text = "route a\nroute b\n";
    story.run.told.push_back(told);
    told = {.at_us = 28 * s, .kind = ObservedChange::Kind::routes, .is_ipv6 = true};
    told.ns_name = "blue";
    story.run.told.push_back(told);
    EXPECT_EQ(timeline_text(story),
              "      5.0 s    gi1_1 ipv4: active\n"
              "     20.0 s  gi1_1 dead\n"
              "     20.0 s    eth0 ipv6 in blue: target 2001:db8::1 failure\n"
              "     27.1 s    gi1_1 ipv4: inactive\n"
              "     27.1 s    ipv4 routes:\n"
              "                 route a\n"
              "                 route b\n"
              "     28.0 s    ipv6 routes in blue: none\n"
              "     30.0 s  gi1_1 alive\n");
}

TEST(StoryText, timeline_has_times_of_months_as_wide_as_they_are) {
    constexpr std::int64_t day = 86'400 * s;
    Story story = two_uplinks();
    story.scenario = parse_scenario("11d gi1_1 dead\n12d gi1_1 alive\n120d gi1_1 dead").events;
    story.run.duration_us = 365 * day;
    EXPECT_EQ(timeline_text(story),
              " 950400.0 s  gi1_1 dead\n"
              "1036800.0 s  gi1_1 alive\n"
              "10368000.0 s  gi1_1 dead\n");
}

TEST(ComparisonText, shows_both_where_they_differ) {
    const Story one = two_uplinks();
    Story other = two_uplinks();
    other.configuration = "new.conf";
    other.summary.rows[0].state_after_us = 12 * s;
    other.summary.rows[0].into_dead_us = 6 * s;
    other.summary.rows[1].state_after_us = 3 * s;
    other.summary.rows[1].flaps = 0;
    other.summary.uplinks[0].changes = 4;
    EXPECT_EQ(before_legend(comparison_text(one, other)),
              "lb.conf > new.conf, in the same world with the same draws:\n\n"
              "at   event       uplink                         state after               into "
              "dead  left unused   flaps\n"
              "20s  gi1_1 dead  gi1_1 ipv4         7.0 s > 12.0 s (+5.0 s)  7.5 s > 6.0 s (-1.5 "
              "s)        0.0 s       0\n"
              "25s  eth0 dead   eth0 ipv6 in blue            never > 3.0 s                  35.0 "
              "s        2.0 s  12 > 0\n"
              "\n"
              "in all             into dead  left unused  changes  flaps\n"
              "gi1_1 ipv4             7.5 s        0.0 s    2 > 4      0\n"
              "eth0 ipv6 in blue     35.0 s        2.0 s       15     12\n");
}

TEST(ComparisonText, of_many_rows_compares_their_kinds) {
    const Story one = many_rows();
    Story other = many_rows();
    for (Row& row : other.summary.rows) {
        row.state_after_us = 9 * s;
    }
    const std::string text = comparison_text(one, other);
    EXPECT_NE(text.find("\ndead   gi1_1 ipv4            31  7.0 s > 9.0 s (+2.0 s)    232.5 s  "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\ndead   eth0 ipv6 in blue     31               - > 9.0 s   1085.0 s  "),
              std::string::npos)
        << text;
}

TEST(ComparisonText, names_what_only_one_of_them_has) {
    const Story one = two_uplinks();
    Story other = two_uplinks();
    other.configuration = "new.conf";
    other.uplinks[0].name = "gi1_9";
    const std::string text = comparison_text(one, other);
    EXPECT_NE(text.find("gi1_1 ipv4 is only in lb.conf\ngi1_9 ipv4 is only in new.conf\n"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("gi1_1 dead"), std::string::npos) << text;
    EXPECT_NE(text.find("eth0 dead"), std::string::npos) << text;
}

/// The marks below the picture of a run that long.
std::string axis_of(std::int64_t duration_s) {
    Story story;
    story.run.duration_us = duration_s * s;
    const std::string svg = svg_text(story);
    std::string marks;
    const std::string before = "text-anchor=\"middle\">";
    for (std::size_t at = svg.find(before); at != std::string::npos; at = svg.find(before, at)) {
        at += before.size();
        marks += svg.substr(at, svg.find('<', at) - at) + ";";
    }
    return marks;
}

TEST(Svg, axis_has_up_to_ten_round_steps) {
    EXPECT_EQ(axis_of(3), "0s;1s;2s;3s;");
    EXPECT_EQ(axis_of(10), "0s;1s;2s;3s;4s;5s;6s;7s;8s;9s;10s;");
    EXPECT_EQ(axis_of(11), "0s;2s;4s;6s;8s;10s;");
    EXPECT_EQ(axis_of(1100), "0s;2m;4m;6m;8m;10m;12m;14m;16m;18m;");
    EXPECT_EQ(axis_of(11 * 86'400), "0s;3d;6d;9d;");
    EXPECT_EQ(axis_of(40 * 86'400), "0s;5d;10d;15d;20d;25d;30d;35d;40d;");
}

TEST(Svg, every_uplink_has_a_row_of_its_own) {
    const std::string svg = svg_text(two_uplinks());
    EXPECT_NE(svg.find("viewBox=\"0 0 1200.00 192.00\""), std::string::npos) << svg;
    EXPECT_NE(svg.find("<text x=\"160.00\" y=\"61.00\" text-anchor=\"end\">gi1_1 ipv4</text>"),
              std::string::npos);
    EXPECT_NE(
        svg.find("<text x=\"160.00\" y=\"107.00\" text-anchor=\"end\">eth0 ipv6 in blue</text>"),
        std::string::npos);
    EXPECT_NE(svg.find("; seed 7</text>"), std::string::npos);
    // Dead from 20 s and from 25 s of 60 s on.
    EXPECT_NE(svg.find("<rect class=\"dead\" x=\"503.33\" y=\"40.00\" width=\"666.67\" "
                       "height=\"16.00\"><title>dead from 20s to 1m</title></rect>"),
              std::string::npos)
        << svg;
    EXPECT_NE(svg.find("<rect class=\"dead\" x=\"586.67\" y=\"86.00\" width=\"583.33\""),
              std::string::npos)
        << svg;
    EXPECT_NE(svg.find("<rect class=\"unwatched\" x=\"665.00\" y=\"166.00\" width=\"12\""),
              std::string::npos)
        << svg;
}

Trial trial(Setting setting, std::int64_t left_after_s, int flaps) {
    Trial made;
    made.setting = setting;
    made.deaths = {
        .all = 3, .left = 2, .left_after_us = 2 * left_after_s * s, .longest_us = 30 * s};
    made.all.flaps = flaps;
    made.all.into_dead_us = 40 * s;
    made.all.left_unused_us = 5 * s;
    made.changes = 11;
    return made;
}

TEST(TuningPicture, has_a_circle_for_each_setting) {
    Trial never;
    const std::string svg =
        tuning_svg({trial({}, 10, 4), trial({.success_ct = {}, .failure_ct = 6}, 20, 0),
                    trial({.success_ct = 2, .failure_ct = {}}, 5, 1), never});
    EXPECT_NE(svg.find("<text x=\"60.00\" y=\"18.00\" text-anchor=\"start\">flaps (4 at the top)"),
              std::string::npos)
        << svg;
    EXPECT_NE(svg.find("<text x=\"660.00\" y=\"412.00\" text-anchor=\"end\">seconds until a dead "
                       "uplink was left (20.00)"),
              std::string::npos)
        << svg;
    EXPECT_NE(svg.find("y=\"432.00\" text-anchor=\"start\">red: another failure-ct, blue: another "
                       "success-ct, ring: as configured"),
              std::string::npos)
        << svg;
    EXPECT_NE(svg.find("<circle class=\"present\" cx=\"360.00\" cy=\"30.00\" r=\"8\"><title>as "
                       "configured</title></circle>\n"
                       "<circle class=\"f\" cx=\"660.00\" cy=\"390.00\" r=\"4\"><title>failure-ct "
                       "6</title></circle>\n"
                       "<circle class=\"s\" cx=\"210.00\" cy=\"300.00\" r=\"4\"><title>success-ct "
                       "2</title></circle>\n</svg>\n"),
              std::string::npos)
        << svg;
}

TEST(TuningText, has_a_curve_below_its_table) {
    const std::string text =
        tuning_text({trial({}, 10, 4), trial({.success_ct = 2, .failure_ct = {}}, 20, 1)}, 60 * s);
    EXPECT_NE(
        text.find("as it is           2             20.0 s     30.0 s           1     40.0 s  "
                  "      5.0 s       11      1\n"),
        std::string::npos)
        << text;
    const std::string blanks(30, ' ');
    EXPECT_NE(text.find("\nflaps\n     4 |" + blanks + "@\n       |\n       |\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("       |" + blanks + blanks + "s\n       |\n       |\n     0 |\n       +" +
                        std::string(61, '-') + "\n        0" + std::string(43, ' ') +
                        "20.0 s until left\n        @ as configured, "),
              std::string::npos)
        << text;
}

TEST(TuningJson, has_every_figure_and_null_where_nothing_was_left) {
    Trial never;
    never.deaths.all = 1;
    const std::string text =
        tuning_json({trial({.success_ct = 2, .failure_ct = {}}, 5, 1), never}, 60 * s, 9);
    for (const char* const part :
         {"\"runs\": 2,", "\"seconds\": 60.0,", "\"seed\": 9,", "\"present\": false,",
          "\"failure_ct\": null,\n    \"success_ct\": 2,\n    \"left_after_s\": 5.0,\n    "
          "\"deaths\": 3,\n    \"never_left\": 1,\n    \"into_dead_s\": 40.0,\n    "
          "\"left_unused_s\": 5.0,\n    \"changes\": 11,\n    \"flaps\": 1\n",
          "\"present\": true,", "\"left_after_s\": null,\n    \"deaths\": 1,\n"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << text;
    }
}

}  // namespace

// Outages that lbsim draws, and the picture that it draws of a run.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "lbsim/draws.h"
#include "lbsim/scenario_text.h"
#include "lbsim/svg.h"

namespace {

using namespace lbsim;

constexpr std::int64_t day_us = 86'400'000'000;

std::vector<Uplink> uplinks_of(std::initializer_list<const char*> names) {
    std::vector<Uplink> uplinks;
    for (const char* name : names) {
        Uplink uplink;
        uplink.name = name;
        uplink.targets = {"203.0.113.1", "203.0.113.2"};
        uplink.start_us = 60'000'000;
        uplinks.push_back(uplink);
    }
    return uplinks;
}

std::string texts_of(const Scenario& events, const std::string& uplink) {
    std::string text;
    for (const Event& event : events) {
        if (event.uplink == uplink) {
            text += std::to_string(event.at_us) + " " + event.text + "\n";
        }
    }
    return text;
}

TEST(DrawnOutages, are_those_of_their_seed) {
    const auto uplinks = uplinks_of({"gi1_1", "gi1_2"});
    const auto first = draw_outages(uplinks, day_us, {}, 5);
    EXPECT_EQ(texts_of(draw_outages(uplinks, day_us, {}, 5), "gi1_1"), texts_of(first, "gi1_1"));
    EXPECT_NE(texts_of(draw_outages(uplinks, day_us, {}, 6), "gi1_1"), texts_of(first, "gi1_1"));
    EXPECT_NE(texts_of(first, "gi1_2"), texts_of(first, "gi1_1"));
}

TEST(DrawnOutages, of_one_uplink_do_not_depend_on_the_others) {
    const auto alone = draw_outages(uplinks_of({"gi1_2"}), day_us, {}, 5);
    const auto among = draw_outages(uplinks_of({"gi1_1", "gi1_2", "gi1_3"}), day_us, {}, 5);
    EXPECT_EQ(texts_of(among, "gi1_2"), texts_of(alone, "gi1_2"));
}

TEST(DrawnOutages, have_the_frequency_and_the_length_that_were_asked_for) {
    OutageModel model;
    model.outages_per_day = 10;
    model.mean_length_us = 60'000'000;
    const auto events = draw_outages(uplinks_of({"gi1_1"}), 400 * day_us, model, 1);
    std::int64_t length_us = 0;
    for (std::size_t i = 0; i + 1 < events.size(); i += 2) {
        EXPECT_EQ(events[i + 1].change, Change::clean);
        length_us += events[i + 1].at_us - events[i].at_us;
    }
    const auto count = static_cast<double>(events.size()) / 2;
    EXPECT_NEAR(count, 4000, 200);
    EXPECT_NEAR(static_cast<double>(length_us) / count, 6e7, 3e6);
}

TEST(DrawnOutages, are_as_many_where_an_uplink_is_down_most_of_the_day) {
    OutageModel model;
    model.outages_per_day = 100;
    model.mean_length_us = 600'000'000;
    EXPECT_EQ(problem_of(model), "");
    const auto events = draw_outages(uplinks_of({"gi1_1"}), 100 * day_us, model, 1);
    EXPECT_NEAR(static_cast<double>(events.size()) / 2, 10'000, 300);
}

TEST(DrawnOutages, that_do_not_fit_into_a_day_are_refused) {
    OutageModel model;
    model.mean_length_us = 600'000'000;
    model.outages_per_day = 144;
    EXPECT_EQ(problem_of(model),
              "--outages-per-day: so many outages of 10m do not fit into a day; fewer than 144 do");
    model.outages_per_day = 143.9;
    EXPECT_EQ(problem_of(model), "");
    model.outages_per_day = 0;
    EXPECT_EQ(problem_of(model), "");
}

TEST(DrawnOutages, begin_after_the_first_verdict_and_before_the_end) {
    for (const Event& event : draw_outages(uplinks_of({"gi1_1"}), day_us, {}, 2)) {
        EXPECT_GT(event.at_us, 60'000'000);
        EXPECT_TRUE(event.change == Change::clean || event.at_us < day_us);
    }
}

TEST(DrawnOutages, are_of_the_kinds_that_were_asked_for) {
    OutageModel model;
    ASSERT_TRUE(parse_kinds("loss=1,target=3", model));
    int losses = 0;
    int targets = 0;
    for (const Event& event : draw_outages(uplinks_of({"gi1_1"}), 500 * day_us, model, 1)) {
        EXPECT_TRUE(event.change == Change::clean || event.change == Change::loss ||
                    !event.target.empty())
            << event.text;
        losses += event.change == Change::loss ? 1 : 0;
        targets += event.target.empty() ? 0 : 1;
    }
    EXPECT_NEAR(static_cast<double>(targets) / losses, 3, 0.5);
}

TEST(DrawnOutages, can_be_written_as_a_scenario) {
    for (const Event& event : draw_outages(uplinks_of({"gi1_1"}), 90 * day_us, {}, 4)) {
        const auto parsed = parse_scenario("1s " + event.text);
        ASSERT_EQ(parsed.events.size(), 1) << event.text;
        EXPECT_EQ(parsed.events[0].change, event.change) << event.text;
        EXPECT_EQ(parsed.events[0].percent, event.percent) << event.text;
        EXPECT_EQ(parsed.events[0].delay_ms, event.delay_ms) << event.text;
        EXPECT_EQ(parsed.events[0].target, event.target) << event.text;
    }
}

TEST(DrawnOutages, are_none_where_none_are_asked_for) {
    OutageModel model;
    model.outages_per_day = 0;
    EXPECT_TRUE(draw_outages(uplinks_of({"gi1_1"}), day_us, model, 1).empty());
}

TEST(Kinds, are_refused_where_they_make_no_sense) {
    OutageModel model;
    for (const char* text : {"", "dead", "dead=", "dead=x", "fire=1", "dead=0", "dead=1..2",
                             "dead=-1", "dead=1e9", "dead=9999999"}) {
        EXPECT_FALSE(parse_kinds(text, model)) << text;
    }
    EXPECT_EQ(model.dead, 5);
    EXPECT_TRUE(parse_kinds("delay=0.5", model));
    EXPECT_EQ(model.dead, 0);
    EXPECT_EQ(model.delay, 0.5);
}

TEST(Svg, has_a_band_of_truth_above_one_of_the_verdict) {
    Story story;
    story.configuration = "<lb&.conf>";
    story.uplinks = uplinks_of({"gi1_1"});
    story.scenario = parse_scenario("50s gi1_1 dead\n75s gi1_1 loss 10%").events;
    story.run.duration_us = 100'000'000;
    for (const auto& [at_s, is_active] : {std::pair{10, true}, std::pair{60, false}}) {
        ObservedChange told;
        told.at_us = at_s * 1'000'000;
        told.uplink = "gi1_1";
        told.is_up = is_active;
        story.run.told.push_back(told);
    }
    const std::string svg = svg_text(story);
    EXPECT_TRUE(svg.starts_with("<svg xmlns=\"http://www.w3.org/2000/svg\" "));
    EXPECT_TRUE(svg.ends_with("</svg>\n"));
    EXPECT_NE(svg.find("&lt;lb&amp;.conf&gt;"), std::string::npos);
    // 1000 units wide from 170 on: half of it good, from then on dead, whatever came on top.
    EXPECT_NE(svg.find("<rect class=\"good\" x=\"170.00\" y=\"40.00\" width=\"500.00\""),
              std::string::npos);
    EXPECT_NE(svg.find("<rect class=\"dead\" x=\"670.00\" y=\"40.00\" width=\"500.00\""),
              std::string::npos);
    EXPECT_NE(svg.find("<rect class=\"inactive\" x=\"170.00\" y=\"58.00\" width=\"100.00\""),
              std::string::npos);
    EXPECT_NE(svg.find("<rect class=\"active\" x=\"270.00\" y=\"58.00\" width=\"500.00\""),
              std::string::npos);
    EXPECT_NE(svg.find("<rect class=\"inactive\" x=\"770.00\" y=\"58.00\" width=\"400.00\""),
              std::string::npos);
}

}  // namespace

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <sstream>

#include "lbwatch/drawing.h"
#include "lbwatch/json.h"
#include "lbwatch/report.h"
#include "lbwatch/report_page.h"
#include "lbwatch/report_text.h"
#include "lbwatch/uplink_past.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

constexpr auto active = UplinkState::active;
constexpr auto failed = UplinkState::failed;

Span span(double begin_s, double end_s, UplinkState state, std::string reason = "") {
    return {.uplink = key("eth0"),
            .state = state,
            .begin_ms = at(begin_s).wall_ms,
            .end_ms = at(end_s).wall_ms,
            .reason = std::move(reason)};
}

/// The report of the first so many seconds; every minute is of the hour that its number ends in.
Report report_of(double seconds, const std::vector<Span>& spans,
                 const std::vector<Minute>& minutes = {}) {
    ReportMaker maker(at(0).wall_ms, at(seconds).wall_ms,
                      [](std::int64_t minute) { return static_cast<int>(minute % 10); });
    maker.add(spans);
    for (const Minute& minute : minutes) {
        maker.add(minute);
    }
    Report report = maker.take();
    report.zone = "UTC";
    return report;
}

UplinkReport only(const Report& report) {
    EXPECT_EQ(report.uplinks.size(), 1U);
    return report.uplinks.at(0);
}

TEST(LbwatchAvailability, counts_what_was_seen_and_nothing_else) {
    const auto uplink =
        only(report_of(1000, {span(0, 300, active), span(300, 400, failed, "why"),
                              span(400, 500, UplinkState::unknown), span(600, 1000, active)}));
    EXPECT_EQ(uplink.active_ms, 700'000);
    EXPECT_EQ(uplink.failed_ms, 100'000);
    EXPECT_EQ(uplink.unknown_ms, 100'000);
    EXPECT_EQ(uplink.unwatched_ms, 100'000);
    EXPECT_DOUBLE_EQ(*uplink.availability(), 87.5);
}

TEST(LbwatchAvailability, is_unknown_where_nothing_was_judged) {
    EXPECT_FALSE(only(report_of(10, {span(0, 10, UplinkState::unknown)})).availability());
}

TEST(LbwatchAvailability, is_never_rounded_up) {
    EXPECT_EQ(percent_text(99.9999), "99.999 %");
    EXPECT_EQ(percent_text(100), "100.000 %");
    EXPECT_EQ(percent_text(0), "0.000 %");
}

TEST(LbwatchOutages, tell_begin_end_and_what_was_not_seen) {
    const auto uplink = only(
        report_of(1000, {span(0, 10, failed), span(10, 100, active), span(100, 160, failed, "why"),
                         span(160, 300, active), span(300, 320, failed), span(400, 900, active),
                         span(900, 1000, failed)}));
    ASSERT_EQ(uplink.outages.size(), 4U);
    EXPECT_EQ(length_of(uplink.outages[0]), "10s, begin not seen");
    EXPECT_EQ(length_of(uplink.outages[1]), "1m 0s");
    EXPECT_EQ(uplink.outages[1].reason, "why");
    EXPECT_EQ(length_of(uplink.outages[2]), "20s, end not seen");
    EXPECT_EQ(length_of(uplink.outages[3]), "1m 40s, going on");
    EXPECT_EQ(uplink.flaps, 5);
    EXPECT_EQ(uplink.longest_ms, 100'000);
    EXPECT_EQ(uplink.mean_repair_ms, 60'000);
    EXPECT_EQ(uplink.mean_between_ms, 730'000 / 3);
}

TEST(LbwatchOutages, rows_that_follow_each_other_are_one) {
    const auto uplink =
        only(report_of(100, {span(0, 20, failed), span(20, 50, failed), span(50, 100, active)}));
    EXPECT_EQ(uplink.outages.size(), 1U);
}

TEST(LbwatchOutages, begin_alone_is_one_of_a_cycle) {
    const auto uplink = only(report_of(1000, {span(0, 300, active), span(300, 300, failed, "why"),
                                              span(330, 600, active), span(600, 600, active)}));
    ASSERT_EQ(uplink.outages.size(), 1U);
    EXPECT_EQ(uplink.outages[0].begin_ms, at(300).wall_ms);
    EXPECT_EQ(uplink.outages[0].end_ms, at(301).wall_ms);
    EXPECT_TRUE(uplink.outages[0].is_begin_seen);
    EXPECT_FALSE(uplink.outages[0].is_end_seen);
    EXPECT_EQ(uplink.outages[0].reason, "why");
    EXPECT_EQ(uplink.flaps, 1);
    EXPECT_LT(*uplink.availability(), 100.0);
}

TEST(LbwatchPeriods, are_clipped_to_what_is_asked) {
    const auto uplink = only(report_of(100, {span(-50, 30, failed), span(30, 500, active)}));
    EXPECT_EQ(uplink.failed_ms, 30'000);
    EXPECT_EQ(uplink.active_ms, 70'000);
}

TEST(LbwatchPeriods, time_that_is_told_twice_counts_as_told_last) {
    const auto uplink = only(report_of(100, {span(0, 100, active), span(40, 60, failed)}));
    EXPECT_EQ(uplink.active_ms, 80'000);
    EXPECT_EQ(uplink.failed_ms, 20'000);
    EXPECT_EQ(uplink.unwatched_ms, 0);
    const auto covered =
        only(report_of(100, {span(40, 60, failed), span(50, 80, active), span(30, 90, active)}));
    EXPECT_EQ(covered.active_ms, 60'000);
    EXPECT_EQ(covered.failed_ms, 0);
}

Minute minute(int number, int answered, int missed, int rtt_ms = 0) {
    Minute row{.minute = at(0).wall_ms / 60'000 + number,
               .uplink = key("eth0"),
               .target = "198.51.100.1",
               .answered = answered,
               .missed = missed};
    if (rtt_ms > 0) {
        row.measured = answered;
        row.rtt_ms_sum = static_cast<std::int64_t>(rtt_ms) * answered;
    }
    return row;
}

TEST(LbwatchLoss, is_told_by_the_hour_and_in_points) {
    const auto uplink = only(
        report_of(600, {span(0, 600, active)},
                  {minute(0, 60, 0, 20), minute(1, 30, 30), minute(-1, 5, 5), minute(10, 5, 5)}));
    const auto first = static_cast<std::size_t>((at(0).wall_ms / 60'000) % 10);
    EXPECT_DOUBLE_EQ(*uplink.by_hour[first].loss(), 0);
    EXPECT_DOUBLE_EQ(*uplink.by_hour[(first + 1) % 10].loss(), 50);
    EXPECT_FALSE(uplink.by_hour[20].loss());
    ASSERT_EQ(uplink.targets.size(), 1U);
    ASSERT_EQ(uplink.targets[0].points.size(), 2U);
    EXPECT_DOUBLE_EQ(*uplink.targets[0].points[0].rtt_ms, 20);
    EXPECT_FALSE(uplink.targets[0].points[1].rtt_ms);
    EXPECT_EQ(uplink.targets[0].answers.missed, 30);
}

TEST(LbwatchPoints, of_a_long_time_are_few) {
    std::vector<Minute> minutes;
    for (int i = 0; i < 30 * 1440; ++i) {
        minutes.push_back(minute(i, 60, 0, 10));
    }
    const auto uplink = only(report_of(30 * 86400, {}, minutes));
    EXPECT_LE(uplink.targets[0].points.size(), 360U);
    EXPECT_EQ(uplink.targets[0].answers.answered, std::int64_t{30} * 1440 * 60);
}

TEST(LbwatchTextReport, tells_figures_and_outages) {
    const std::string text = text_of(report_of(
        1000,
        {span(0, 300, active), span(300, 400, failed, "198.51.100.1 no answer (3 in a row)"),
         span(400, 800, active)},
        {minute(0, 30, 30)}));
    for (const char* part : {"eth0 ipv4\n", "availability 87.500 %", "80.000 % of the period",
                             "not watched 3m 20s", "outages 1, flaps 2, longest 1m 40s",
                             "198.51.100.1 no answer (3 in a row)", " h 50.0 %"}) {
        EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    }
    EXPECT_NE(text_of(report_of(10, {})).find("Nothing was watched"), std::string::npos);
}

TEST(LbwatchCsvReport, has_as_many_fields_in_every_row_and_quotes_them) {
    const std::string csv = csv_of(report_of(
        1000, {span(0, 300, active), span(300, 400, failed, "a, \"b\"\n"), span(400, 800, active)},
        {minute(0, 30, 30)}));
    EXPECT_NE(csv.find("\"a, \"\"b\"\"\\x0a\"\r\n"), std::string::npos);
    EXPECT_NE(csv.find("\r\nunwatched,eth0,4,,"), std::string::npos);
    std::istringstream lines(csv);
    int rows = 0;
    for (std::string line; std::getline(lines, line); ++rows) {
        bool is_quoted = false;
        int commas = 0;
        for (const char character : line) {
            is_quoted = is_quoted != (character == '"');
            commas += character == ',' && !is_quoted ? 1 : 0;
        }
        EXPECT_EQ(commas, 19) << line;
    }
    EXPECT_EQ(rows, 5);
}

/// The fields of the first row of a kind that are not empty, by their columns.
std::map<std::string, std::string> fields_of(const std::string& csv, const std::string& kind) {
    const auto fields = [](const std::string& line) {
        std::vector<std::string> all;
        std::istringstream stream(line);
        for (std::string field; std::getline(stream, field, ',');) {
            all.push_back(field);
        }
        return all;
    };
    const std::vector<std::string> columns = fields(csv.substr(0, csv.find("\r\n")));
    const std::size_t begin = csv.find("\r\n" + kind + ",") + 2;
    const std::vector<std::string> row = fields(csv.substr(begin, csv.find("\r\n", begin) - begin));
    std::map<std::string, std::string> found;
    for (std::size_t i = 0; i < row.size(); ++i) {
        if (!row[i].empty()) {
            found[columns.at(i)] = row[i];
        }
    }
    return found;
}

TEST(LbwatchCsvReport, has_each_figure_in_its_column) {
    const std::string csv = csv_of(report_of(
        1000,
        {span(0, 300, active), span(300, 400, failed, "silent"), span(400, 500, active),
         span(500, 550, failed), span(550, 600, active), span(600, 700, UplinkState::unknown)},
        {minute(0, 30, 30), minute(1, 15, 5)}));
    using Fields = std::map<std::string, std::string>;
    EXPECT_EQ(fields_of(csv, "uplink"), (Fields{{"record", "uplink"},
                                                {"uplink", "eth0"},
                                                {"family", "4"},
                                                {"begin", "2026-11-21T12:00:00.000Z"},
                                                {"end", "2026-11-21T12:16:40.000Z"},
                                                {"seconds", "1000"},
                                                {"availability_percent", "75.000"},
                                                {"active_s", "450"},
                                                {"failed_s", "150"},
                                                {"unknown_s", "100"},
                                                {"unwatched_s", "300"},
                                                {"outages", "2"},
                                                {"flaps", "4"},
                                                {"longest_s", "100"},
                                                {"mean_between_s", "225"},
                                                {"mean_repair_s", "75"},
                                                {"answered", "45"},
                                                {"missed", "35"}}));
    EXPECT_EQ(fields_of(csv, "outage"), (Fields{{"record", "outage"},
                                                {"uplink", "eth0"},
                                                {"family", "4"},
                                                {"begin", "2026-11-21T12:05:00.000Z"},
                                                {"end", "2026-11-21T12:06:40.000Z"},
                                                {"seconds", "100"},
                                                {"reason", "silent"}}));
    EXPECT_EQ(fields_of(csv, "unwatched"), (Fields{{"record", "unwatched"},
                                                   {"uplink", "eth0"},
                                                   {"family", "4"},
                                                   {"begin", "2026-11-21T12:11:40.000Z"},
                                                   {"end", "2026-11-21T12:16:40.000Z"},
                                                   {"seconds", "300"}}));
    EXPECT_EQ(fields_of(csv, "hour"), (Fields{{"record", "hour"},
                                              {"uplink", "eth0"},
                                              {"family", "4"},
                                              {"begin", "0"},
                                              {"answered", "30"},
                                              {"missed", "30"}}));
}

TEST(LbwatchJsonReport, tells_what_is_not_known_as_null) {
    const std::string json = json_of(report_of(10, {span(0, 10, UplinkState::unknown)}));
    EXPECT_NE(json.find("\"availability_percent\":null"), std::string::npos);
    EXPECT_NE(json.find("\"mean_between_s\":null"), std::string::npos);
}

/// A day of an uplink that begins active, failed for the latter seconds of each `every_s`.
UplinkReport flapping(int every_s, int failed_s) {
    UplinkReport uplink;
    for (int begin_s = 0; begin_s + every_s <= 86'400; begin_s += every_s) {
        const std::int64_t begin_ms = at(begin_s).wall_ms;
        const std::int64_t end_ms = at(begin_s + every_s).wall_ms;
        const std::int64_t failed_ms = end_ms - failed_s * 1000;
        uplink.pieces.push_back(
            {.begin_ms = begin_ms, .end_ms = failed_ms, .known = Known::active, .reason = ""});
        uplink.pieces.push_back(
            {.begin_ms = failed_ms, .end_ms = end_ms, .known = Known::failed, .reason = "why"});
    }
    return uplink;
}

int count_of(const std::string& text, const std::string& words) {
    int count = 0;
    for (std::size_t found = text.find(words); found != std::string::npos;
         found = text.find(words, found + 1)) {
        ++count;
    }
    return count;
}

TEST(LbwatchBand, shows_each_outage_however_short) {
    const std::string drawn = band(flapping(7200, 5), at(0).wall_ms, at(86'400).wall_ms, "");
    EXPECT_EQ(count_of(drawn, "class=\"failed\""), 12);
    EXPECT_EQ(count_of(drawn, "class=\"active\""), 12);
    EXPECT_EQ(count_of(drawn, "(5s): why</title>"), 12);
}

TEST(LbwatchBand, of_a_line_that_flaps_all_day_is_drawn_by_few_rectangles) {
    const std::string drawn = band(flapping(10, 4), at(0).wall_ms, at(86'400).wall_ms, "");
    const int outages = count_of(drawn, "class=\"failed\"");
    EXPECT_GT(outages, 200);
    EXPECT_LT(outages, 500);
    EXPECT_EQ(count_of(drawn, "class=\"active\""), outages);
    EXPECT_EQ(count_of(drawn, "failed 34 times, "), outages - 1);
}

TEST(LbwatchBand, of_very_many_pieces_shows_what_nobody_watched) {
    UplinkReport uplink;
    for (int i = 0; i < 120; ++i) {
        uplink.pieces.push_back(
            {.begin_ms = at(i).wall_ms,
             .end_ms = at(i + 1).wall_ms,
             .known = std::array{Known::active, Known::unwatched,
                                 Known::unknown}[static_cast<std::size_t>(i) % 3],
             .reason = ""});
    }
    const std::string drawn = band(uplink, at(0).wall_ms, at(86'400).wall_ms, "");
    EXPECT_EQ(count_of(drawn, "<rect"), 1);
    EXPECT_EQ(count_of(drawn, "class=\"unwatched\""), 1);
}

TEST(LbwatchHtmlReport, needs_no_network_and_no_script_and_escapes_everything) {
    Span evil = span(0, 10, failed, "<script>alert(1)</script>");
    evil.uplink.name = "<img src=x onerror=alert(1)>";
    const std::string page = html_of(report_of(100, {evil, span(20, 100, active)}));
    EXPECT_EQ(page.find("<script"), std::string::npos);
    EXPECT_EQ(page.find("<img"), std::string::npos);
    EXPECT_EQ(page.find("http:"), std::string::npos);
    EXPECT_EQ(page.find("https:"), std::string::npos);
    EXPECT_NE(page.find("&lt;img src=x onerror=alert(1)&gt;"), std::string::npos);
    EXPECT_NE(page.find("class=\"unwatched\""), std::string::npos);
}

/// A report whose pieces follow each other, each an hour long, the last up to now.
UplinkReport hours(std::initializer_list<Known> known) {
    UplinkReport uplink;
    std::int64_t begin_ms = 0;
    for (const Known one : known) {
        uplink.pieces.push_back(
            {.begin_ms = begin_ms, .end_ms = begin_ms + 3'600'000, .known = one, .reason = ""});
        begin_ms += 3'600'000;
    }
    return uplink;
}

TEST(LbwatchPast, tells_how_long_the_state_has_lasted_and_how_often_it_changed_today) {
    const auto uplink =
        hours({Known::active, Known::failed, Known::active, Known::failed, Known::active});
    const auto past = past_of(uplink, true, 2 * 3'600'000);
    ASSERT_TRUE(past);
    EXPECT_EQ(past->since_s, 3600);
    EXPECT_TRUE(past->is_begin_seen);
    EXPECT_EQ(past->flaps_today, 3);
}

TEST(LbwatchPast, state_behind_a_gap_has_lasted_at_least_so_long) {
    const auto past = past_of(hours({Known::active, Known::unwatched, Known::active}), true, 0);
    ASSERT_TRUE(past);
    EXPECT_EQ(past->since_s, 3600);
    EXPECT_FALSE(past->is_begin_seen);
    EXPECT_EQ(past->flaps_today, 0);
}

TEST(LbwatchPast, uplink_that_nobody_watches_now_has_none) {
    EXPECT_FALSE(past_of(hours({Known::active, Known::unwatched}), true, 0));
    EXPECT_FALSE(past_of(hours({Known::active, Known::unknown}), false, 0));
    EXPECT_FALSE(past_of(hours({Known::failed}), true, 0));
    EXPECT_FALSE(past_of({}, true, 0));
}

}  // namespace

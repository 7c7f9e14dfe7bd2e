// What lbsim replays of a recorded night, and what it makes of other counts.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "lbsim/history.h"
#include "lbsim/session.h"
#include "lbsim/tune.h"
#include "lbwatch/history.h"

namespace {

using namespace lbsim;

constexpr std::int64_t night_ms = 1'763'690'000'000;

std::string error_of(const std::string& line) {
    const ParsedHistory parsed = parse_csv(line);
    return parsed.errors.size() != 1 ? std::to_string(parsed.errors.size()) + " errors"
                                     : std::to_string(parsed.errors[0].line) + ": '" +
                                           parsed.errors[0].word + "' " + parsed.errors[0].reason;
}

TEST(Csv, has_a_cycle_a_line_with_or_without_its_head) {
    const auto parsed = parse_csv(
        "time,uplink,family,target,answered\r\n1763690000.5,gi1_1,4,203.0.113.1,1\r\n\n"
        "2025-11-21T01:53:22Z, \"gi1_2\", ipv6, 2001:DB8::1, no\n");
    ASSERT_TRUE(parsed.errors.empty());
    ASSERT_EQ(parsed.observations.size(), 2);
    EXPECT_EQ(parsed.observations[0].at_ms, night_ms + 500);
    EXPECT_EQ(parsed.observations[0].answered, 1);
    EXPECT_EQ(parsed.observations[0].missed, 0);
    EXPECT_EQ(parsed.observations[1].at_ms, night_ms + 2000);
    EXPECT_EQ(parsed.observations[1].uplink, "gi1_2");
    EXPECT_TRUE(parsed.observations[1].is_ipv6);
    EXPECT_EQ(parsed.observations[1].target, "2001:db8::1");
    EXPECT_EQ(parsed.observations[1].missed, 1);
}

TEST(Csv, names_line_and_word_of_an_error) {
    EXPECT_EQ(error_of("\nyesterday,gi1_1,4,203.0.113.1,1"),
              "2: 'yesterday' seconds since the epoch are wanted, or 2026-11-21T02:05:00Z");
    EXPECT_EQ(error_of("1,gi1_1,5,203.0.113.1,1"), "1: '5' a family is wanted: 4 or 6");
    EXPECT_EQ(error_of("1,gi1_1,6,203.0.113.1,1"),
              "1: '203.0.113.1' the address of a target of that family is wanted");
    EXPECT_EQ(error_of("1,gi1_1,4,203.0.113.1,maybe"), "1: 'maybe' 1 is wanted, or 0");
    EXPECT_EQ(error_of("1,,4,203.0.113.1,1"), "1: '' an uplink is wanted");
    EXPECT_EQ(error_of("1,gi1_1,4"),
              "1: '' five fields are wanted: time,uplink,family,target,answered");
    EXPECT_EQ(error_of("-1,gi1_1,4,203.0.113.1,1").substr(0, 7), "1: '-1'");
}

TEST(Csv, stops_after_twenty_errors) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "x\n";
    }
    EXPECT_EQ(parse_csv(text).errors.size(), 20);
}

TEST(Time, is_shown_in_utc) {
    EXPECT_EQ(shown_time(night_ms), "2025-11-21T01:53:20Z");
}

TEST(Reason, tells_how_many_results_came_in_a_row) {
    EXPECT_EQ(count_in_a_row("no answer (3 in a row)"), 3);
    EXPECT_EQ(count_in_a_row("loss 40 % (limit 20 %) (12 in a row)"), 12);
    for (const char* text : {"", "no answer", "loss 40 % (limit 20 %)", "(in a row)", "( in a row)",
                             "(0 in a row)", "(-2 in a row)", "(99999999999 in a row)"}) {
        EXPECT_EQ(count_in_a_row(text), 1) << text;
    }
}

/// A file that goes with the test.
struct HistoryFile {
    explicit HistoryFile(const std::string& text) {
        const int descriptor = mkstemp(path.data());
        close(descriptor);
        write_file(path, text);
    }
    ~HistoryFile() { unlink(path.c_str()); }
    HistoryFile(const HistoryFile&) = delete;
    HistoryFile& operator=(const HistoryFile&) = delete;

    std::string path = "/tmp/lbsim_history_XXXXXX";
};

std::string complaint_about(const std::string& path) {
    try {
        read_history(path, {});
    } catch (const Unusable& unusable) {
        return unusable.text;
    }
    return {};
}

TEST(HistoryFiles, that_are_no_use_say_why) {
    EXPECT_EQ(complaint_about("/nonexistent/history.db"),
              "lbsim: /nonexistent/history.db: No such file or directory\n");
    const HistoryFile csv("1,gi1_1,4,203.0.113.1,2\n");
    EXPECT_EQ(complaint_about(csv.path), "lbsim: " + csv.path + ":1: '2': 1 is wanted, or 0\n");
    const HistoryFile damaged("SQLite format 3 and then something else");
    EXPECT_EQ(complaint_about(damaged.path),
              "lbsim: " + damaged.path +
                  " cannot be read (file is not a database); a running lbwatch moves it aside and "
                  "begins a new one\n");
}

lbwatch::Event target_event(std::int64_t at_ms, const char* to, const char* reason) {
    lbwatch::Event event;
    event.time_ms = at_ms;
    event.kind = lbwatch::EventKind::target;
    event.uplink = {.namespace_name = "", .family = 4, .name = "gi1_1"};
    event.target = "203.0.113.1";
    event.to = to;
    event.reason = reason;
    return event;
}

/// What lbwatch itself writes.
struct WrittenHistory : testing::Test {
    WrittenHistory() {
        std::string made = "/tmp/lbsim_history_XXXXXX";
        folder = mkdtemp(made.data());
        path = folder + "/history.db";
        lbwatch::History history(path, [](const std::string& line) { ADD_FAILURE() << line; });
        const lbwatch::UplinkKey ipv4{.namespace_name = "", .family = 4, .name = "gi1_1"};
        const lbwatch::UplinkKey ipv6{.namespace_name = "", .family = 6, .name = "gi1_1"};
        history.add(std::vector<lbwatch::Minute>{
            {.minute = 29394833,
             .uplink = ipv4,
             .target = "203.0.113.1",
             .answered = 58,
             .missed = 2},
            {.minute = 29394834, .uplink = ipv6, .target = "2001:DB8::1", .missed = 60},
            {.minute = 29394835, .uplink = ipv4, .target = "203.0.113.1"},
            {.minute = 29394900, .uplink = ipv4, .target = "203.0.113.1", .answered = 60}});
        history.add(target_event(night_ms, "failure", "no answer (3 in a row)"));
        history.add(target_event(night_ms + 20'000, "success", "answered (2 in a row)"));
        history.add(std::vector<lbwatch::Span>{{.uplink = ipv4,
                                                .state = lbwatch::UplinkState::unknown,
                                                .begin_ms = night_ms - 9000,
                                                .end_ms = night_ms - 2000,
                                                .reason = ""},
                                               {.uplink = ipv4,
                                                .state = lbwatch::UplinkState::active,
                                                .begin_ms = night_ms - 2000,
                                                .end_ms = night_ms,
                                                .reason = ""}});
        EXPECT_TRUE(history.commit());
    }
    ~WrittenHistory() override { std::filesystem::remove_all(folder); }

    std::string folder;
    std::string path;
};

TEST_F(WrittenHistory, is_read_as_minutes_turns_and_watches) {
    const History read = read_history(path, {.since_ms = {}, .until_ms = 29394900LL * 60'000});
    ASSERT_EQ(read.observations.size(), 2);
    EXPECT_EQ(read.observations[0].at_ms, 29394833LL * 60'000);
    EXPECT_EQ(read.observations[0].uplink, "gi1_1");
    EXPECT_FALSE(read.observations[0].is_ipv6);
    EXPECT_EQ(read.observations[0].target, "203.0.113.1");
    EXPECT_EQ(read.observations[0].answered, 58);
    EXPECT_EQ(read.observations[0].missed, 2);
    EXPECT_TRUE(read.observations[1].is_ipv6);
    EXPECT_EQ(read.observations[1].target, "2001:db8::1");
    ASSERT_EQ(read.turns.size(), 2);
    EXPECT_EQ(read.turns[0].at_ms, night_ms);
    EXPECT_FALSE(read.turns[0].is_success);
    EXPECT_EQ(read.turns[0].in_a_row, 3);
    EXPECT_TRUE(read.turns[1].is_success);
    EXPECT_EQ(read.turns[1].in_a_row, 2);
    ASSERT_EQ(read.watches.size(), 1);  // an uplink that nobody has judged is not known
    EXPECT_EQ(read.watches[0].begin_ms, night_ms - 2000);
    EXPECT_EQ(read.watches[0].end_ms, night_ms);
}

TEST_F(WrittenHistory, of_a_newer_version_is_refused) {
    lbwatch::Database(path, SQLITE_OPEN_READWRITE).run("PRAGMA user_version = 99");
    EXPECT_EQ(
        complaint_about(path),
        "lbsim: " + path + " was written by a newer version of lbwatch; read it with that one\n");
}

Trial trial_with(std::optional<int> failure_ct, std::int64_t left_after_s, int flaps) {
    Trial trial;
    trial.setting.failure_ct = failure_ct;
    trial.deaths = {.all = 3,
                    .left = 2,
                    .left_after_us = 2 * left_after_s * 1'000'000,
                    .longest_us = left_after_s * 1'000'000};
    trial.all.flaps = flaps;
    return trial;
}

TEST(Tuning, tries_each_count_with_the_other_one_as_configured) {
    const auto settings = settings_to_try();
    EXPECT_EQ(settings.size(), 17);
    EXPECT_TRUE(settings[0].is_present());
    EXPECT_EQ(settings[1].failure_ct, 1);
    EXPECT_EQ(settings[1].success_ct, std::nullopt);
    EXPECT_EQ(settings[16].success_ct, 10);
}

TEST(Tuning, says_how_many_runs_it_made_and_marks_the_present_settings) {
    const std::string text = tuning_text({trial_with({}, 10, 4), trial_with(6, 20, 0)}, 60'000'000);
    EXPECT_TRUE(text.starts_with("2 runs of 1m each, in the same world with the same draws:\n"));
    EXPECT_NE(text.find("@    as it is    as it is             10.0 s     10.0 s           1"),
              std::string::npos)
        << text;
    // Half way to the slowest, at the most flaps; and the slowest without any.
    EXPECT_NE(text.find("     4 |" + std::string(30, ' ') + "@\n"), std::string::npos) << text;
    EXPECT_NE(text.find("     0 |" + std::string(60, ' ') + "f\n"), std::string::npos) << text;
}

Row row_of(std::int64_t at_s, Condition condition, bool was_active,
           std::optional<std::int64_t> state_after_s) {
    Row row{.at_us = at_s * 1'000'000, .condition = condition, .was_active = was_active};
    if (state_after_s) {
        row.state_after_us = *state_after_s * 1'000'000;
    }
    return row;
}

TEST(Tuning, sums_up_all_rows_and_uplinks) {
    Summary summary;
    summary.rows = {row_of(10, Condition::dead, true, 5), row_of(20, Condition::good, false, 9)};
    summary.rows[1].flaps = 2;
    summary.uplinks.resize(2);
    summary.uplinks[0].changes = 3;
    summary.uplinks[1].changes = 4;
    const Trial trial = trial_of({}, summary);
    EXPECT_EQ(trial.deaths.all, 1);
    EXPECT_EQ(trial.deaths.left, 1);
    EXPECT_EQ(trial.deaths.left_after_us, 5'000'000);
    EXPECT_EQ(trial.all.flaps, 2);
    EXPECT_EQ(trial.changes, 7);
}

TEST(Tuning, counts_deaths_of_active_uplinks_whatever_they_died_of) {
    Summary summary;
    Row of_its_only_target = row_of(30, Condition::dead, true, 20);
    of_its_only_target.is_expected = false;
    Row of_another = row_of(160, Condition::dead, true, 7);
    of_another.uplink = 1;
    summary.rows = {
        row_of(0, Condition::dead, false, {}),   of_its_only_target,
        row_of(90, Condition::good, false, 8),   row_of(150, Condition::dead, true, {}),
        row_of(155, Condition::good, true, {}),  of_another,
        row_of(200, Condition::dead, true, {}),  row_of(205, Condition::good, true, {}),
        row_of(300, Condition::dead, false, {}), row_of(310, Condition::dead, false, 3)};
    const Trial trial = trial_of({}, summary);
    EXPECT_EQ(trial.deaths.all, 4);
    EXPECT_EQ(trial.deaths.left, 2);
    EXPECT_EQ(trial.deaths.never_left(), 2);
    EXPECT_EQ(trial.deaths.left_after_us, 27'000'000);
    EXPECT_EQ(trial.deaths.longest_us, 20'000'000);
}

TEST(Tuning, takes_what_happens_within_a_death_for_a_part_of_it) {
    Summary summary;
    summary.rows = {row_of(10, Condition::dead, true, {}), row_of(14, Condition::dead, true, 3),
                    row_of(30, Condition::dead, false, {}), row_of(40, Condition::good, false, 8)};
    const Trial trial = trial_of({}, summary);
    EXPECT_EQ(trial.deaths.all, 1);
    EXPECT_EQ(trial.deaths.left, 1);
    EXPECT_EQ(trial.deaths.left_after_us, 7'000'000);
}

}  // namespace

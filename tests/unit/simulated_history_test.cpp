// What lbsim replays of a recorded night, and what it makes of other counts.

#include <gtest/gtest.h>
#ifdef LB_SQLITE
#include <sqlite3.h>
#endif
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "lbsim/history.h"
#include "lbsim/session.h"
#include "lbsim/tune.h"

namespace {

using namespace lbsim;

constexpr std::int64_t night_ms = 1'763'690'000'000;

std::string error_of(const std::string& line) {
    const ParsedHistory parsed = parse_csv(line);
    return parsed.errors.size() != 1 ? std::to_string(parsed.errors.size()) + " errors"
                                     : std::to_string(parsed.errors[0].line) + ": '" +
                                           parsed.errors[0].word + "' " + parsed.errors[0].reason;
}

Observation seen(std::int64_t at_s, int answered, int missed, const char* target = "203.0.113.1") {
    Observation observation;
    observation.at_ms = night_ms + at_s * 1000;
    observation.uplink = "gi1_1";
    observation.target = target;
    observation.answered = answered;
    observation.missed = missed;
    return observation;
}

std::vector<Uplink> one_uplink() {
    std::vector<Uplink> uplinks(1);
    uplinks[0].name = "gi1_1";
    uplinks[0].targets = {"203.0.113.1"};
    return uplinks;
}

std::string scenario_text(const Replayed& replayed) {
    std::string text;
    for (const Event& event : replayed.scenario) {
        text += shown_duration(event.at_us) + " " + event.text + "\n";
    }
    return text;
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

TEST(Time, is_an_age_a_date_or_seconds) {
    EXPECT_EQ(parse_time("12h", night_ms), night_ms - 43'200'000);
    EXPECT_EQ(parse_time("1763690000", 0), night_ms);
    EXPECT_EQ(parse_time("2025-11-21T01:53:20Z", 0), night_ms);
    EXPECT_EQ(parse_time("2025-11-21T01:53Z", 0), night_ms - 20'000);
    EXPECT_TRUE(parse_time("2025-11-21", 0));
    EXPECT_EQ(parse_time("2025-11-31x", 0), std::nullopt);
    EXPECT_EQ(parse_time("now", 0), std::nullopt);
    EXPECT_EQ(shown_time(night_ms), "2025-11-21T01:53:20Z");
}

TEST(Replay, tells_changes_only) {
    const auto replayed = replay_of(
        {seen(0, 1, 0), seen(2, 1, 0), seen(4, 0, 1), seen(6, 0, 1), seen(8, 1, 0), seen(10, 1, 0)},
        {}, one_uplink());
    EXPECT_EQ(scenario_text(replayed),
              "4s gi1_1 ipv4 target 203.0.113.1 dead\n8s gi1_1 ipv4 target 203.0.113.1 alive\n");
    EXPECT_EQ(replayed.begin_ms, night_ms);
    EXPECT_EQ(replayed.duration_us, 70'000'000);
    EXPECT_TRUE(replayed.doubts.empty());
}

TEST(Replay, takes_a_minute_in_which_some_cycles_were_missed_for_a_loss) {
    const auto replayed = replay_of(
        {seen(0, 60, 0), seen(60, 45, 15), seen(120, 0, 60), seen(180, 59, 0)}, {}, one_uplink());
    EXPECT_EQ(scenario_text(replayed),
              "1m gi1_1 ipv4 target 203.0.113.1 loss 25%\n2m gi1_1 ipv4 target 203.0.113.1 dead\n"
              "3m gi1_1 ipv4 target 203.0.113.1 alive\n");
}

TEST(Replay, of_a_period_begins_with_what_was_seen_last_before_it) {
    const auto replayed =
        replay_of({seen(0, 1, 0), seen(10, 0, 1), seen(40, 1, 0), seen(90, 0, 1)},
                  {.since_ms = night_ms + 20'000, .until_ms = night_ms + 80'000}, one_uplink());
    EXPECT_EQ(scenario_text(replayed),
              "0s gi1_1 ipv4 target 203.0.113.1 dead\n20s gi1_1 ipv4 target 203.0.113.1 alive\n");
    EXPECT_EQ(replayed.duration_us, 60'000'000);
}

TEST(Replay, says_what_the_history_does_not_tell) {
    auto uplinks = one_uplink();
    uplinks[0].targets.emplace_back("203.0.113.2");
    const auto replayed =
        replay_of({seen(0, 1, 0), seen(600, 1, 0), seen(0, 1, 0, "203.0.113.9")}, {}, uplinks);
    EXPECT_EQ(replayed.doubts,
              (std::vector<std::string>{
                  "gi1_1 ipv4 target 203.0.113.1: nothing was recorded for 10m; taken to be as it "
                  "was before",
                  "gi1_1 ipv4 target 203.0.113.9: recorded, but not asked by this configuration",
                  "gi1_1 ipv4 target 203.0.113.2: never recorded; taken to answer always"}));
}

TEST(Replay, of_nothing_is_nothing) {
    EXPECT_TRUE(replay_of({}, {}, one_uplink()).scenario.empty());
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
}

#ifdef LB_SQLITE
TEST(HistoryFiles, that_only_look_like_a_database_say_so) {
    const HistoryFile damaged("SQLite format 3 and then something else");
    EXPECT_EQ(complaint_about(damaged.path),
              "lbsim: " + damaged.path + ": file is not a database\n");
}

/// The tables that lbwatch(8) writes, as far as they are read.
constexpr const char* database =
    "CREATE TABLE uplink (id INTEGER PRIMARY KEY, namespace TEXT, family INTEGER, name TEXT);"
    "CREATE TABLE target (id INTEGER PRIMARY KEY, uplink INTEGER, address TEXT);"
    "CREATE TABLE minute (minute INTEGER, target INTEGER, answered INTEGER, missed INTEGER, "
    "measured INTEGER, loss INTEGER, rtt INTEGER, jitter INTEGER, PRIMARY KEY (minute, target)) "
    "WITHOUT ROWID;"
    "INSERT INTO uplink VALUES (1, '', 4, 'gi1_1'), (2, '', 6, 'gi1_1');"
    "INSERT INTO target VALUES (1, 1, '203.0.113.1'), (2, 2, '2001:DB8::1');"
    "INSERT INTO minute VALUES (29394833, 1, 58, 2, 0, 0, 0, 0), (29394834, 2, 0, 60, 0, 0, 0, 0),"
    "(29394835, 1, 0, 0, 0, 0, 0, 0), (29394900, 1, 60, 0, 0, 0, 0, 0);";

TEST(HistoryFiles, of_lbwatch_are_read_minute_by_minute) {
    const HistoryFile file("");
    sqlite3* made = nullptr;
    ASSERT_EQ(sqlite3_open(file.path.c_str(), &made), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(made, database, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(made);
    const auto read = read_history(file.path, {.since_ms = {}, .until_ms = 29394900LL * 60'000});
    ASSERT_EQ(read.size(), 2);
    EXPECT_EQ(read[0].at_ms, 29394833LL * 60'000);
    EXPECT_EQ(read[0].uplink, "gi1_1");
    EXPECT_FALSE(read[0].is_ipv6);
    EXPECT_EQ(read[0].target, "203.0.113.1");
    EXPECT_EQ(read[0].answered, 58);
    EXPECT_EQ(read[0].missed, 2);
    EXPECT_TRUE(read[1].is_ipv6);
    EXPECT_EQ(read[1].target, "2001:db8::1");
}
#endif

Trial trial_with(std::optional<int> failure_ct, std::int64_t left_after_s, int flaps) {
    Trial trial;
    trial.setting.failure_ct = failure_ct;
    trial.dead.asked = 3;
    trial.dead.followed = 2;
    trial.dead.state_after_us = 2 * left_after_s * 1'000'000;
    trial.dead.longest_state_after_us = left_after_s * 1'000'000;
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

TEST(Tuning, counts_the_rows_in_which_an_uplink_died) {
    Summary summary;
    Row dead;
    dead.condition = Condition::dead;
    dead.state_after_us = 5'000'000;
    Row good;
    good.state_after_us = 9'000'000;
    good.flaps = 2;
    summary.rows = {dead, good};
    summary.uplinks.resize(2);
    summary.uplinks[0].changes = 3;
    summary.uplinks[1].changes = 4;
    const Trial trial = trial_of({}, summary);
    EXPECT_EQ(trial.dead.followed, 1);
    EXPECT_EQ(trial.dead.state_after_us, 5'000'000);
    EXPECT_EQ(trial.all.flaps, 2);
    EXPECT_EQ(trial.changes, 7);
}

}  // namespace

#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "lbwatch/history.h"
#include "lbwatch/history_reader.h"
#include "lbwatch/records.h"
#include "lbwatch/session.h"
#include "lbwatch/sqlite.h"
#include "lbwatch/uplink_past.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

World::Uplinks uplinks(std::initializer_list<std::pair<const char*, UplinkState>> states) {
    World::Uplinks made;
    for (const auto& [name, state] : states) {
        made[key(name)].state = state;
        made[key(name)].has_been_read = true;
    }
    return made;
}

constexpr auto active = UplinkState::active;
constexpr auto failed = UplinkState::failed;
constexpr std::int64_t patience = 30'000;

TEST(LbwatchSpans, grow_while_the_state_holds_and_end_where_the_next_begins) {
    SpanRecorder recorder(4);
    recorder.see(uplinks({{"eth0", active}}), patience, at(0));
    recorder.see(uplinks({{"eth0", active}}), patience, at(1));
    recorder.see(uplinks({{"eth0", failed}}), patience, at(2));
    const auto spans = recorder.take();
    ASSERT_EQ(spans.size(), 2U);
    EXPECT_EQ(spans[0].state, active);
    EXPECT_EQ(spans[0].begin_ms, at(0).wall_ms);
    EXPECT_EQ(spans[0].end_ms, at(2).wall_ms);
    EXPECT_EQ(spans[1].begin_ms, at(2).wall_ms);
    EXPECT_TRUE(recorder.take().empty());
}

TEST(LbwatchSpans, ended_and_open_ones_can_be_looked_at_before_they_are_taken) {
    SpanRecorder recorder(4);
    recorder.see(uplinks({{"eth0", active}}), patience, at(0));
    recorder.see(uplinks({{"eth0", failed}}), patience, at(2));
    recorder.see(uplinks({{"eth0", failed}}), patience, at(5));
    ASSERT_EQ(recorder.ended().size(), 1U);
    EXPECT_EQ(recorder.ended()[0].state, active);
    ASSERT_EQ(recorder.open().size(), 1U);
    EXPECT_EQ(recorder.open()[0].state, failed);
    EXPECT_EQ(recorder.open()[0].end_ms, at(5).wall_ms);
    EXPECT_EQ(recorder.take().size(), 2U);
    EXPECT_TRUE(recorder.ended().empty());
    EXPECT_EQ(recorder.open().size(), 1U);
}

TEST(LbwatchSpans, time_that_nobody_watched_is_covered_by_none) {
    SpanRecorder recorder(4);
    recorder.see(uplinks({{"eth0", active}}), patience, at(0));
    recorder.see(uplinks({{"eth0", active}}), patience, at(31));
    recorder.see(uplinks({{"eth0", active}}), patience, at(32));
    const auto spans = recorder.take();
    ASSERT_EQ(spans.size(), 2U);
    EXPECT_EQ(spans[0].end_ms, at(0).wall_ms);
    EXPECT_EQ(spans[1].begin_ms, at(31).wall_ms);
}

TEST(LbwatchSpans, clock_that_is_set_leaves_a_gap_and_never_a_wrong_length) {
    SpanRecorder recorder(4);
    Moment now = at(0);
    recorder.see(uplinks({{"eth0", active}}), patience, now);
    now = {.wall_ms = at(1).wall_ms - 3'600'000, .boot_ms = at(1).boot_ms};
    recorder.see(uplinks({{"eth0", active}}), patience, now);
    for (const Span& span : recorder.take()) {
        EXPECT_EQ(span.end_ms, span.begin_ms);
    }
}

TEST(LbwatchSpans, other_family_is_not_seen) {
    SpanRecorder recorder(6);
    recorder.see(uplinks({{"eth0", active}}), patience, at(0));
    EXPECT_TRUE(recorder.take().empty());
}

TEST(LbwatchMinutes, cycles_are_added_up_and_given_once) {
    MinuteRecorder recorder;
    const Cycle answer{.uplink = key("eth0"),
                       .target = "a",
                       .is_answered = true,
                       .quality = dumps::Quality{.loss_percent = 10, .rtt_ms = 30, .jitter_ms = 4}};
    const Cycle miss{.uplink = key("eth0"), .target = "a", .is_answered = false, .quality = {}};
    recorder.add({answer}, at(1));
    recorder.add({answer}, at(2));
    recorder.add({miss}, at(3));
    EXPECT_TRUE(recorder.take(at(59), false).empty());
    const auto rows = recorder.take(at(60), false);
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].answered, 2);
    EXPECT_EQ(rows[0].missed, 1);
    EXPECT_EQ(rows[0].measured, 2);
    EXPECT_EQ(rows[0].rtt_ms_sum, 60);
    EXPECT_EQ(rows[0].minute, at(0).wall_ms / 60'000);
    EXPECT_TRUE(recorder.take(at(61), true).empty());
}

class LbwatchHistory : public testing::Test {
  protected:
    LbwatchHistory()
        : folder(std::filesystem::temp_directory_path() /
                 ("lbwatch_history_" + std::to_string(getpid()))) {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
        path = folder / "history.db";
    }
    ~LbwatchHistory() override { std::filesystem::remove_all(folder); }

    History::Notice notice() {
        return [this](const std::string& line) { notices.push_back(line); };
    }
    static Event event(double second, std::string from, std::string to) {
        Event made;
        made.time_ms = at(second).wall_ms;
        made.uplink = key("eth0");
        made.from = std::move(from);
        made.to = std::move(to);
        made.after_s = 12;
        made.reason = "why";
        return made;
    }
    std::vector<Event> told() const {
        HistoryReader reader(path);
        EXPECT_EQ(reader.problem(), "");
        return reader.latest(100);
    }
    std::vector<std::filesystem::path> damaged() const {
        std::vector<std::filesystem::path> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().filename().string().starts_with("history.db.damaged-")) {
                found.push_back(entry.path());
            }
        }
        return found;
    }
    void write(const std::string& bytes, std::streamoff offset = 0) const {
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        if (!file) {
            file.open(path, std::ios::out | std::ios::binary);
        }
        file.seekp(offset);
        file << bytes;
    }

    std::filesystem::path folder;
    std::filesystem::path path;
    std::vector<std::string> notices;
};

TEST_F(LbwatchHistory, events_come_back_as_they_were) {
    Event routes = event(2, "eth0, eth1", "eth1");
    routes.kind = EventKind::routes;
    routes.uplink.name.clear();
    routes.rule = "1_ipv4";
    routes.destinations = {"10.0.0.0/8", "0.0.0.0/0"};
    routes.after_s.reset();
    {
        History history(path, notice());
        history.add(event(1, "active", "failed"));
        history.add(routes);
        EXPECT_TRUE(history.commit());
        EXPECT_EQ(told(), (std::vector<Event>{event(1, "active", "failed"), routes}));
    }
    EXPECT_EQ(told().size(), 2U);
    EXPECT_TRUE(notices.empty());
}

TEST_F(LbwatchHistory, states_told_last_are_remembered_and_absent_ones_are_not) {
    Event daemon = event(3, "running", "stopped");
    daemon.kind = EventKind::daemon;
    {
        History history(path, notice());
        history.add(event(1, "absent", "active"));
        history.add(event(2, "active", "failed"));
        history.add(daemon);
        Event gone = event(4, "active", "absent");
        gone.uplink.name = "eth1";
        history.add(gone);
        history.commit();
    }
    const History again(path, notice());
    ASSERT_EQ(again.remembered().uplinks.size(), 1U);
    EXPECT_EQ(again.remembered().uplinks.at(key("eth0")), UplinkState::failed);
    EXPECT_EQ(again.remembered().daemon, DaemonState::stopped);
}

TEST_F(LbwatchHistory, minutes_of_two_runs_are_added_up_and_open_spans_grow) {
    const Minute row{.minute = 10,
                     .uplink = key("eth0"),
                     .target = "a",
                     .answered = 3,
                     .missed = 1,
                     .measured = 2,
                     .loss_percent_sum = 20,
                     .rtt_ms_sum = 60,
                     .jitter_ms_sum = 8};
    Span span{.uplink = key("eth0"),
              .state = active,
              .begin_ms = 600'000,
              .end_ms = 610'000,
              .reason = ""};
    for (int run = 0; run < 2; ++run) {
        History history(path, notice());
        history.add(std::vector<Minute>{row});
        history.add(std::vector<Span>{span});
        EXPECT_TRUE(history.commit());
        span.end_ms += 10'000;
    }
    HistoryReader reader(path);
    std::vector<Minute> rows;
    reader.minutes({.since_ms = 0, .until_ms = 700'000, .uplink = ""},
                   [&rows](const Minute& one) { rows.push_back(one); });
    ASSERT_EQ(rows.size(), 1U);
    EXPECT_EQ(rows[0].answered, 6);
    EXPECT_EQ(rows[0].rtt_ms_sum, 120);
    const auto spans = reader.spans({.since_ms = 0, .until_ms = 700'000, .uplink = "eth0"});
    ASSERT_EQ(spans.size(), 1U);
    EXPECT_EQ(spans[0].end_ms, 620'000);
    EXPECT_TRUE(reader.knows("eth0"));
    EXPECT_FALSE(reader.knows("eth9"));
}

TEST_F(LbwatchHistory, file_that_is_no_database_is_kept_aside_and_a_new_one_begun) {
    write("this is a letter, and no database, as anybody can see who reads it");
    History history(path, notice());
    history.add(event(1, "active", "failed"));
    EXPECT_TRUE(history.commit());
    EXPECT_EQ(told().size(), 1U);
    ASSERT_EQ(damaged().size(), 1U);
    std::ifstream kept(damaged().front());
    std::string word;
    kept >> word;
    EXPECT_EQ(word, "this");
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("is damaged"), std::string::npos);
    EXPECT_NE(notices[0].find(damaged().front().string()), std::string::npos);
}

TEST_F(LbwatchHistory, file_damaged_while_it_is_written_loses_nothing_that_waits) {
    {
        History history(path, notice());
        history.add(event(1, "active", "failed"));
        history.commit();
    }
    write(std::string(60'000, 'x'), 4096);
    History history(path, notice());
    history.add(event(2, "failed", "active"));
    EXPECT_TRUE(history.commit());
    EXPECT_EQ(damaged().size(), 1U);
    EXPECT_EQ(told(), std::vector<Event>{event(2, "failed", "active")});
}

TEST_F(LbwatchHistory, file_of_a_newer_version_stays_as_it_is) {
    {
        Database newer(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
        newer.run("CREATE TABLE future (x); PRAGMA user_version = 2");
    }
    const auto size = std::filesystem::file_size(path);
    History history(path, notice());
    history.add(event(1, "active", "failed"));
    EXPECT_FALSE(history.commit());
    EXPECT_EQ(history.waiting(), 1U);
    EXPECT_EQ(std::filesystem::file_size(path), size);
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("newer version"), std::string::npos);
    EXPECT_NE(HistoryReader(path).problem().find("newer version"), std::string::npos);
}

TEST_F(LbwatchHistory, second_writer_keeps_its_history_in_memory) {
    const History first(path, notice());
    History second(path, notice());
    second.add(event(1, "active", "failed"));
    EXPECT_FALSE(second.commit());
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("another lbwatch"), std::string::npos);
    EXPECT_EQ(second.problem(), notices[0]);
    EXPECT_EQ(first.problem(), "");
}

TEST_F(LbwatchHistory, folder_that_cannot_be_made_is_waited_for) {
    const auto wrong = folder / "file" / "history.db";
    std::ofstream(folder / "file") << "x";
    History history(wrong, notice());
    history.add(event(1, "active", "failed"));
    EXPECT_EQ(history.problem(), notices.at(0)) << "at its opening";
    EXPECT_FALSE(history.commit());
    EXPECT_FALSE(history.commit());
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("goes on in memory"), std::string::npos);
    EXPECT_EQ(history.problem(), notices[0]);
    std::filesystem::remove(folder / "file");
    EXPECT_TRUE(history.commit());
    EXPECT_EQ(history.problem(), "");
    EXPECT_EQ(history.lost(), 0U);
    EXPECT_EQ(notices.back(), wrong.string() + " is written again; nothing was lost");
}

TEST_F(LbwatchHistory, file_that_is_deleted_is_begun_anew) {
    History history(path, notice());
    history.add(event(1, "active", "failed"));
    history.commit();
    std::filesystem::remove(path);
    history.add(event(2, "failed", "active"));
    EXPECT_TRUE(history.commit());
    EXPECT_EQ(told().size(), 1U);
}

TEST_F(LbwatchHistory, file_that_another_one_replaces_is_not_written_unseen) {
    const auto backup = folder / "backup.db";
    { const History made(backup, notice()); }
    History history(path, notice());
    history.add(event(1, "active", "failed"));
    history.commit();
    std::filesystem::rename(backup, path);
    history.add(event(2, "failed", "active"));
    EXPECT_TRUE(history.commit());
    const auto kept = told();
    ASSERT_EQ(kept.size(), 1U);
    EXPECT_EQ(kept[0].to, "active");
    EXPECT_EQ(notices.back(), path.string() + " is another file now");
}

TEST_F(LbwatchHistory, file_that_may_not_be_written_is_written_once_it_may) {
    const auto backup = folder / "backup.db";
    { const History made(backup, notice()); }
    std::filesystem::permissions(folder, std::filesystem::perms::all);
    chmod(backup.c_str(), 0444);
    constexpr uid_t nobody = 65534;  // root may write everything
    const auto user_before = static_cast<uid_t>(setfsuid(nobody));
    History history(path, notice());
    history.add(event(1, "active", "failed"));
    history.commit();
    std::filesystem::rename(backup, path);
    history.add(event(2, "failed", "active"));
    EXPECT_FALSE(history.commit());
    EXPECT_NE(notices.back().find("this user may not write it; mend: chown "), std::string::npos)
        << notices.back();
    setfsuid(user_before);
    chmod(path.c_str(), 0666);
    setfsuid(nobody);
    EXPECT_TRUE(history.commit());
    EXPECT_EQ(told().size(), 1U);
    setfsuid(user_before);
}

TEST_F(LbwatchHistory, rows_are_kept_as_long_as_they_are_wanted) {
    History history(path, notice());
    const std::int64_t now_ms = at(0).wall_ms;
    for (const std::int64_t age_ms : {minutes_kept_ms - 60'000, minutes_kept_ms + 120'000}) {
        history.add(std::vector<Minute>{{.minute = (now_ms - age_ms) / 60'000,
                                         .uplink = key("eth0"),
                                         .target = "a",
                                         .answered = 1}});
    }
    Event old = event(0, "active", "failed");
    old.time_ms = now_ms - transitions_kept_ms - 1000;
    history.add(old);
    history.add(event(0, "failed", "active"));
    history.commit();
    history.forget_old(now_ms);
    HistoryReader reader(path);
    int rows = 0;
    reader.minutes({.since_ms = 0, .until_ms = now_ms, .uplink = ""},
                   [&rows](const Minute&) { ++rows; });
    EXPECT_EQ(rows, 1);
    EXPECT_EQ(told().size(), 1U);
    EXPECT_TRUE(notices.empty()) << "nothing goes for want of room";
}

TEST_F(LbwatchHistory, uplink_that_never_rests_does_not_fill_the_disk) {
    Event calm = event(0, "absent", "active");
    calm.uplink.name = "eth1";
    {
        History history(path, notice());
        history.add(calm);
        for (int i = 1; i <= 40; ++i) {
            history.add(
                event(i, i % 2 == 0 ? "failed" : "active", i % 2 == 0 ? "active" : "failed"));
            history.add(std::vector<Span>{{.uplink = key("eth0"),
                                           .state = i % 2 == 0 ? active : failed,
                                           .begin_ms = at(i).wall_ms,
                                           .end_ms = at(i + 1).wall_ms,
                                           .reason = ""}});
        }
        history.commit();
        history.forget_old(at(60).wall_ms, {.events = 10, .spans = 20});
        history.forget_old(at(60).wall_ms, {.events = 10, .spans = 20});
    }
    const auto kept = told();
    ASSERT_EQ(kept.size(), 11U);
    EXPECT_EQ(kept.front(), calm);
    EXPECT_EQ(kept.back(), event(40, "failed", "active"));
    HistoryReader reader(path);
    EXPECT_EQ(reader.spans({.since_ms = 0, .until_ms = at(100).wall_ms, .uplink = ""}).size(), 20U);
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_NE(notices[0].find("holds 10 events, the most that are kept"), std::string::npos);
    const History again(path, [](const std::string&) {});
    EXPECT_EQ(again.remembered().uplinks.size(), 2U);
}

TEST_F(LbwatchHistory, state_of_now_is_known_without_reading_the_years_before) {
    const std::int64_t now_ms = now().wall_ms;
    constexpr std::int64_t hour_ms = 3'600'000;
    {
        History history(path, notice());
        const auto add = [&](const char* name, UplinkState state, std::int64_t begin_h,
                             std::int64_t end_h) {
            history.add(std::vector<Span>{{.uplink = key(name),
                                           .state = state,
                                           .begin_ms = now_ms - begin_h * hour_ms,
                                           .end_ms = now_ms - end_h * hour_ms,
                                           .reason = ""}});
        };
        add("calm", failed, 900, 800);
        add("calm", active, 800, 0);
        for (int hour = 1000; hour > 0; --hour) {
            add("restless", hour % 2 == 0 ? failed : active, hour, hour - 1);
        }
        add("new", active, 700, 0);
        add("gone", active, 900, 600);
        history.commit();
    }
    HistoryReader reader(path);
    EXPECT_LT(reader.recent_spans(now_ms - 24 * hour_ms).size(), 35U);

    dumps::State state;
    for (const char* name : {"calm", "restless", "new", "gone"}) {
        state.interfaces.push_back(interface(name, true, {}));
    }
    EXPECT_EQ(read_past(path, state), "");
    EXPECT_EQ(state.interfaces[0].past->since_s, 800 * 3600);
    EXPECT_TRUE(state.interfaces[0].past->is_begin_seen);
    EXPECT_EQ(state.interfaces[0].past->flaps_today, 0);
    EXPECT_EQ(state.interfaces[1].past->since_s, 3600);
    EXPECT_TRUE(state.interfaces[1].past->is_begin_seen);
    EXPECT_EQ(state.interfaces[2].past->since_s, 700 * 3600);
    EXPECT_FALSE(state.interfaces[2].past->is_begin_seen);
    EXPECT_FALSE(state.interfaces[3].past);
}

TEST_F(LbwatchHistory, reader_that_waits_does_not_keep_the_log_from_being_emptied) {
    History history(path, notice());
    for (int i = 0; i < 1200; ++i) {
        history.add(event(i, "active", "failed"));
    }
    history.commit();
    HistoryReader reader(path);
    int rows = 0;
    reader.events({.since_ms = at(1).wall_ms, .until_ms = at(1101).wall_ms, .uplink = "eth0"},
                  [&](const Event& one) {
                      EXPECT_EQ(one, event(++rows, "active", "failed"));
                      if (rows == 600) {
                          Database writer(path, SQLITE_OPEN_READWRITE);
                          EXPECT_EQ(writer.number("PRAGMA wal_checkpoint(TRUNCATE)"), 0);
                          history.add(event(1100.5, "failed", "active"));
                          history.commit();
                      }
                  });
    EXPECT_EQ(rows, 1100);
    EXPECT_EQ(reader.problem(), "");
}

TEST(LbwatchClock, is_not_trusted_for_a_day_after_it_was_set_by_a_day_or_more) {
    Session session("/nonexistent", [](const std::string&) {});
    const auto look = [&session](const Moment& now) {
        session.tick([] { return DaemonWatch::Evidence::alive; }, now);
        return session.is_clock_trusted(now);
    };
    constexpr std::int64_t day_ms = 86'400'000;
    Moment now = at(0);
    EXPECT_TRUE(look(now));
    now = {.wall_ms = now.wall_ms + 3'600'000, .boot_ms = now.boot_ms + 1000};
    EXPECT_TRUE(look(now));
    for (const std::int64_t step_ms : {day_ms * 4000, -day_ms * 4000}) {
        now = {.wall_ms = now.wall_ms + step_ms, .boot_ms = now.boot_ms + 1000};
        EXPECT_FALSE(look(now));
        now = {.wall_ms = now.wall_ms + day_ms - 1, .boot_ms = now.boot_ms + day_ms - 1};
        EXPECT_FALSE(look(now));
    }
    now = {.wall_ms = now.wall_ms + 1000, .boot_ms = now.boot_ms + 1000};
    EXPECT_TRUE(look(now));
}

TEST_F(LbwatchHistory, file_that_is_not_there_is_a_clear_problem) {
    EXPECT_NE(HistoryReader(path).problem().find("there is no history at"), std::string::npos);
}

TEST_F(LbwatchHistory, rows_that_wait_are_bounded) {
    std::ofstream(folder / "file") << "x";
    History history(folder / "file" / "history.db", notice());
    for (int i = 0; i < 6000; ++i) {
        history.add(event(i, "active", "failed"));
    }
    EXPECT_FALSE(history.commit());
    EXPECT_EQ(history.waiting(), 5000U);
    EXPECT_EQ(history.lost(), 1000U);
    std::filesystem::remove(folder / "file");
    EXPECT_TRUE(history.commit());
    EXPECT_NE(notices.back().find("; 1000 rows were lost"), std::string::npos);
}

TEST_F(LbwatchHistory, minutes_and_spans_that_wait_are_bounded_and_those_lost_are_counted) {
    std::ofstream(folder / "file") << "x";
    History history(folder / "file" / "history.db", notice());
    std::vector<Minute> minutes;
    for (int i = 0; i < 20'003; ++i) {
        minutes.push_back(
            {.minute = 1000 + i, .uplink = key("eth0"), .target = "a", .answered = 1});
    }
    history.add(std::move(minutes));
    std::vector<Span> spans;
    for (int i = 0; i < 5004; ++i) {
        spans.push_back({.uplink = key("eth0"),
                         .state = active,
                         .begin_ms = i * std::int64_t{1000},
                         .end_ms = i * std::int64_t{1000} + 900,
                         .reason = ""});
    }
    history.add(std::move(spans));
    EXPECT_FALSE(history.commit());
    EXPECT_EQ(history.waiting(), 25'000U);
    EXPECT_EQ(history.waiting_spans().size(), 5000U);
    std::filesystem::remove(folder / "file");
    EXPECT_TRUE(history.commit());
    EXPECT_NE(notices.back().find("; 7 rows were lost"), std::string::npos) << notices.back();
    HistoryReader reader((folder / "file" / "history.db").string());
    const auto kept = reader.spans({.since_ms = 0, .until_ms = 10'000'000, .uplink = ""});
    ASSERT_EQ(kept.size(), 5000U);
    EXPECT_EQ(kept.front().begin_ms, 4000) << "the oldest go";
    std::int64_t first = 0;
    reader.minutes({.since_ms = 0, .until_ms = at(0).wall_ms, .uplink = ""},
                   [&first](const Minute& one) { first = first == 0 ? one.minute : first; });
    EXPECT_EQ(first, 1003);
}

}  // namespace

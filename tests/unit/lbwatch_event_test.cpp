#include <gtest/gtest.h>

#include "lbwatch/daemon_watch.h"
#include "lbwatch/event.h"
#include "lbwatch/json.h"
#include "lbwatch/moment.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

Event outage() {
    Event event;
    event.time_ms = at(0).wall_ms + 7;
    event.uplink = key("eth0");
    event.from = "active";
    event.to = "failed";
    event.after_s = 3 * 86400 + 2 * 3600 + 11 * 60 + 5;
    event.reason = "203.0.113.53 no answer (3 in a row)";
    return event;
}

TEST(LbwatchEventLine, tells_uplink_change_length_and_reason) {
    EXPECT_EQ(line_of(outage()),
              "eth0 ipv4 active -> failed after 3d 2h 11m: 203.0.113.53 no answer (3 in a row)");
}

TEST(LbwatchEventLine, names_the_namespace_and_leaves_out_what_is_not_known) {
    Event event = outage();
    event.uplink = key("eth0", 6, "blue");
    event.after_s.reset();
    event.reason.clear();
    EXPECT_EQ(line_of(event), "eth0 ipv6 (blue) active -> failed");
}

TEST(LbwatchEventLine, holds_no_control_character) {
    Event event = outage();
    event.uplink.name = "e\nth\x1b";
    event.reason = "\xff";
    EXPECT_EQ(line_of(event), "e\\x0ath\\x1b ipv4 active -> failed after 3d 2h 11m: \\xff");
}

TEST(LbwatchEventJson, has_every_key_in_one_line) {
    EXPECT_EQ(json_of(outage()),
              "{\"time\":\"2026-11-21T12:00:00.007Z\",\"event\":\"uplink\",\"uplink\":\"eth0\","
              "\"family\":4,\"namespace\":\"\",\"target\":null,\"rule\":null,\"destinations\":null,"
              "\"from\":\"active\",\"to\":\"failed\",\"after_s\":267065,"
              "\"reason\":\"203.0.113.53 no answer (3 in a row)\"}");
}

TEST(LbwatchEventJson, daemon_is_of_no_uplink_and_bytes_are_replaced) {
    Event event = outage();
    event.kind = EventKind::daemon;
    event.uplink.name.clear();
    event.after_s.reset();
    event.reason = "\xff\n";
    const std::string json = json_of(event);
    EXPECT_NE(json.find("\"uplink\":null,\"family\":null,\"namespace\":null"), std::string::npos);
    EXPECT_NE(json.find("\"after_s\":null,\"reason\":\"\xef\xbf\xbd\\n\""), std::string::npos);
    EXPECT_EQ(json.find('\n'), std::string::npos);
}

TEST(LbwatchEventWords, are_read_back) {
    for (const EventKind kind : {EventKind::uplink, EventKind::target, EventKind::nexthop,
                                 EventKind::routes, EventKind::daemon}) {
        EXPECT_EQ(read_kind(word_of(kind)), kind);
    }
    EXPECT_FALSE(read_kind("storm"));
}

TEST(LbwatchLengths, are_told_in_two_or_three_units) {
    EXPECT_EQ(length_text(0), "0s");
    EXPECT_EQ(length_text(59), "59s");
    EXPECT_EQ(length_text(60), "1m 0s");
    EXPECT_EQ(length_text(3599), "59m 59s");
    EXPECT_EQ(length_text(3600), "1h 0m");
    EXPECT_EQ(length_text(86400 + 61), "1d 0h 1m");
}

TEST(LbwatchTimes, are_written_in_utc_also_before_the_epoch) {
    EXPECT_EQ(rfc3339(0), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(rfc3339(-1), "1969-12-31T23:59:59.999Z");
}

TEST(LbwatchClock, step_is_told_from_drift) {
    EXPECT_EQ(clock_step_ms(at(0), at(1)), 0);
    const Moment later{.wall_ms = at(1).wall_ms + 400, .boot_ms = at(1).boot_ms};
    EXPECT_EQ(clock_step_ms(at(0), later), 0);
    const Moment back{.wall_ms = at(1).wall_ms - 3'600'000, .boot_ms = at(1).boot_ms};
    EXPECT_EQ(clock_step_ms(at(0), back), -3'600'000);
}

using Evidence = DaemonWatch::Evidence;

TEST(LbwatchDaemonStates, rewritten_dump_is_a_running_daemon) {
    DaemonWatch watch;
    const auto event = watch.written(at(0));
    ASSERT_TRUE(event);
    EXPECT_EQ(line_of(*event), "daemon unknown -> running");
    EXPECT_FALSE(watch.written(at(1)));
}

TEST(LbwatchDaemonStates, ended_process_is_a_stopped_daemon) {
    DaemonWatch watch;
    watch.written(at(0));
    const auto event = watch.ended("its process 7 has ended", at(10));
    ASSERT_TRUE(event);
    EXPECT_EQ(line_of(*event), "daemon running -> stopped: its process 7 has ended");
    EXPECT_EQ(line_of(*watch.written(at(15))), "daemon stopped -> running after 5s");
}

TEST(LbwatchDaemonStates, silence_with_a_process_is_stale_and_without_one_stopped) {
    DaemonWatch alive;
    alive.written(at(0));
    EXPECT_FALSE(alive.waited(Evidence::alive, 30'000, at(29)));
    EXPECT_EQ(line_of(*alive.waited(Evidence::alive, 30'000, at(30))),
              "daemon running -> stale: no file rewritten for 30s, its process is there");
    DaemonWatch gone;
    gone.written(at(0));
    EXPECT_FALSE(gone.waited(Evidence::none, 30'000, at(2)));
    EXPECT_EQ(line_of(*gone.waited(Evidence::none, 30'000, at(3))),
              "daemon running -> stopped: there is no process of it");
}

TEST(LbwatchDaemonStates, hidden_processes_prove_nothing) {
    DaemonWatch watch;
    watch.written(at(0));
    EXPECT_FALSE(watch.waited(Evidence::unknown, 30'000, at(20)));
    EXPECT_EQ(line_of(*watch.waited(Evidence::unknown, 30'000, at(31))),
              "daemon running -> stale: no file rewritten for 31s");
}

TEST(LbwatchDaemonStates, extended_pings_explain_a_longer_silence) {
    DaemonWatch watch;
    watch.written(at(0));
    EXPECT_FALSE(watch.waited(Evidence::alive, 90'000, at(89)));
    EXPECT_TRUE(watch.waited(Evidence::alive, 90'000, at(90)));
}

TEST(LbwatchDaemonStates, state_of_an_earlier_run_is_no_event_while_it_holds) {
    DaemonWatch same;
    same.remember(DaemonState::running);
    EXPECT_FALSE(same.written(at(0)));
    DaemonWatch changed;
    changed.remember(DaemonState::running);
    EXPECT_FALSE(changed.waited(Evidence::none, 30'000, at(0)));
    EXPECT_EQ(line_of(*changed.waited(Evidence::none, 30'000, at(3))),
              "daemon running -> stopped: there is no process of it");
}

}  // namespace

// The page of what is known now, as its reader sees it.

#include <gtest/gtest.h>

#include "lbwatch/live_page.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

/// An hour of which nothing was recorded.
Report hour() {
    Report report;
    report.since_ms = at(0).wall_ms;
    report.until_ms = at(3600).wall_ms;
    return report;
}

class LbwatchPage : public testing::Test {
  protected:
    std::string page() const { return live_page(view, shown, events, at(3600)); }
    Uplink& uplink(const std::string& name, UplinkState state) {
        Uplink& made = view.uplinks[key(name)];
        made.state = made.told = state;
        return made;
    }
    void expect(const std::string& part) const {
        EXPECT_NE(page().find(part), std::string::npos) << part << "\n" << page();
    }
    void expect_none(const std::string& part) const {
        EXPECT_EQ(page().find(part), std::string::npos) << part << "\n" << page();
    }

    View view{.uplinks = {},
              .rules = {},
              .daemon = DaemonState::running,
              .last_written_boot_ms = {},
              .history = ""};
    Report shown = hour();
    std::vector<Event> events;
};

TEST_F(LbwatchPage, counts_the_active_uplinks_and_tells_its_time) {
    uplink("eth0", UplinkState::active);
    uplink("eth1", UplinkState::failed);
    uplink("eth2", UplinkState::unknown);
    expect("<h1>1 of 3 uplinks active</h1><p class=\"sub\">" + local_time(at(3600).wall_ms) +
           ", the last 60 minutes</p><p class=\"notice\" id=\"connection\" hidden>");
    expect_none("No uplink is known yet");
}

TEST_F(LbwatchPage, tells_the_time_shown_in_hours_from_two_on) {
    shown.since_ms = shown.until_ms - 119 * 60'000;
    expect(", the last 119 minutes</p>");
    shown.since_ms = shown.until_ms - 120 * 60'000;
    expect(", the last 2 hours</p>");
    shown.since_ms = shown.until_ms - 86'400'000;
    expect(", the last 24 hours</p>");
}

TEST_F(LbwatchPage, without_uplinks_and_events_says_so) {
    expect("<h1>0 of 0 uplinks active</h1>");
    expect("<p class=\"none\">No uplink is known yet.</p>");
    expect("<h2>Events</h2></header><p class=\"none\">None yet.</p></section>");
}

TEST_F(LbwatchPage, uplink_has_its_state_and_how_long_it_lasts) {
    uplink("eth0", UplinkState::failed).since_boot_ms = at(3535).boot_ms;
    expect(
        "<span class=\"state failed\">failed</span><span class=\"sub\">since 1m 5s</span>"
        "<span class=\"big availability\">unknown</span>");
}

TEST_F(LbwatchPage, length_of_a_state_that_nobody_watched_or_was_told_is_not_made_up) {
    Uplink& made = uplink("eth0", UplinkState::failed);
    expect_none(">since ");
    made.since_boot_ms = at(3535).boot_ms;
    made.is_unwatched = true;
    expect_none(">since ");
    made.is_unwatched = false;
    made.state = UplinkState::unknown;
    expect("<span class=\"state unknown\">unknown</span><span class=\"big");
    expect_none(">since ");
}

TEST_F(LbwatchPage, uplink_has_its_traffic_next_hop_and_targets) {
    Uplink& made = uplink("eth0", UplinkState::active);
    made.is_routed = true;
    made.nexthop = "192.0.2.1";
    made.targets["198.51.100.1"].verdict = Verdict::success;
    Target& failed = made.targets["198.51.100.2"];
    failed.verdict = Verdict::failure;
    failed.fault = "no answer";
    failed.failure_run = 3;
    failed.quality = {.loss_percent = 20,
                      .rtt_ms = 150,
                      .jitter_ms = 30,
                      .loss_limit = 50,
                      .rtt_limit = 800,
                      .jitter_limit = 90};
    made.targets["198.51.100.3"];
    expect(
        "<ul class=\"details\"><li>carries traffic over <b>192.0.2.1</b></li>"
        "<li><b>198.51.100.1</b> answers</li>"
        "<li><b>198.51.100.2</b> no answer (3 in a row): loss 20 of 50 %, round-trip time 150 of "
        "800 ms, jitter 30 of 90 ms</li>"
        "<li><b>198.51.100.3</b> not judged</li></ul>");
}

TEST_F(LbwatchPage, uplink_without_judgement_has_the_reason) {
    Uplink& made = uplink("eth0", UplinkState::unknown);
    made.reason = "not judged <yet>";
    expect(
        "<ul class=\"details\"><li>carries no traffic, no next hop known</li>"
        "<li>not judged &lt;yet&gt;</li></ul>");
    made.state = UplinkState::failed;
    expect_none("not judged &lt;yet&gt;");
}

TEST_F(LbwatchPage, uplink_without_a_past_was_not_watched_all_the_time) {
    uplink("eth0", UplinkState::active);
    const std::string whole =
        "<rect class=\"unwatched\" x=\"0.00\" y=\"4.00\" width=\"1000.00\" height=\"24.00\">";
    expect(whole);
    UplinkReport known;
    known.uplink = key("eth0");
    known.pieces = {{.begin_ms = shown.since_ms,
                     .end_ms = shown.until_ms,
                     .known = Known::active,
                     .reason = ""}};
    known.active_ms = 3'600'000;
    shown.uplinks = {known};
    expect_none(whole);
    expect("<span class=\"big availability\">100.000 %</span>");
}

TEST_F(LbwatchPage, shows_five_outages_of_an_uplink) {
    uplink("eth0", UplinkState::active);
    UplinkReport known;
    known.uplink = key("eth0");
    for (int i = 0; i < 7; ++i) {
        known.outages.push_back({.begin_ms = at(i * 60).wall_ms,
                                 .end_ms = at(i * 60 + 30).wall_ms,
                                 .is_begin_seen = true,
                                 .is_end_seen = true,
                                 .is_going_on = false,
                                 .reason = "why " + std::to_string(i)});
    }
    shown.uplinks = {known};
    expect(
        "<td data-name=\"Reason\">why 2</td></tr></tbody></table>"
        "<p class=\"none\">and 2 earlier ones</p>");
    expect_none("why 1<");
}

TEST_F(LbwatchPage, says_when_nothing_is_known_of_the_uplinks) {
    expect_none("<p class=\"notice\">");
    view.daemon = DaemonState::unknown;
    expect("<p class=\"notice\">The daemon has not been seen yet.</p>");
    view.daemon = DaemonState::stopped;
    expect("<p class=\"notice\">The daemon is stopped: nothing is known of the uplinks.</p>");
    view.daemon = DaemonState::stale;
    expect(
        "<p class=\"notice\">The daemon has told nothing for a while: nothing is known of the "
        "uplinks.</p>");
    view.last_written_boot_ms = at(3000).boot_ms;
    expect("told nothing for 10m 0s: nothing is known");
}

TEST_F(LbwatchPage, says_when_the_history_is_not_written) {
    expect_none("class=\"notice\">h");
    view.history = "h";
    view.history_state = {.problem = "h <cannot> be written", .waiting_rows = 12, .lost_rows = 0};
    expect("<p class=\"notice\">h &lt;cannot&gt; be written. 12 rows wait.</p>");
    view.history_state.lost_rows = 3;
    expect("12 rows wait, 3 were lost.</p>");
}

TEST_F(LbwatchPage, latest_event_comes_first) {
    Event first;
    first.time_ms = at(1).wall_ms;
    first.uplink = key("eth0");
    first.from = "active";
    first.to = "failed";
    first.reason = "<b>";
    Event second = first;
    second.time_ms = at(2).wall_ms;
    std::swap(second.from, second.to);
    events = {first, second};
    expect("<ol class=\"events\"><li><time datetime=\"2026-11-21T12:00:02.000Z\">" +
           local_time(at(2).wall_ms) +
           "</time><span>eth0 ipv4 failed -&gt; active: &lt;b&gt;</span></li>"
           "<li><time datetime=\"2026-11-21T12:00:01.000Z\">" +
           local_time(at(1).wall_ms) +
           "</time><span>eth0 ipv4 active -&gt; failed: &lt;b&gt;</span></li></ol></section>");
    expect_none("None yet.");
}

}  // namespace

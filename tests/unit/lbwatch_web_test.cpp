// What is answered to a browser, a scraper and a script, from request head to answer.

#include <gmock/gmock.h>

#include <algorithm>

#include "lbwatch/history.h"
#include "lbwatch/web.h"
#include "support/temporary_folder.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::int64_t minute_ms = 60'000;

class LbwatchWeb : public testing::Test {
  protected:
    std::string answer(const std::string& line) { return web.answer(line + "\r\n\r\n"); }
    std::string get(const std::string& target) { return answer("GET " + target + " HTTP/1.1"); }
    std::string body(const std::string& target) {
        const std::string whole = get(target);
        return whole.substr(whole.find("\r\n\r\n") + 4);
    }
    /// A change of this uplink, so long ago.
    static Event event(const std::string& name, std::int64_t age_ms) {
        Event made;
        made.time_ms = now().wall_ms - age_ms;
        made.uplink = key(name);
        made.from = "active";
        made.to = "failed";
        return made;
    }
    /// A file with what `fill` adds, and the board that names it.
    template <class Fill>
    void keep_history(Fill fill) {
        History history(folder.file("history.db"), [](const std::string&) {});
        fill(history);
        ASSERT_TRUE(history.commit());
        View view;
        view.history = folder.file("history.db");
        board.publish(view, now());
    }
    static int count_of(const std::string& text, const std::string& words) {
        int count = 0;
        for (std::size_t at = text.find(words); at != std::string::npos;
             at = text.find(words, at + 1)) {
            ++count;
        }
        return count;
    }

    TemporaryFolder folder;
    Board board;
    Web web{board, "1.2"};
};

TEST_F(LbwatchWeb, only_reads) {
    for (const char* const line : {"POST / HTTP/1.1", "PUT /api/state HTTP/1.1",
                                   "DELETE / HTTP/1.1", "get / HTTP/1.1", ""}) {
        EXPECT_EQ(answer(line),
                  "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, HEAD\r\n"
                  "Content-Type: text/plain; charset=utf-8\r\nContent-Length: 31\r\n"
                  "Connection: close\r\n\r\nonly GET and HEAD are answered\n")
            << line;
    }
}

TEST_F(LbwatchWeb, refuses_what_is_no_request) {
    for (const std::string& line :
         {std::string("GET"), std::string("GET /"), std::string("GET / HTTP/2.0"),
          std::string("GET  HTTP/1.1"), std::string("GET page.js HTTP/1.1"),
          std::string("GET /\x1f HTTP/1.1"), std::string("GET /\x7f HTTP/1.1"),
          std::string("GET /\xc3\xa4 HTTP/1.1"), std::string("GET / HTTP/1.1 HTTP/1.1")}) {
        EXPECT_THAT(answer(line), testing::AnyOf(StartsWith("HTTP/1.1 400 Bad Request\r\n"),
                                                 StartsWith("HTTP/1.1 405 ")))
            << line;
        EXPECT_THAT(answer(line), Not(HasSubstr("<html"))) << line;
    }
    EXPECT_THAT(answer("GET / HTTP/2.0"),
                EndsWith("\r\n\r\nthis is no request that is answered\n"));
}

TEST_F(LbwatchWeb, target_may_have_two_thousand_letters) {
    const std::string target = "/api/state?";
    EXPECT_THAT(get(target + std::string(2048 - target.size(), 'a')),
                StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(get(target + std::string(2049 - target.size(), 'a')), StartsWith("HTTP/1.1 400 "));
    EXPECT_THAT(get("/nothing"), StartsWith("HTTP/1.1 404 "));
}

TEST_F(LbwatchWeb, each_address_has_its_type) {
    EXPECT_THAT(get("/"), HasSubstr("\r\nContent-Type: text/html; charset=utf-8\r\n"));
    EXPECT_THAT(get("/page.js"), HasSubstr("\r\nContent-Type: text/javascript; charset=utf-8\r\n"));
    EXPECT_THAT(get("/metrics"),
                HasSubstr("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
    EXPECT_THAT(get("/api/state"), HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_THAT(get("/api/events"), HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_THAT(body("/"), StartsWith("<!doctype html>"));
    EXPECT_THAT(body("/page.js"), HasSubstr("new EventSource('/events')"));
    EXPECT_THAT(body("/metrics"), HasSubstr("lb_build_info{version=\"1.2\"} 1\n"));
    EXPECT_THAT(body("/api/state"), StartsWith("{\"time\":"));
}

TEST_F(LbwatchWeb, answers_bar_the_way_to_foreign_scripts_and_caches) {
    const std::string page = get("/");
    for (const char* const line :
         {"X-Content-Type-Options: nosniff", "X-Frame-Options: DENY",
          "Referrer-Policy: no-referrer", "Cache-Control: no-store", "Connection: close"}) {
        EXPECT_THAT(page, HasSubstr(std::string("\r\n") + line + "\r\n"));
    }
    EXPECT_THAT(page, HasSubstr("\r\nContent-Security-Policy: default-src 'none'; "));
}

TEST_F(LbwatchWeb, old_clients_and_head_are_answered) {
    EXPECT_THAT(answer("GET /api/state HTTP/1.0"), HasSubstr(" 200 OK\r\n"));
    const std::string head = answer("HEAD /api/state HTTP/1.1");
    EXPECT_THAT(head, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(head, EndsWith("\r\n\r\n"));
    EXPECT_THAT(head, HasSubstr("\r\nContent-Length: "));
    EXPECT_THAT(head, Not(HasSubstr("\"time\"")));
}

TEST_F(LbwatchWeb, page_is_made_anew_when_something_happened) {
    View view;
    view.uplinks[key("eth0")].state = UplinkState::active;
    EXPECT_THAT(body("/"), HasSubstr("<h1>0 of 0 uplinks active</h1>"));
    board.publish(view, now());
    board.add(event("eth0", 0));
    EXPECT_THAT(body("/"), HasSubstr("<h1>1 of 1 uplinks active</h1>"));
    EXPECT_THAT(body("/"), HasSubstr("eth0 ipv4 active -&gt; failed"));
}

TEST_F(LbwatchWeb, page_lists_the_latest_thirty_events) {
    for (int i = 0; i < 31; ++i) {
        board.add(event("eth" + std::to_string(i), 0));
    }
    const std::string page = body("/");
    EXPECT_EQ(count_of(page, "<li><time "), 30);
    EXPECT_THAT(page, HasSubstr(">eth30 ipv4 "));
    EXPECT_THAT(page, HasSubstr(">eth1 ipv4 "));
    EXPECT_THAT(page, Not(HasSubstr(">eth0 ipv4 ")));
}

TEST_F(LbwatchWeb, page_shows_what_the_history_keeps) {
    const std::int64_t end_ms = now().wall_ms;
    keep_history([end_ms](History& history) {
        history.add(event("kept", 0));
        history.add({Span{.uplink = key("eth0"),
                          .state = UplinkState::failed,
                          .begin_ms = end_ms - 61 * minute_ms,
                          .end_ms = end_ms - minute_ms,
                          .reason = "of the history"}});
    });
    View view = *board.view(now());
    view.uplinks[key("eth0")].state = UplinkState::active;
    board.publish(view, now());
    board.add(event("seen", 0));
    const std::string page = body("/");
    EXPECT_THAT(page, HasSubstr(", the last 24 hours</p>"));
    EXPECT_THAT(page, HasSubstr(">kept ipv4 active"));
    EXPECT_THAT(page, Not(HasSubstr(">seen ipv4 active")));
    EXPECT_THAT(page, HasSubstr("<td data-name=\"Reason\">of the history</td>"));
}

TEST_F(LbwatchWeb, page_goes_without_a_history_that_cannot_be_read) {
    View view;
    view.history = folder.file("missing.db");
    board.publish(view, now());
    board.add(event("seen", 0));
    EXPECT_THAT(body("/"), HasSubstr(">seen ipv4 active"));
}

TEST_F(LbwatchWeb, events_are_those_of_the_time_and_uplink_asked_for) {
    board.add(event("old", 90 * minute_ms));
    board.add(event("eth0", 20 * minute_ms));
    board.add(event("eth1", 10 * minute_ms));
    EXPECT_EQ(count_of(body("/api/events"), "\"event\":\"uplink\""), 3);
    const std::string hour = body("/api/events?since=1h");
    EXPECT_THAT(hour, StartsWith("[{\"time\":"));
    EXPECT_THAT(hour, EndsWith("}]\n"));
    EXPECT_THAT(hour, Not(HasSubstr("\"uplink\":\"old\"")));
    EXPECT_EQ(count_of(hour, "\"event\":\"uplink\""), 2);
    const std::string until = body("/api/events?since=1h&until=15m");
    EXPECT_THAT(until, HasSubstr("\"uplink\":\"eth0\""));
    EXPECT_EQ(count_of(until, "\"event\":\"uplink\""), 1);
    const std::string one = body("/api/events?since=1h&uplink=eth1");
    EXPECT_THAT(one, HasSubstr("\"uplink\":\"eth1\""));
    EXPECT_EQ(count_of(one, "\"event\":\"uplink\""), 1);
}

TEST_F(LbwatchWeb, events_of_the_history_are_told_where_it_is_kept) {
    keep_history([](History& history) {
        history.add(event("kept", 20 * minute_ms));
        history.add(event("other", 10 * minute_ms));
    });
    board.add(event("seen", 0));
    const std::string told = body("/api/events?since=1h&uplink=kept");
    EXPECT_THAT(told, HasSubstr("\"uplink\":\"kept\""));
    EXPECT_EQ(count_of(told, "\"event\":\"uplink\""), 1);
    EXPECT_EQ(count_of(body("/api/events"), "\"event\":\"uplink\""), 2);
}

TEST_F(LbwatchWeb, events_of_this_run_are_told_where_the_history_cannot_be_read) {
    View view;
    view.history = folder.file("missing.db");
    board.publish(view, now());
    board.add(event("seen", minute_ms));
    EXPECT_EQ(count_of(body("/api/events"), "\"uplink\":\"seen\""), 1);
    EXPECT_THAT(get("/api/events"), HasSubstr("\r\nX-From-Memory: there is no history at "));
    EXPECT_EQ(count_of(body("/api/events?uplink=seen"), "\"uplink\":\"seen\""), 1);
}

TEST_F(LbwatchWeb, uplink_that_nobody_knows_is_refused) {
    keep_history([](History& history) {
        history.add(event("told", minute_ms));
        history.add({Span{.uplink = key("kept"),
                          .state = UplinkState::active,
                          .begin_ms = 1000,
                          .end_ms = 2000,
                          .reason = ""}});
    });
    View view = *board.view(now());
    view.uplinks[key("now")].state = UplinkState::active;
    board.publish(view, now());
    for (const char* const known : {"kept", "now"}) {
        EXPECT_THAT(get(std::string("/api/report?uplink=") + known), StartsWith("HTTP/1.1 200 "));
        EXPECT_EQ(body(std::string("/api/events?uplink=") + known), "[]\n");
    }
    EXPECT_THAT(get("/api/events?uplink=told"), StartsWith("HTTP/1.1 200 "));
    EXPECT_THAT(get("/api/events"), Not(HasSubstr("X-From-Memory")));
    for (const char* const target : {"/api/report?uplink=nope", "/api/events?uplink=nope"}) {
        EXPECT_THAT(get(target), StartsWith("HTTP/1.1 404 "));
        EXPECT_EQ(body(target), "no uplink is known that is called 'nope'\n");
    }
}

/// The file has what was seen up to a minute ago; a watcher that was started anew saw it again.
TEST_F(LbwatchWeb, time_that_nobody_watched_is_not_painted_in_the_state_of_now) {
    const std::int64_t now_ms = now().wall_ms;
    const auto span = [now_ms](UplinkState state, std::int64_t begin_ago, std::int64_t end_ago) {
        return Span{.uplink = key("eth0"),
                    .state = state,
                    .begin_ms = now_ms - begin_ago,
                    .end_ms = now_ms - end_ago,
                    .reason = ""};
    };
    keep_history([&](History& history) {
        history.add({span(UplinkState::active, 10 * minute_ms, minute_ms)});
    });
    View view = *board.view(now());
    view.uplinks[key("eth0")].state = UplinkState::active;
    view.uplinks[key("eth0")].has_been_read = true;
    view.unwritten.open = {span(UplinkState::active, 4500, 1000)};
    board.publish(view, now());
    const std::string told = body("/api/report?since=2m");
    EXPECT_THAT(told, HasSubstr("\"unwatched_s\":55,"));
    EXPECT_THAT(told, HasSubstr("\"active_s\":64,"));
    EXPECT_THAT(body("/"), HasSubstr("<title>unwatched, "));
}

/// A full disk: the file ends a minute ago, in the middle of a time that was active.
TEST_F(LbwatchWeb, state_that_the_file_could_not_take_is_shown_as_it_was_seen) {
    const std::int64_t now_ms = now().wall_ms;
    const auto span = [now_ms](UplinkState state, std::int64_t begin_ago, std::int64_t end_ago) {
        return Span{.uplink = key("eth0"),
                    .state = state,
                    .begin_ms = now_ms - begin_ago,
                    .end_ms = now_ms - end_ago,
                    .reason = "why"};
    };
    keep_history([&](History& history) {
        history.add({span(UplinkState::active, 10 * minute_ms, minute_ms)});
    });
    View view = *board.view(now());
    view.uplinks[key("eth0")].state = UplinkState::failed;
    view.unwritten.ended = {span(UplinkState::active, 10 * minute_ms, 12'500)};
    view.unwritten.open = {span(UplinkState::failed, 12'500, 700)};
    board.publish(view, now());
    const std::string told = body("/api/report?since=2m");
    EXPECT_THAT(told, HasSubstr("\"failed_s\":12,"));
    EXPECT_THAT(told, HasSubstr("\"unwatched_s\":0,"));
    // A watcher that is held up knows no more than it had seen.
    board.publish(view, {.wall_ms = now_ms, .boot_ms = now().boot_ms - 31'000});
    EXPECT_THAT(body("/api/report?since=2m"), HasSubstr("\"failed_s\":11,"));
}

TEST_F(LbwatchWeb, five_thousand_events_are_told_and_the_latest_of_more) {
    keep_history([](History& history) {
        for (int i = 0; i < 5001; ++i) {
            history.add(event("eth" + std::to_string(i), (5001 - i) * std::int64_t{1000}));
        }
    });
    const std::string told = body("/api/events");
    EXPECT_EQ(count_of(told, "\"event\":\"uplink\""), 5000);
    EXPECT_THAT(told, Not(HasSubstr("\"uplink\":\"eth0\"")));
    EXPECT_THAT(told, HasSubstr("\"uplink\":\"eth1\""));
}

TEST_F(LbwatchWeb, time_that_is_none_is_refused_with_what_would_be_one) {
    for (const char* const target :
         {"/api/events?since=yesterday", "/api/events?until=never", "/api/events?since=1h&until=2h",
          "/api/events?since=1h&until=1h", "/api/report?since=", "/api/report?since=1h&until=1d"}) {
        const std::string refused = get(target);
        EXPECT_THAT(refused, StartsWith("HTTP/1.1 400 Bad Request\r\n")) << target;
        EXPECT_THAT(refused, HasSubstr("\r\nContent-Type: text/plain; charset=utf-8\r\n"));
        EXPECT_THAT(refused, EndsWith("\r\n\r\nsince and until are ages (15m, 12h, 1d) or dates "
                                      "(2026-11-21T14:05Z), and since comes first\n"))
            << target;
    }
}

TEST_F(LbwatchWeb, report_needs_a_history_that_can_be_read) {
    EXPECT_THAT(get("/api/report"), StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
    EXPECT_EQ(body("/api/report"), "no history is kept\n");
    View view;
    view.history = folder.file("missing.db");
    board.publish(view, now());
    EXPECT_THAT(get("/api/report"), StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
    EXPECT_THAT(body("/api/report"), HasSubstr(folder.file("missing.db")));
}

TEST_F(LbwatchWeb, report_comes_in_three_formats) {
    const std::int64_t end_ms = now().wall_ms - 60 * minute_ms;
    keep_history([end_ms](History& history) {
        history.add({Span{.uplink = key("eth0"),
                          .state = UplinkState::active,
                          .begin_ms = end_ms - 60 * minute_ms,
                          .end_ms = end_ms,
                          .reason = ""}});
        history.add({Minute{.minute = end_ms / minute_ms - 5,
                            .uplink = key("eth0"),
                            .target = "198.51.100.1",
                            .answered = 59,
                            .missed = 1}});
    });
    EXPECT_THAT(get("/api/report"), HasSubstr("\r\nContent-Type: application/json\r\n"));
    EXPECT_THAT(body("/api/report"), HasSubstr("\"active_s\":3600,"));
    EXPECT_THAT(body("/api/report?since=1w"), HasSubstr("\"answered\":59,\"missed\":1,"));
    // A longer one is made without the minutes.
    EXPECT_THAT(body("/api/report?since=8d"), HasSubstr("\"targets\":[]"));
    EXPECT_THAT(body("/api/report?format=json&since=1m&uplink=eth0"), EndsWith("}\n"));
    EXPECT_THAT(get("/api/report?format=xml"), StartsWith("HTTP/1.1 400 "));
    EXPECT_EQ(body("/api/report?format=xml"), "format is json, html or csv\n");
    EXPECT_THAT(get("/api/report?format=html"), HasSubstr("\r\nContent-Type: text/html; charset"));
    EXPECT_THAT(body("/api/report?format=html"), HasSubstr("<h1>Uplink report</h1>"));
    EXPECT_THAT(get("/api/report?format=csv"), HasSubstr("\r\nContent-Type: text/csv; charset"));
    EXPECT_THAT(body("/api/report?format=csv"), HasSubstr("\r\nuplink,eth0,4,,"));
}

TEST_F(LbwatchWeb, request_by_a_name_that_is_not_this_machine_s_is_refused) {
    const Web other(board, "1.2", {"uplinks.example.org"});
    for (const char* const path : {"/", "/page.js", "/metrics", "/api/state", "/events"}) {
        const std::string line = std::string("GET ") + path + " HTTP/1.1";
        const std::string refused = answer(line + "\r\nHost: evil.example:9837");
        EXPECT_THAT(refused, StartsWith("HTTP/1.1 421 Misdirected Request\r\n")) << path;
        EXPECT_THAT(refused, HasSubstr("--host NAME")) << path;
    }
    EXPECT_FALSE(web.is_meant("GET /events HTTP/1.1\r\nHost: uplinks.example.org\r\n\r\n"));
    EXPECT_TRUE(other.is_meant("GET /events HTTP/1.1\r\nHost: uplinks.example.org\r\n\r\n"));
    for (const std::string& host : {std::string("127.0.0.1:9837"), own_host_name()}) {
        EXPECT_THAT(answer("GET /api/state HTTP/1.1\r\nHost: " + host), StartsWith("HTTP/1.1 200 "))
            << host;
    }
}

TEST(LbwatchStream, is_asked_for_by_its_address_alone) {
    std::uint64_t after = 7;
    EXPECT_TRUE(Web::is_stream("GET /events HTTP/1.1\r\n\r\n", after));
    EXPECT_TRUE(Web::is_stream("GET /events?a=b HTTP/1.1\r\n\r\n", after));
    EXPECT_FALSE(Web::is_stream("GET /eventss HTTP/1.1\r\n\r\n", after));
    EXPECT_FALSE(Web::is_stream("HEAD /events HTTP/1.1\r\n\r\n", after));
    EXPECT_FALSE(Web::is_stream("GET / HTTP/1.1\r\nX: GET /events \r\n\r\n", after));
    EXPECT_EQ(after, 7U);
}

TEST(LbwatchStream, goes_on_behind_what_the_browser_saw_last) {
    std::uint64_t after = 0;
    EXPECT_TRUE(
        Web::is_stream("GET /events HTTP/1.1\r\nHost: a\r\nLast-Event-ID:   412\r\n\r\n", after));
    EXPECT_EQ(after, 412U);
    EXPECT_TRUE(Web::is_stream("GET /events HTTP/1.1\r\nlast-event-id:9\r\n\r\n", after));
    EXPECT_EQ(after, 9U);
    EXPECT_TRUE(Web::is_stream("GET /events HTTP/1.1\r\nLast-Event-ID: no\r\n\r\n", after));
    EXPECT_TRUE(Web::is_stream("GET /events HTTP/1.1\r\nX-Last-Event-ID: 5\r\n\r\n", after));
    EXPECT_TRUE(Web::is_stream("GET /events HTTP/1.1\r\nLast-Event-ID: ", after));
    EXPECT_EQ(after, 9U);
}

TEST(LbwatchBoard, keeps_the_last_five_hundred_events_by_number) {
    Board board;
    EXPECT_EQ(board.last_number(), 0U);
    for (int i = 0; i < 501; ++i) {
        Event event;
        event.time_ms = i;
        board.add(event);
    }
    EXPECT_EQ(board.last_number(), 501U);
    const auto all = board.events_after(0);
    ASSERT_EQ(all.size(), 500U);
    EXPECT_EQ(all.front().number, 2U);
    EXPECT_EQ(all.front().event.time_ms, 1);
    const auto last = board.events_after(500);
    ASSERT_EQ(last.size(), 1U);
    EXPECT_EQ(last.front().number, 501U);
    EXPECT_TRUE(board.events_after(501).empty());
}

}  // namespace

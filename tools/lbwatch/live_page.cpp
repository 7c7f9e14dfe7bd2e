#include "lbwatch/live_page.h"

#include <cstdint>
#include <map>
#include <optional>

#include "lbwatch/drawing.h"
#include "lbwatch/report_page.h"
#include "lbwatch/target_results.h"

namespace lbwatch {

const char* const page_script = R"(
(function () {
  'use strict';
  let timer = null;
  let heard = Date.now();
  async function refresh() {
    timer = null;
    try {
      const answer = await fetch('/', { cache: 'no-store', signal: AbortSignal.timeout(10000) });
      if (!answer.ok) throw new Error(answer.status);
      const page = new DOMParser().parseFromString(await answer.text(), 'text/html');
      const live = page.getElementById('live');
      if (!live) throw new Error('another page');
      document.getElementById('live').replaceWith(live);
    } catch (error) {
      lost();
    }
  }
  function lost() {
    const notice = document.getElementById('connection');
    if (notice) notice.hidden = false;
  }
  function soon() { if (timer === null) timer = setTimeout(refresh, 300); }
  function hear() { heard = Date.now(); }
  const stream = new EventSource('/events');
  stream.addEventListener('change', function () { hear(); soon(); });
  stream.addEventListener('beat', hear);
  stream.onopen = function () { hear(); soon(); };
  stream.onerror = lost;
  setInterval(soon, 30000);
  setInterval(function () { if (Date.now() - heard > 40000) lost(); }, 5000);
})();
)";

namespace {

std::string state_badge(const Uplink& uplink, const Moment& now) {
    std::string text = "<span class=\"state " + std::string(word_of(uplink.state)) + "\">" +
                       word_of(uplink.state) + "</span>";
    const auto since_s =
        uplink.is_unwatched ? std::nullopt : seconds_since(uplink.since_boot_ms, now);
    if (since_s && uplink.state == uplink.told) {
        text += "<span class=\"sub\">since " + length_text(*since_s) + "</span>";
    }
    return text;
}

std::string details_of(const Uplink& uplink) {
    std::string text = "<ul class=\"details\">";
    text += "<li>" + std::string(uplink.is_routed ? "carries traffic" : "carries no traffic") +
            (uplink.nexthop.empty() ? ", no next hop known"
                                    : " over <b>" + escaped(uplink.nexthop) + "</b>") +
            "</li>";
    if (uplink.state == UplinkState::unknown && !uplink.reason.empty()) {
        text += "<li>" + escaped(uplink.reason) + "</li>";
    }
    for (const auto& [address, target] : uplink.targets) {
        text += "<li><b>" + escaped(address) + "</b> " +
                (target.verdict == Verdict::success ? "answers"
                 : target.verdict == Verdict::failure
                     ? escaped(told(address, target).substr(address.size() + 1))
                     : "not judged");
        if (target.quality) {
            const dumps::Quality& quality = *target.quality;
            text += ": loss " + std::to_string(quality.loss_percent) + " of " +
                    std::to_string(quality.loss_limit) + " %, round-trip time " +
                    std::to_string(quality.rtt_ms) + " of " + std::to_string(quality.rtt_limit) +
                    " ms, jitter " + std::to_string(quality.jitter_ms) + " of " +
                    std::to_string(quality.jitter_limit) + " ms";
        }
        text += "</li>";
    }
    return text + "</ul>";
}

std::string daemon_notice(const View& view, const Moment& now) {
    switch (view.daemon) {
        case DaemonState::running:
            return "";
        case DaemonState::stopped:
            return "<p class=\"notice\">The daemon is stopped: nothing is known of the "
                   "uplinks.</p>";
        case DaemonState::unknown:
            return "<p class=\"notice\">The daemon has not been seen yet.</p>";
        case DaemonState::stale: {
            const auto age_s = seconds_since(view.last_written_boot_ms, now);
            return "<p class=\"notice\">The daemon has told nothing for " +
                   (age_s ? length_text(*age_s) : "a while") +
                   ": nothing is known of the uplinks.</p>";
        }
    }
    return "";
}

std::string history_notice(const HistoryState& history) {
    if (history.problem.empty()) {
        return "";
    }
    std::string text = "<p class=\"notice\">" + escaped(history.problem) + ". ";
    text += std::to_string(history.waiting_rows) + " rows wait";
    if (history.lost_rows > 0) {
        text += ", " + std::to_string(history.lost_rows) + " were lost";
    }
    return text + ".</p>";
}

std::string shown_time(const Report& shown) {
    const std::int64_t minutes = (shown.until_ms - shown.since_ms) / 60'000;
    return minutes >= 120 ? std::to_string(minutes / 60) + " hours"
                          : std::to_string(minutes) + " minutes";
}

std::string summary_of(const View& view) {
    std::size_t active = 0;
    for (const auto& [key, uplink] : view.uplinks) {
        active += uplink.state == UplinkState::active ? 1 : 0;
    }
    return std::to_string(active) + " of " + std::to_string(view.uplinks.size()) +
           " uplinks active";
}

std::string event_list(const std::vector<Event>& events) {
    std::string text = "<section class=\"card events\"><header><h2>Events</h2></header>";
    if (events.empty()) {
        return text + "<p class=\"none\">None yet.</p></section>\n";
    }
    text += "<ol class=\"events\">";
    for (auto event = events.rbegin(); event != events.rend(); ++event) {
        text += "<li><time datetime=\"" + rfc3339(event->time_ms) + "\">" +
                local_time(event->time_ms) + "</time><span>" + escaped(line_of(*event)) +
                "</span></li>";
    }
    return text + "</ol></section>\n";
}

}  // namespace

std::string live_page(const View& view, const Report& day, const std::vector<Event>& events,
                      const Moment& now) {
    std::map<UplinkKey, const UplinkReport*> known;
    for (const UplinkReport& uplink : day.uplinks) {
        known[uplink.uplink] = &uplink;
    }
    std::string text =
        page_head("Uplinks", true) + "<body>\n<div id=\"live\">\n<header class=\"top\"><h1>" +
        summary_of(view) + "</h1><p class=\"sub\">" + local_time(now.wall_ms) + ", the last " +
        shown_time(day) + "</p>" + daemon_notice(view, now) + history_notice(view.history_state) +
        "<p class=\"notice\" id=\"connection\" hidden>The watcher does not answer; "
        "this is what it told last.</p>" +
        legend() + "</header>\n<main>\n";
    for (const auto& [key, uplink] : view.uplinks) {
        UplinkReport nothing;
        nothing.uplink = key;
        nothing.pieces = {{.begin_ms = day.since_ms,
                           .end_ms = day.until_ms,
                           .known = Known::unwatched,
                           .reason = ""}};
        nothing.unwatched_ms = day.until_ms - day.since_ms;
        const auto found = known.find(key);
        text += uplink_card(found == known.end() ? nothing : *found->second, day,
                            state_badge(uplink, now), details_of(uplink), 5);
    }
    if (view.uplinks.empty()) {
        text += "<p class=\"none\">No uplink is known yet.</p>\n";
    }
    return text + event_list(events) +
           "</main>\n<footer><p>Availability counts the time in which an uplink was seen active or "
           "failed; times when nothing was watched count as neither.</p></footer>\n</div>\n"
           "</body>\n</html>\n";
}

}  // namespace lbwatch

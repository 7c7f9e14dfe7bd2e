#include "lbwatch/web.h"

#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include "lbwatch/history_report.h"
#include "lbwatch/json.h"
#include "lbwatch/live_page.h"
#include "lbwatch/metrics.h"
#include "lbwatch/moment.h"
#include "lbwatch/report_page.h"
#include "lbwatch/report_text.h"
#include "shared/plain_text.h"
#include "shared/time_text.h"

namespace lbwatch {

namespace {

constexpr std::int64_t day_ms = 86'400'000;
/// Up to there a report over HTTP reads the minutes; a longer one would hold everybody up.
constexpr std::int64_t longest_with_minutes_ms = 7 * day_ms + 3'600'000;
/// The page is made anew only so often, however many ask.
constexpr std::int64_t page_age_ms = 2000;
constexpr int listed_events = 30;
/// A state of an uplink takes one to two kilobytes while a page or a report is made of it.
constexpr std::int64_t most_states_of_page = 10'000;
constexpr std::int64_t most_states_of_report = 50'000;
constexpr std::int64_t shortest_page_ms = day_ms / 64;

/// The request as the library shall see it, and room for its answer.
class Memory : public httplib::Stream {
  public:
    explicit Memory(std::string request) : request_(std::move(request)) {}

    bool is_readable() const override { return at_ < request_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        const std::size_t count = std::min(size, request_.size() - at_);
        request_.copy(to, count, at_);
        at_ += count;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* from, std::size_t size) override {
        answer_.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        ip.clear();
        port = 0;
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        ip.clear();
        port = 0;
    }
    socket_t socket() const override { return INVALID_SOCKET; }

    std::string take() { return std::move(answer_); }

  private:
    std::string request_;
    std::size_t at_ = 0;
    std::string answer_;
};

void text_answer(httplib::Response& answer, int status, const std::string& text) {
    answer.status = status;
    answer.set_content(text + "\n", "text/plain; charset=utf-8");
}

std::string request_line(const std::string& head) {
    return head.substr(0, head.find('\r'));
}

/// An answer without a request that could be routed.
std::string bare_answer(const char* status, const char* text) {
    const std::string body = std::string(text) + "\n";
    return std::string("HTTP/1.1 ") + status +
           "\r\nAllow: GET, HEAD\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

/// What the file may lack. A state that goes on is shown up to now as long as it is believed.
std::vector<Span> unwritten_of(const View& view, std::int64_t now_ms) {
    std::vector<Span> spans = view.unwritten.ended;
    for (Span span : view.unwritten.open) {
        const auto found = view.uplinks.find(span.uplink);
        if (found != view.uplinks.end() && found->second.state == span.state) {
            span.end_ms = std::max(span.end_ms, now_ms);
        }
        spans.push_back(std::move(span));
    }
    return spans;
}

bool is_plain(char character) {
    return character > 0x20 && character < 0x7f;
}

}  // namespace

class Web::Routes : public httplib::Server {
  public:
    Routes(const Board& board, std::string version) : board_(board), version_(std::move(version)) {
        set_default_headers(
            {{"X-Content-Type-Options", "nosniff"},
             {"X-Frame-Options", "DENY"},
             {"Referrer-Policy", "no-referrer"},
             {"Cache-Control", "no-store"},
             {"Content-Security-Policy",
              "default-src 'none'; style-src 'unsafe-inline'; script-src 'self'; "
              "connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'"}});
        Get("/", [this](const auto&, auto& answer) { page(answer); });
        Get("/page.js", [](const auto&, auto& answer) {
            answer.set_content(page_script, "text/javascript; charset=utf-8");
        });
        Get("/metrics", [this](const auto&, auto& answer) {
            const auto view = board_.view(now());
            answer.set_content(
                metrics_of(*view, find_routers(view->rules, view->uplinks), version_, now()),
                "text/plain; version=0.0.4; charset=utf-8");
        });
        Get("/api/state", [this](const auto&, auto& answer) {
            answer.set_content(json_of(*board_.view(now()), now()) + "\n", "application/json");
        });
        Get("/api/events", [this](const auto& asked, auto& answer) { events(asked, answer); });
        Get("/api/report", [this](const auto& asked, auto& answer) { report(asked, answer); });
    }

    std::string answer(const std::string& line) {
        Memory memory(line + "\r\nHost: lbwatch\r\nConnection: close\r\n\r\n");
        bool is_closed = false;
        // The library takes addresses apart from the stream since a version in between.
        if constexpr (takes_addresses<Routes>) {
            call_with_addresses(*this, memory, is_closed);
        } else {
            call_plain(*this, memory, is_closed);
        }
        return memory.take();
    }

  private:
    template <class Server>
    static constexpr bool takes_addresses = requires(Server& server, httplib::Stream& stream,
                                                     bool& closed) {
        server.process_request(stream, std::string(), 0, std::string(), 0, true, closed, nullptr);
    };
    template <class Server>
    static void call_with_addresses(Server& server, httplib::Stream& stream, bool& closed) {
        server.process_request(stream, std::string(), 0, std::string(), 0, true, closed, nullptr);
    }
    template <class Server>
    static void call_plain(Server& server, httplib::Stream& stream, bool& closed) {
        server.process_request(stream, true, closed, nullptr);
    }

    void page(httplib::Response& answer) {
        const Moment at = now();
        const std::uint64_t number = board_.last_number();
        if (page_.empty() || at.boot_ms - page_made_boot_ms_ > page_age_ms || number != page_for_) {
            page_ = make_page(at);
            page_made_boot_ms_ = at.boot_ms;
            page_for_ = number;
        }
        answer.set_content(page_, "text/html; charset=utf-8");
    }

    std::string make_page(const Moment& at) const {
        const auto view = board_.view(at);
        Report day;
        day.since_ms = at.wall_ms - day_ms;
        day.until_ms = at.wall_ms;
        std::vector<Event> events;
        for (auto& one : board_.events_after(0)) {
            events.push_back(std::move(one.event));
        }
        if (!view->history.empty()) {
            HistoryReader history(view->history);
            HistoryReader::Selection last{
                .since_ms = day.since_ms, .until_ms = day.until_ms, .uplink = ""};
            // Where uplinks never rest, the page shows a shorter time.
            for (std::int64_t shown_ms = day_ms;
                 shown_ms > shortest_page_ms &&
                 history.has_more_spans(last, most_states_of_page);) {
                shown_ms /= 2;
                last.since_ms = at.wall_ms - shown_ms;
            }
            const std::vector<Span> unwritten = unwritten_of(*view, at.wall_ms);
            day = report_of(history, last, false, at.wall_ms, &unwritten);
            std::vector<Event> kept = history.latest(listed_events);
            if (history.problem().empty()) {
                events = std::move(kept);
            }
        }
        if (events.size() > listed_events) {
            events.erase(events.begin(), events.end() - listed_events);
        }
        return live_page(*view, day, events, at);
    }

    /// Reads the parameters that both histories share; false after answering.
    static bool read_selection(const httplib::Request& asked, httplib::Response& answer,
                               HistoryReader::Selection& selection) {
        const std::int64_t at = now().wall_ms;
        const std::string since = asked.has_param("since") ? asked.get_param_value("since") : "1d";
        const std::string until = asked.has_param("until") ? asked.get_param_value("until") : "now";
        const auto begin = shared::read_time(since, at);
        const auto end = shared::read_time(until, at);
        if (!begin || !end || *begin >= *end) {
            text_answer(answer, 400,
                        "since and until are ages (15m, 12h, 1d) or dates (2026-11-21T14:05Z), and "
                        "since comes first");
            return false;
        }
        selection.since_ms = *begin;
        selection.until_ms = *end;
        selection.uplink = asked.get_param_value("uplink");
        return true;
    }

    /// Whether this run has an uplink of that name; else the history is asked.
    static bool has_uplink(const View& view, const std::string& name) {
        return std::any_of(view.uplinks.begin(), view.uplinks.end(),
                           [&name](const auto& entry) { return entry.first.name == name; });
    }

    /// A name with a typing error is not answered with nothing, which looks as if all were well.
    static void refuse_uplink(httplib::Response& answer, const std::string& name) {
        text_answer(answer, 404, "no uplink is known that is called '" + name + "'");
    }

    void events(const httplib::Request& asked, httplib::Response& answer) const {
        HistoryReader::Selection selection;
        if (!read_selection(asked, answer, selection)) {
            return;
        }
        const auto view = board_.view(now());
        bool is_known = selection.uplink.empty() || has_uplink(*view, selection.uplink);
        std::deque<Event> found;
        std::string problem = "no history is kept";
        if (!view->history.empty()) {
            HistoryReader history(view->history);
            // What happened last is what is looked for.
            constexpr std::size_t most = 5000;
            history.events(selection, [&found](const Event& event) {
                found.push_back(event);
                if (found.size() > most) {
                    found.pop_front();
                }
            });
            is_known = is_known || history.knows(selection.uplink);
            problem = history.problem();
        }
        if (!problem.empty()) {
            // What this run saw is told also where nothing can be kept.
            answer.set_header("X-From-Memory", shared::harmless(problem));
            found.clear();
            for (auto& one : board_.events_after(0)) {
                if (one.event.time_ms >= selection.since_ms &&
                    one.event.time_ms < selection.until_ms &&
                    (selection.uplink.empty() || one.event.uplink.name == selection.uplink)) {
                    found.push_back(std::move(one.event));
                }
            }
        }
        if (!is_known && found.empty()) {
            refuse_uplink(answer, selection.uplink);
            return;
        }
        answer.set_content(json_of({found.begin(), found.end()}) + "\n", "application/json");
    }

    void report(const httplib::Request& asked, httplib::Response& answer) const {
        HistoryReader::Selection selection;
        if (!read_selection(asked, answer, selection)) {
            return;
        }
        const std::string format = asked.get_param_value("format");
        if (!format.empty() && format != "json" && format != "html" && format != "csv") {
            text_answer(answer, 400, "format is json, html or csv");
            return;
        }
        const auto view = board_.view(now());
        if (view->history.empty()) {
            text_answer(answer, 503, "no history is kept");
            return;
        }
        HistoryReader history(view->history);
        if (history.has_more_spans(selection, most_states_of_report)) {
            text_answer(
                answer, 400,
                "uplinks changed more than " + std::to_string(most_states_of_report) +
                    " times then: ask for less time or one uplink, or here: lbwatch report");
            return;
        }
        const bool with_minutes =
            selection.until_ms - selection.since_ms <= longest_with_minutes_ms;
        const Moment at = now();
        const std::vector<Span> unwritten = unwritten_of(*view, at.wall_ms);
        const Report made = report_of(history, selection, with_minutes, at.wall_ms, &unwritten);
        if (!history.problem().empty()) {
            text_answer(answer, 503, history.problem());
            return;
        }
        if (!selection.uplink.empty() && !has_uplink(*view, selection.uplink) &&
            !history.knows(selection.uplink)) {
            refuse_uplink(answer, selection.uplink);
            return;
        }
        if (format == "html") {
            answer.set_content(html_of(made), "text/html; charset=utf-8");
        } else if (format == "csv") {
            answer.set_content(csv_of(made), "text/csv; charset=utf-8");
        } else {
            answer.set_content(json_of(made) + "\n", "application/json");
        }
    }

    const Board& board_;
    std::string version_;
    std::string page_;
    std::int64_t page_made_boot_ms_ = 0;
    std::uint64_t page_for_ = 0;
};

Web::Web(const Board& board, std::string version, std::vector<std::string> hosts)
    : routes_(std::make_unique<Routes>(board, std::move(version))),
      hosts_(own_host_name(), std::move(hosts)) {}

Web::~Web() = default;

std::string Web::answer(const std::string& head) {
    const std::string line = request_line(head);
    const bool is_head = line.starts_with("HEAD ");
    if (!is_head && !line.starts_with("GET ")) {
        return bare_answer("405 Method Not Allowed", "only GET and HEAD are answered");
    }
    if (!is_meant(head)) {
        return bare_answer("421 Misdirected Request",
                           "this machine does not know itself by the name in the address; ask by "
                           "its own name or by number, or let lbwatch know it: --host NAME");
    }
    const std::size_t begin = is_head ? 5 : 4;
    const std::size_t end = line.find(' ', begin);
    const std::string target = line.substr(begin, end == std::string::npos ? end : end - begin);
    const std::string version = end == std::string::npos ? "" : line.substr(end + 1);
    constexpr std::size_t longest_target = 2048;
    const bool is_sound = target.starts_with("/") && target.size() <= longest_target &&
                          std::all_of(target.begin(), target.end(), is_plain) &&
                          (version == "HTTP/1.1" || version == "HTTP/1.0");
    std::string answer = is_sound ? routes_->answer(line) : std::string();
    return answer.empty() ? bare_answer("400 Bad Request", "this is no request that is answered")
                          : answer;
}

bool Web::is_stream(const std::string& head, std::uint64_t& after) {
    const std::string line = request_line(head);
    if (!line.starts_with("GET /events ") && !line.starts_with("GET /events?")) {
        return false;
    }
    // A browser that comes back tells what it saw last.
    constexpr std::string_view name = "\r\nlast-event-id:";
    std::string lower = head;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char character) {
        return static_cast<char>(std::tolower(character));
    });
    const std::size_t at = lower.find(name);
    if (at != std::string::npos) {
        std::size_t digit = at + name.size();
        while (digit < lower.size() && lower[digit] == ' ') {
            ++digit;
        }
        std::from_chars(lower.data() + digit, lower.data() + lower.size(), after);
    }
    return true;
}

}  // namespace lbwatch

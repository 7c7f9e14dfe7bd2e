#include "lbwatch/watcher.h"

#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <iostream>

#include "lbwatch/json.h"
#include "shared/dump_file.h"

namespace lbwatch {

namespace {

/// A worker rewrites its files one after the other, and several workers write: they are waited for,
/// so that one cycle is read once.
constexpr std::int64_t settle_ms = 100;
constexpr std::int64_t second_ms = 1000;
constexpr std::int64_t minute_ms = 60'000;
constexpr std::int64_t hour_ms = 3'600'000;
/// What the history file could not take waits in memory, and is offered so often.
constexpr std::int64_t write_again_ms = 5000;
constexpr std::int64_t hooks_end_ms = 5000;
/// Where the process could not be found, it is looked for again only so often.
constexpr std::int64_t search_every_ms = 5000;
[[maybe_unused]] constexpr int large_bytes = 128 * 1024;

}  // namespace

void Watcher::notice(const std::string& line) {
    std::cerr << "lbwatch: " << line << std::endl;
}

Watcher::Watcher(WatchOptions options)
    : options_(std::move(options)),
      session_(shared::dump_folder(options_.out_dir), notice),
      folder_(shared::dump_folder(options_.out_dir), notice) {
    if (options_.history != "none") {
        history_ = std::make_unique<History>(options_.history, notice);
        for (const auto& [key, state] : history_->remembered().uplinks) {
            session_.world().remember(key, state);
        }
        if (const auto daemon = history_->remembered().daemon) {
            session_.daemon().remember(*daemon);
        }
    }
    if (options_.hooks != "none") {
        hooks_ = std::make_unique<Hooks>(options_.hooks, notice);
    }
}

int Watcher::run() {
#ifdef M_MMAP_THRESHOLD
    // The page and what it is made from take hundreds of kilobytes now and then: they go back to
    // the system each time, where the C library would keep more and more for the next.
    mallopt(M_MMAP_THRESHOLD, large_bytes);
#endif
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    signals_ = Fd(signalfd(-1, &ending, SFD_NONBLOCK | SFD_CLOEXEC));
    loop_ = Fd(epoll_create1(EPOLL_CLOEXEC));
    for (const int descriptor :
         {signals_.get(), folder_.fd(), hooks_ == nullptr ? -1 : hooks_->fd()}) {
        epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
        epoll_ctl(loop_.get(), EPOLL_CTL_ADD, descriptor, &event);
    }
    if (!options_.listen.empty()) {
        publish();
        listener_ = std::make_unique<Listener>(options_.listen, board_, LB_VERSION, options_.hosts);
        if (!listener_->problem().empty()) {
            notice(listener_->problem());
            return 1;
        }
    }
    while (!is_ending_ && !output_.is_gone()) {
        wait();
    }
    keep(now(), true);
    end_hooks();
    output_.flush();
    const std::string untold = output_.problem();
    // Of a history that is another's nothing is lost.
    const bool is_kept = history_ != nullptr && history_->is_own();
    const std::size_t unwritten = is_kept ? history_->waiting() : 0;
    if (!untold.empty()) {
        notice(untold + (!is_kept || unwritten > 0
                             ? ""
                             : "; lbwatch events --history " + options_.history + " tells them"));
    }
    if (unwritten > 0) {
        notice(std::to_string(unwritten) + " rows of " + options_.history + " are lost");
    }
    return output_.is_gone() || !untold.empty() || unwritten > 0 ? 1 : 0;
}

void Watcher::wait() {
    Moment at = now();
    const std::int64_t due =
        dirty_.empty() ? next_second_boot_ms_ : std::min(next_second_boot_ms_, read_at_boot_ms_);
    std::array<epoll_event, 8> ready{};
    const auto timeout_ms = std::clamp<std::int64_t>(due - at.boot_ms, 0, second_ms);
    const int count =
        epoll_wait(loop_.get(), ready.data(), ready.size(), static_cast<int>(timeout_ms));
    at = now();
    bool has_ended = false;
    for (int i = 0; i < count; ++i) {
        const int descriptor = ready[static_cast<std::size_t>(i)].data.fd;
        is_ending_ = is_ending_ || descriptor == signals_.get();
        has_ended = has_ended || (descriptor == process_.ended.get() && process_.pid != 0);
    }
    // What the process still wrote comes before its end.
    const bool was_clean = dirty_.empty();
    dirty_.merge(folder_.drain());
    if (was_clean && !dirty_.empty()) {
        read_at_boot_ms_ = at.boot_ms + settle_ms;
    }
    if (!dirty_.empty() && (has_ended || at.boot_ms >= read_at_boot_ms_)) {
        distribute(session_.rewritten(std::exchange(dirty_, {}), at), at);
        dirty_ = session_.again();
        publish();
        read_at_boot_ms_ = at.boot_ms + settle_ms;
        find_process(at);
    }
    if (has_ended) {
        dirty_.clear();
        const std::string who = "its process " + std::to_string(process_.pid) + " has ended";
        process_ = DaemonProcess();
        distribute(session_.ended(who, at), at);
        publish();
        keep(at, false);
    }
    if (hooks_ != nullptr) {
        hooks_->tend(at);
    }
    if (at.boot_ms >= next_second_boot_ms_) {
        next_second_boot_ms_ = at.boot_ms + second_ms;
        tick(at);
    }
}

void Watcher::tick(const Moment& now) {
    const bool was_clean = dirty_.empty();
    dirty_.merge(folder_.tend());
    if (was_clean && !dirty_.empty()) {
        read_at_boot_ms_ = now.boot_ms;
    }
    board_.confirm(now);
    output_.flush();
    const auto evidence = [&] {
        searched_boot_ms_ = 0;
        find_process(now);
        if (process_.pid != 0) {
            return DaemonWatch::Evidence::alive;
        }
        return can_see_processes() ? DaemonWatch::Evidence::none : DaemonWatch::Evidence::unknown;
    };
    const auto events = session_.tick(evidence, now);
    distribute(events, now);
    if (!events.empty()) {
        publish();
    }
    const std::int64_t minute = now.wall_ms / minute_ms;
    if (minute != last_minute_) {
        keep(now, false);
        last_minute_ = minute;
    }
    keep_what_is_young(now);
    if (history_ != nullptr) {
        history_->follow_file();
    }
    if (history_ != nullptr && history_->waiting() > 0 &&
        now.boot_ms - written_again_boot_ms_ >= write_again_ms) {
        written_again_boot_ms_ = now.boot_ms;
        history_->commit();
    }
    if (history_state() != published_history_) {
        publish();
    }
    if (history_ != nullptr && now.boot_ms - forgotten_boot_ms_ >= hour_ms &&
        session_.is_clock_trusted(now)) {
        history_->forget_old(now.wall_ms);
        forgotten_boot_ms_ = now.boot_ms;
    }
}

/// Holds on to the process that writes, so that its end is known at once.
void Watcher::find_process(const Moment& now) {
    if (process_.pid != 0) {
        return;
    }
    if (searched_boot_ms_ != 0 && now.boot_ms - searched_boot_ms_ < search_every_ms) {
        return;
    }
    searched_boot_ms_ = now.boot_ms;
    process_ = find_daemon(options_.out_dir);
    if (process_.ended.is_open()) {
        epoll_event event{.events = EPOLLIN, .data = {.fd = process_.ended.get()}};
        epoll_ctl(loop_.get(), EPOLL_CTL_ADD, process_.ended.get(), &event);
    } else {
        // Without a descriptor its end would never be noticed.
        process_.pid = 0;
    }
}

void Watcher::distribute(const std::vector<Event>& events, const Moment& now) {
    if (events.empty()) {
        return;
    }
    for (const Event& event : events) {
        output_.add(options_.as_json ? json_of(event) : line_of(event));
        if (history_ != nullptr) {
            history_->add(event);
        }
        if (!options_.listen.empty()) {
            board_.add(event);
        }
        if (hooks_ != nullptr) {
            hooks_->add(event, now);
        }
    }
    output_.flush();
    if (history_ != nullptr) {
        history_->add(session_.take_spans());
        history_->commit();
    }
    if (std::any_of(events.begin(), events.end(),
                    [](const Event& event) { return event.kind == EventKind::uplink; })) {
        changed_boot_ms_ = spans_kept_boot_ms_ = now.boot_ms;
    }
}

/// A state that has just begun is written again 1, 2, 4, ... seconds later, and with every minute
/// from then on: of what an end without notice leaves, a half at least is in the file.
void Watcher::keep_what_is_young(const Moment& now) {
    const std::int64_t age = now.boot_ms - changed_boot_ms_;
    const std::int64_t kept_age = spans_kept_boot_ms_ - changed_boot_ms_;
    if (history_ == nullptr || age > minute_ms || age < std::max(second_ms, 2 * kept_age)) {
        return;
    }
    spans_kept_boot_ms_ = now.boot_ms;
    history_->add(session_.take_spans());
    history_->commit();
}

HistoryState Watcher::history_state() const {
    return history_ == nullptr ? HistoryState()
                               : HistoryState{.problem = history_->problem(),
                                              .waiting_rows = history_->waiting(),
                                              .lost_rows = history_->lost()};
}

/// Shows what is known now; without a listener nobody looks.
void Watcher::publish() {
    if (options_.listen.empty()) {
        return;
    }
    published_history_ = history_state();
    Unwritten unwritten = session_.unwritten();
    if (history_ != nullptr) {
        std::vector<Span> waiting = history_->waiting_spans();
        unwritten.ended.insert(unwritten.ended.begin(), waiting.begin(), waiting.end());
    }
    board_.publish({.uplinks = session_.world().uplinks(),
                    .rules = session_.world().rules(),
                    .daemon = session_.daemon().state(),
                    .last_written_boot_ms = session_.daemon().last_written_boot_ms(),
                    .history = options_.history == "none" ? "" : options_.history,
                    .history_state = published_history_,
                    .unwritten = std::move(unwritten)},
                   now());
}

/// What the hooks have been told of they may end, within a few seconds.
void Watcher::end_hooks() {
    if (hooks_ == nullptr) {
        return;
    }
    const std::int64_t deadline_boot_ms = now().boot_ms + hooks_end_ms;
    for (Moment at = now(); !hooks_->is_idle() && at.boot_ms < deadline_boot_ms; at = now()) {
        // The loop's own descriptors are still readable: by them it was ended.
        pollfd wanted{.fd = hooks_->fd(), .events = POLLIN, .revents = 0};
        poll(&wanted, 1, 100);
        hooks_->tend(now());
    }
    hooks_->stop();
}

void Watcher::keep(const Moment& now, bool with_current) {
    auto minutes = session_.take_minutes(now, with_current);
    auto spans = session_.take_spans();
    if (history_ != nullptr) {
        history_->add(std::move(minutes));
        history_->add(std::move(spans));
        history_->commit();
    }
}

}  // namespace lbwatch

#include "lbwatch/daemon_watch.h"

namespace lbwatch {

namespace {

/// A daemon that runs rewrites its dumps about once a second.
constexpr std::int64_t without_process_ms = 3000;

}  // namespace

const char* word_of(DaemonState state) {
    switch (state) {
        case DaemonState::unknown:
            return "unknown";
        case DaemonState::running:
            return "running";
        case DaemonState::stale:
            return "stale";
        case DaemonState::stopped:
            return "stopped";
    }
    return "unknown";
}

std::optional<DaemonState> read_daemon_state(const std::string& word) {
    for (const DaemonState state :
         {DaemonState::unknown, DaemonState::running, DaemonState::stale, DaemonState::stopped}) {
        if (word == word_of(state)) {
            return state;
        }
    }
    return std::nullopt;
}

std::optional<Event> DaemonWatch::become(DaemonState state, std::string reason, const Moment& now) {
    if (state == state_) {
        return std::nullopt;
    }
    Event event;
    event.time_ms = now.wall_ms;
    event.kind = EventKind::daemon;
    event.from = word_of(state_);
    event.to = word_of(state);
    event.reason = std::move(reason);
    if (since_boot_ms_) {
        event.after_s = (now.boot_ms - *since_boot_ms_ + 500) / 1000;
    }
    const bool is_first = state_ == DaemonState::unknown;
    state_ = state;
    // What this program meets at its start began before.
    since_boot_ms_ = is_first ? std::nullopt : std::make_optional(now.boot_ms);
    if (is_first && told_) {
        event.from = word_of(*told_);
    }
    const bool is_known = told_ == state;
    told_ = state;
    return is_known ? std::nullopt : std::make_optional(std::move(event));
}

std::optional<Event> DaemonWatch::written(const Moment& now) {
    last_written_boot_ms_ = now.boot_ms;
    return become(DaemonState::running, "", now);
}

std::optional<Event> DaemonWatch::ended(const std::string& reason, const Moment& now) {
    return become(DaemonState::stopped, reason, now);
}

std::optional<Event> DaemonWatch::waited(Evidence evidence, std::int64_t patience_ms,
                                         const Moment& now) {
    if (!begun_boot_ms_) {
        begun_boot_ms_ = now.boot_ms;
    }
    const std::int64_t waited_ms =
        now.boot_ms - (last_written_boot_ms_ ? *last_written_boot_ms_ : *begun_boot_ms_);
    if (evidence == Evidence::none && waited_ms >= without_process_ms) {
        return become(DaemonState::stopped, "there is no process of it", now);
    }
    if (waited_ms < patience_ms || state_ == DaemonState::stopped) {
        return std::nullopt;
    }
    return become(DaemonState::stale,
                  "no file rewritten for " + length_text(waited_ms / 1000) +
                      (evidence == Evidence::alive ? ", its process is there" : ""),
                  now);
}

}  // namespace lbwatch

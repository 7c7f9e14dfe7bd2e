#include "lbwatch/session.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace lbwatch {

namespace {

/// A rewrite takes milliseconds; what stays cut for so long was left by a full disk or by a daemon
/// that was killed over it.
constexpr std::int64_t torn_ms = 2000;
/// Without a rewrite for so long, the process is looked for.
constexpr std::int64_t quiet_ms = 2500;
/// A family whose dump the running daemon has not written by then has no worker.
constexpr std::int64_t family_ms = 60'000;
constexpr std::int64_t day_ms = 86'400'000;

bool is_outbounds(DumpFile file) {
    return file == DumpFile::outbounds4 || file == DumpFile::outbounds6;
}

void append(std::vector<Event>& events, std::vector<Event> more) {
    std::move(more.begin(), more.end(), std::back_inserter(events));
}

void append(std::vector<Event>& events, std::optional<Event> one) {
    if (one) {
        events.push_back(std::move(*one));
    }
}

}  // namespace

Session::Session(const std::string& dump_folder, Notice notice)
    : dumps_(dump_folder), notice_(std::move(notice)) {}

void Session::tell_problem(DumpFile file, const std::string& problem) {
    FileState& state = state_of(file);
    if (problem == state.problem) {
        return;
    }
    notice_(dumps_.path_of(file) + (problem.empty()
                                        ? " can be read again"
                                        : " " + problem +
                                              "; it is not believed, and read again when it is "
                                              "rewritten"));
    state.problem = problem;
}

/// True where the file is whole and new.
bool Session::look(DumpFile file, const Moment& now) {
    FileState& state = state_of(file);
    const Look seen = dumps_.look(file);
    again_.erase(file);
    if (seen.outcome == Look::Outcome::torn) {
        if (!state.torn_since_boot_ms) {
            state.torn_since_boot_ms = now.boot_ms;
        }
        if (now.boot_ms - *state.torn_since_boot_ms < torn_ms) {
            again_.insert(file);
        } else {
            tell_problem(file, "is empty or ends within a record");
        }
        return false;
    }
    state.torn_since_boot_ms.reset();
    if (seen.outcome == Look::Outcome::absent) {
        return false;
    }
    tell_problem(file, seen.problem);
    if (seen.outcome == Look::Outcome::refused) {
        return false;
    }
    written_ms_[static_cast<std::size_t>(file)] = seen.written_ms;
    state.read_boot_ms = now.boot_ms;
    return true;
}

std::vector<Event> Session::rewritten(const std::set<DumpFile>& files, const Moment& now) {
    note_clock(now);
    std::vector<Event> events;
    std::set<DumpFile> whole;
    for (const DumpFile file : files) {
        if (look(file, now)) {
            whole.insert(file);
        }
    }
    if (whole.empty()) {
        return events;
    }
    const bool is_restarted = std::any_of(whole.begin(), whole.end(), [this](DumpFile file) {
        return is_outbounds(file) &&
               world_.is_of_another_run(dumps_.interfaces(file == DumpFile::outbounds6 ? 6 : 4),
                                        written_s(file));
    });
    if (is_restarted && daemon_.state() == DaemonState::running) {
        append(events, ended("it was started anew", now));
        for (const DumpFile file : whole) {
            state_of(file).read_boot_ms = now.boot_ms;
        }
    }
    if (daemon_.state() != DaemonState::running) {
        running_since_boot_ms_ = now.boot_ms;
    }
    append(events, daemon_.written(now));
    patience_ms_ = patience_ms(dumps_.interfaces(4), dumps_.interfaces(6));
    world_.set_patience(patience_ms_);
    for (const int family : {4, 6}) {
        if (whole.contains(outbounds_of(family))) {
            read_family(family, now, events);
        }
    }
    // Rules and routes of a daemon before this one may still lie there.
    if (state_of(DumpFile::rules).read_boot_ms && state_of(DumpFile::routes).read_boot_ms) {
        append(events, world_.read(dumps_.rules(), dumps_.routes(), now));
    }
    return events;
}

void Session::read_family(int family, const Moment& now, std::vector<Event>& events) {
    Changes changes =
        world_.read(family, dumps_.interfaces(family), written_s(outbounds_of(family)), now);
    append(events, std::move(changes.events));
    minutes_.add(changes.cycles, now);
    (family == 6 ? spans6_ : spans4_).see(world_.uplinks(), patience_ms_, now);
}

void Session::stop_seeing() {
    world_.forget_states();
    spans4_.stop();
    spans6_.stop();
    for (FileState& state : files_) {
        state.read_boot_ms.reset();
        state.torn_since_boot_ms.reset();
    }
    again_.clear();
    running_since_boot_ms_.reset();
}

std::vector<Event> Session::ended(const std::string& reason, const Moment& now) {
    std::vector<Event> events;
    append(events, daemon_.ended(reason, now));
    stop_seeing();
    return events;
}

void Session::check_families(const Moment& now, std::vector<Event>& events) {
    for (const int family : {4, 6}) {
        const auto& read_boot_ms = state_of(outbounds_of(family)).read_boot_ms;
        if (!read_boot_ms) {
            if (now.boot_ms - *running_since_boot_ms_ >= std::max(family_ms, patience_ms_)) {
                append(events, world_.drop_family(family, now));
            }
            continue;
        }
        const std::int64_t quiet = now.boot_ms - *read_boot_ms;
        if (quiet > patience_ms_) {
            append(events, world_.expire(family,
                                         std::string(name_of(outbounds_of(family))) +
                                             " not rewritten for " + length_text(quiet / 1000),
                                         now));
            (family == 6 ? spans6_ : spans4_).stop();
        }
    }
}

std::vector<Event> Session::tick(const std::function<DaemonWatch::Evidence()>& evidence,
                                 const Moment& now) {
    note_clock(now);
    std::vector<Event> events;
    const auto& last = daemon_.last_written_boot_ms();
    const bool is_quiet = !last || now.boot_ms - *last >= quiet_ms;
    if (is_quiet && daemon_.state() != DaemonState::stopped) {
        const DaemonState before = daemon_.state();
        append(events, daemon_.waited(evidence(), patience_ms_, now));
        if (daemon_.state() != before) {
            stop_seeing();
        }
    }
    if (running_since_boot_ms_) {
        check_families(now, events);
    }
    return events;
}

void Session::note_clock(const Moment& now) {
    if (last_) {
        const std::int64_t step = clock_step_ms(*last_, now);
        if (step != 0) {
            notice_("the clock was set " + std::string(step > 0 ? "forward" : "back") + " by " +
                    length_text((std::abs(step) + 500) / 1000) + "; the history has a gap there");
        }
        if (std::abs(step) >= day_ms) {
            clock_set_boot_ms_ = now.boot_ms;
        }
    }
    last_ = now;
}

bool Session::is_clock_trusted(const Moment& now) const {
    return !clock_set_boot_ms_ || now.boot_ms - *clock_set_boot_ms_ >= day_ms;
}

std::vector<Span> Session::take_spans() {
    std::vector<Span> spans = spans4_.take();
    std::vector<Span> more = spans6_.take();
    std::move(more.begin(), more.end(), std::back_inserter(spans));
    return spans;
}

Unwritten Session::unwritten() const {
    Unwritten all;
    for (const SpanRecorder* const spans : {&spans4_, &spans6_}) {
        all.ended.insert(all.ended.end(), spans->ended().begin(), spans->ended().end());
        const std::vector<Span> open = spans->open();
        all.open.insert(all.open.end(), open.begin(), open.end());
    }
    return all;
}

}  // namespace lbwatch

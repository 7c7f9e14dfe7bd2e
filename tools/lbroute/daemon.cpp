#include "lbroute/daemon.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "decision/route_text.h"
#include "host/linux/notify_socket.h"
#include "lbroute/daemon_record.h"
#include "lbroute/event_loop.h"
#include "lbroute/findings.h"
#include "lbroute/holds.h"
#include "lbroute/journal.h"
#include "lbroute/namespaces.h"
#include "lbroute/routing.h"
#include "lbroute/site.h"
#include "shared/dump_file.h"
#include "shared/folder_watch.h"
#include "shared/processes.h"

namespace lbroute {

namespace {

/// What failed for a reason of which nothing tells that it is over is tried again: soon, then less
/// and less often, and soon again when the fragments change.
constexpr std::int64_t first_retry_ms = 1000;
constexpr std::int64_t longest_retry_ms = 30'000;
/// How often files are looked at that cannot be watched.
constexpr std::int64_t look_every_ms = 2'000;

std::string folder_of(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path();
    return folder.empty() ? "." : folder;
}

/// Whether the standard error stream is the journal's: systemd names that by device and inode.
bool is_journal() {
    const char* const named = getenv("JOURNAL_STREAM");
    struct stat found {};
    return named != nullptr && fstat(STDERR_FILENO, &found) == 0 &&
           named == std::to_string(found.st_dev) + ":" + std::to_string(found.st_ino);
}

/// The signals that end or wake the program, as a descriptor.
Fd open_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGHUP, SIGTERM, SIGINT}) {
        sigaddset(&signals, number);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    // Whoever read the log may be gone; the routes are not to suffer from it.
    signal(SIGPIPE, SIG_IGN);
    return Fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// What is to be done at the next opportunity.
struct Due {
    bool configuration = true;
    bool namespaces = true;
    bool dumps = true;
    bool holds = true;
    std::set<std::string> fragments;  ///< namespaces whose fragments are to be read
    std::set<std::string> routes;     ///< namespaces whose routes are to be looked at
};

class Daemon {
  public:
    /// The folder is open.
    Daemon(const Options& options, Journal& journal, const StateFolder& folder)
        : options_(options),
          journal_(journal),
          folder_(folder),
          notify_(getenv("NOTIFY_SOCKET")),
          signals_(open_signals()),
          mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
          site_(options.configuration, options.output_directory),
          namespaces_(options, folder, journal, loop_),
          routing_(options, journal) {
        record_.pid = getpid();
        record_.start = shared::start_of(record_.pid);
        record_.table = options.table;
        record_.is_sticky = options.is_sticky;
        record_.bird2_file = options.bird2_file;
    }

    int run() {
        if (!loop_.is_open() || !signals_.is_open()) {
            journal_.say(Level::error,
                         "no descriptors for signals or time: the limit of open files is too low");
            return 1;
        }
        if (!namespaces_.begin()) {
            return 1;
        }
        loop_.watch(signals_.get());
        loop_.watch(mounts_.get(), true);
        if (options_.flushes && options_.runs_once) {
            return flush_and_end();
        }
        work();
        if (namespaces_.is_refused()) {
            return end(1);
        }
        notify_.send("READY=1");
        if (options_.runs_once) {
            return finish_once();
        }
        while (!is_ending_) {
            loop_.wait(next_deadline_ms());
            gather();
            if (!is_ending_) {
                work();
            }
        }
        notify_.send("STOPPING=1");
        return end(0);
    }

  private:
    // What happened.

    void gather() {
        take_signals();
        take_file_changes();
        due_.namespaces = true;  // costs a few stat(2), and mountinfo tells nothing but "changed"
        const std::int64_t now = boottime_ms();
        for (auto& [name, served] : namespaces_.served()) {
            if (served.kernel.is_entered() && served.kernel.take_announcements()) {
                due_.routes.insert(name);
            }
            for (const FragmentFile& file : served.kernel.fragments()) {
                if (file.read_again_at_ms() && *file.read_again_at_ms() <= now) {
                    due_.fragments.insert(name);
                }
            }
            if (served.uncertain_until_ms && *served.uncertain_until_ms <= now) {
                due_.routes.insert(name);
            }
        }
        due_.dumps |= site_.read_again_at_ms() && *site_.read_again_at_ms() <= now;
        const auto hold_end = next_end_ms(holds_);
        due_.holds |= hold_end && *hold_end <= now;
        retry(now);
    }

    void retry(std::int64_t now) {
        if (!due_.fragments.empty()) {
            retry_after_ms_ = first_retry_ms;
            retry_at_ms_.reset();
        }
        if (!retry_at_ms_ || *retry_at_ms_ > now) {
            return;
        }
        retry_at_ms_.reset();
        retry_after_ms_ = std::min(2 * retry_after_ms_, longest_retry_ms);
        look_at_everything();
    }

    void look_at_everything() {
        due_.configuration = due_.dumps = due_.holds = true;
        for (auto& [name, served] : namespaces_.served()) {
            due_.fragments.insert(name);
            served.kernel.forget_foreign();
        }
    }

    bool is_wanting() const {
        return !site_.is_read() || !are_holds_read_ || !is_record_left_ ||
               std::ranges::any_of(namespaces_.served(), [](const auto& entry) {
                   const Served& served = entry.second;
                   return !served.is_claimed || !served.kernel.is_entered() || !served.is_good ||
                          std::ranges::any_of(
                              served.kernel.fragments(),
                              [](const FragmentFile& file) { return !file.problems().empty(); });
               });
    }

    void take_signals() {
        signalfd_siginfo info{};
        while (read(signals_.get(), &info, sizeof info) == sizeof info) {
            if (info.ssi_signo != SIGHUP) {
                is_ending_ = true;
                continue;
            }
            look_at_everything();
        }
    }

    void take_file_changes() {
        if (files_.is_blind() && look_at_ms_ <= boottime_ms()) {
            look_at_ms_ = boottime_ms() + look_every_ms;
            look_at_everything();
        }
        const shared::FolderWatch::Changes changes = files_.drain();
        const auto has_changed = [&](const std::string& path) {
            return changes.is_all || changes.paths.contains(path);
        };
        due_.configuration |= has_changed(options_.configuration);
        due_.holds |= has_changed(std::string(StateFolder::usual_path) + "/holds");
        for (const int family : {4, 6}) {
            due_.dumps |= has_changed(site_.dump_folder() + "/" +
                                      shared::name_of(shared::outbounds_of(family)));
        }
        for (auto& [name, served] : namespaces_.served()) {
            for (const FragmentFile& file : served.kernel.fragments()) {
                if (has_changed(file.path())) {
                    due_.fragments.insert(name);
                }
            }
        }
    }

    std::optional<std::int64_t> next_deadline_ms() const {
        const std::int64_t now = boottime_ms();
        std::optional<std::int64_t> earliest;
        const auto consider = [&earliest](const std::optional<std::int64_t>& time) {
            if (time && (!earliest || *time < *earliest)) {
                earliest = time;
            }
        };
        consider(site_.read_again_at_ms());
        consider(next_end_ms(holds_));
        consider(retry_at_ms_);
        if (files_.is_blind()) {
            consider(look_at_ms_);
        }
        for (const auto& [name, served] : namespaces_.served()) {
            for (const FragmentFile& file : served.kernel.fragments()) {
                consider(file.read_again_at_ms());
            }
            if (served.uncertain_until_ms && *served.uncertain_until_ms > now) {
                consider(served.uncertain_until_ms);
            }
        }
        return earliest;
    }

    // What is to be done.

    void work() {
        const Due due = std::exchange(due_, Due{.configuration = false,
                                                .namespaces = false,
                                                .dumps = false,
                                                .holds = false,
                                                .fragments = {},
                                                .routes = {}});
        bool is_for_all = false;
        // Before anything is read: what is written from now on wakes us.
        watch_files();
        if (due.configuration) {
            is_for_all |= site_.read_configuration();
            journal_.tell("configuration", site_.problems());
        }
        if (due.dumps) {
            is_for_all |= site_.read_dumps(boottime_ms());
        }
        if (due.holds) {
            is_for_all |= read_holds_anew();
        }
        std::set<std::string> to_route = due.routes;
        std::set<std::string> to_read = due.fragments;
        if (due.configuration || due.namespaces) {
            to_read.merge(namespaces_.follow(served_names(), due.configuration));
        }
        watch_files();  // with the fragments of namespaces that have just come
        if (namespaces_.is_refused()) {
            return;
        }
        for (const std::string& name : to_read) {
            read_fragments(name);
            to_route.insert(name);
        }
        for (auto& [name, served] : namespaces_.served()) {
            const bool is_ours = served.is_claimed && served.kernel.is_entered();
            if (is_ours && (is_for_all || to_route.contains(name))) {
                route(name, served);
            }
        }
        watch_files();
        tell_of_watching();
        leave_record(due.configuration);
        if (!is_wanting()) {
            retry_after_ms_ = first_retry_ms;
            retry_at_ms_.reset();
        } else if (!retry_at_ms_) {
            retry_at_ms_ = boottime_ms() + retry_after_ms_;
        }
    }

    void route(const std::string& name, Served& served) {
        const auto result = routing_.route(served, surroundings_of(name, site_.uplinks(), holds_));
        if (result.is_whole()) {
            note_refusals(record_, name, result.view);
        }
        Journal::Problems unwatched;
        for (const FragmentFile& file : served.kernel.fragments()) {
            const std::string text = unwatched_text(file, name, site_.uplinks());
            if (site_.problems().empty() && !text.empty()) {
                unwatched[text] = Level::warning;
            }
        }
        journal_.tell("watched " + name, unwatched);
    }

    void tell_of_watching() {
        Journal::Problems problems;
        if (files_.is_blind()) {
            problems
                ["not all files that matter can be watched; they are looked at every few "
                 "seconds instead: " +
                 files_.blindness()] = Level::warning;
        }
        journal_.tell("watch", problems);
    }

    /// `tries_again`: also what could not be written. Not at every wake: each try wakes us, by its
    /// change of the folder.
    void leave_record(bool tries_again) {
        record_.not_served = namespaces_.not_served();
        if (record_ != left_ || (tries_again && !is_record_left_)) {
            Journal::Problems problems;
            const std::string problem = write_record(folder_, record_);
            if (!problem.empty()) {
                problems["lbroute status will lack the kernel's reasons: " + problem] =
                    Level::warning;
            }
            journal_.tell("record", problems);
            left_ = record_;
            is_record_left_ = problem.empty();
        }
    }

    /// The namespaces that are to be served.
    std::set<std::string> served_names() {
        std::set<std::string> names = site_.uplinks().namespaces;
        if (!routing_.is_for_bird()) {
            return names;
        }
        names.erase("");
        Journal::Problems problems;
        for (const std::string& name : names) {
            problems["namespace " + name + " is not served: bird is given the default one only"] =
                Level::warning;
        }
        journal_.tell("namespaces", problems);
        return {""};
    }

    void read_fragments(const std::string& name) {
        const auto found = namespaces_.served().find(name);
        if (found == namespaces_.served().end()) {
            return;
        }
        for (FragmentFile& file : found->second.kernel.fragments()) {
            const auto before = file.in_force();
            file.read(boottime_ms());
            journal_.tell(file.path(), file.problems());
            if (file.in_force() != before) {
                found->second.uncertain_until_ms.reset();
            }
        }
    }

    bool read_holds_anew() {
        std::string problem;
        const StateFolder folder =
            StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::leave, problem);
        HoldsReading reading = read_holds(folder, boottime_ms());
        Journal::Problems problems;
        for (const std::string& one : {problem, reading.problem}) {
            if (!one.empty()) {
                problems[one] = Level::error;
            }
        }
        journal_.tell("holds", problems);
        are_holds_read_ = problem.empty() && !reading.is_unread;
        if (!are_holds_read_) {
            // What is held stays held, until its time is over.
            const std::size_t before = holds_.size();
            drop_ended(holds_, boottime_ms());
            return holds_.size() != before;
        }
        const bool differs = reading.holds != holds_;
        holds_ = std::move(reading.holds);
        return differs;
    }

    void watch_files() {
        std::set<std::string> folders{folder_of(options_.configuration), "/var/run/netns",
                                      StateFolder::usual_path};
        bool is_shared = site_.has_learning_uplinks();
        for (const auto& [name, served] : namespaces_.served()) {
            folders.insert(folder_of(fragment_path(name, false)));
            folders.insert(folder_of(pid_path(name, false)));
            is_shared |= served.is_shared;
        }
        // The daemon rewrites its dumps in every cycle; they wake us only where they tell more than
        // the fragments.
        if (is_shared) {
            folders.insert(site_.dump_folder());
        }
        files_.watch(folders);
        if (files_.descriptor() != watched_descriptor_) {
            watched_descriptor_ = files_.descriptor();
            loop_.watch(watched_descriptor_);
        }
    }

    // The end.

    /// Waits for what is just being written, and no longer.
    int finish_once() {
        while (next_deadline_ms() && !is_ending_ && is_waiting_for_files()) {
            loop_.wait(next_deadline_ms());
            gather();
            work();
        }
        bool is_good = true;
        for (const auto& [name, served] : namespaces_.served()) {
            is_good &= served.is_good;
            for (const FragmentFile& file : served.kernel.fragments()) {
                is_good &= file.problems().empty();
            }
        }
        return end(is_good ? 0 : 1);
    }

    bool is_waiting_for_files() const {
        return site_.read_again_at_ms() ||
               std::ranges::any_of(namespaces_.served(), [](const auto& entry) {
                   return entry.second.is_uncertain ||
                          std::ranges::any_of(entry.second.kernel.fragments(),
                                              [](const FragmentFile& file) {
                                                  return file.read_again_at_ms().has_value();
                                              });
               });
    }

    int flush_and_end() {
        site_.read_configuration();
        namespaces_.follow(served_names(), false);
        return end(namespaces_.not_served().empty() ? 0 : 1);
    }

    int end(int status) {
        if (options_.flushes && !namespaces_.is_refused()) {
            for (const std::string& problem :
                 routing_.is_for_bird() ? routing_.flush_bird() : namespaces_.flush()) {
                journal_.say(Level::error, problem);
                status = 1;
            }
        }
        namespaces_.release();
        return status;
    }

    const Options& options_;
    Journal& journal_;
    const StateFolder& folder_;
    NotifySocket notify_;
    Fd signals_;
    Fd mounts_;
    EventLoop loop_;
    shared::FolderWatch files_;
    int watched_descriptor_ = -1;  // of files_, which has none while the kernel gives none
    std::int64_t look_at_ms_ = 0;  // while some file cannot be watched
    Site site_;
    Namespaces namespaces_;
    Routing routing_;
    DaemonRecord record_;
    DaemonRecord left_;  // as it was written, or was to be
    bool is_record_left_ = false;
    std::vector<Hold> holds_;
    bool are_holds_read_ = false;
    std::optional<std::int64_t> retry_at_ms_;
    std::int64_t retry_after_ms_ = first_retry_ms;
    Due due_;
    bool is_ending_ = false;
};

}  // namespace

int run(const Options& options) {
    Journal journal(is_journal());
    std::string problem;
    const StateFolder folder =
        StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::make, problem);
    if (!folder.is_open()) {
        journal.say(Level::error, problem);
        return 1;
    }
    return Daemon(options, journal, folder).run();
}

}  // namespace lbroute

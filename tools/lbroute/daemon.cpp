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
#include <map>
#include <memory>
#include <set>

#include "decision/route_text.h"
#include "host/linux/notify_socket.h"
#include "lbroute/bird2.h"
#include "lbroute/daemon_record.h"
#include "lbroute/event_loop.h"
#include "lbroute/findings.h"
#include "lbroute/holds.h"
#include "lbroute/journal.h"
#include "lbroute/left_behind.h"
#include "lbroute/ownership.h"
#include "lbroute/served_namespace.h"
#include "lbroute/site.h"
#include "shared/dump_file.h"
#include "shared/folder_watch.h"
#include "shared/processes.h"

namespace lbroute {

namespace {

/// How long the daemon's dumps are waited for where they alone tell whose a next hop is.
constexpr std::int64_t dumps_patience_ms = 1500;
/// What failed for a reason of which nothing tells that it is over is tried again: soon, then less
/// and less often, and soon again when the fragments change.
constexpr std::int64_t first_retry_ms = 1000;
constexpr std::int64_t longest_retry_ms = 30'000;
/// How often files are looked at that cannot be watched.
constexpr std::int64_t look_every_ms = 2'000;
/// More changed routes than these are told as a number.
constexpr std::size_t most_told_routes = 20;

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
    explicit Daemon(const Options& options)
        : options_(options),
          journal_(is_journal()),
          notify_(getenv("NOTIFY_SOCKET")),
          signals_(open_signals()),
          mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
          site_(options.configuration, options.output_directory),
          bird_(options.bird2_file, options.birdc) {}

    int run() {
        if (!loop_.is_open() || !signals_.is_open()) {
            journal_.say(Level::error,
                         "no descriptors for signals or time: the limit of open files is too low");
            return 1;
        }
        if (!take_place()) {
            return 1;
        }
        loop_.watch(signals_.get());
        if (files_.descriptor() >= 0) {
            loop_.watch(files_.descriptor());
        }
        loop_.watch(mounts_.get(), true);
        if (options_.flushes && options_.runs_once) {
            return flush_and_end();
        }
        work();
        if (is_refused_) {
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
    struct Served {
        explicit Served(const std::string& name, const Options& options) : kernel(name, options) {}

        ServedNamespace kernel;
        std::optional<std::int64_t> uncertain_since_ms;
        std::map<std::string, std::string> paths;  ///< what was told of each route
        bool is_claimed = false;                   ///< its process number files are ours
        bool is_shared = false;
        bool is_uncertain = false;
        bool is_good = false;  ///< everything that the fragments ask for is in force
    };

    // The place of the routing daemon.

    bool take_place() {
        std::string problem;
        folder_ = StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::make, problem);
        if (!folder_.is_open()) {
            journal_.say(Level::error, problem);
            return false;
        }
        ownership_.emplace(folder_);
        record_.pid = getpid();
        record_.start = shared::start_of(record_.pid);
        record_.table = options_.table;
        record_.is_sticky = options_.is_sticky;
        record_.bird2_file = options_.bird2_file;
        return told(ownership_->begin());
    }

    bool told(const Ownership::Outcome& outcome) const {
        for (const std::string& note : outcome.notes) {
            journal_.say(Level::notice, note);
        }
        if (outcome.kind != Ownership::Outcome::Kind::owned) {
            journal_.say(Level::error, outcome.reason);
        }
        return outcome.kind == Ownership::Outcome::Kind::owned;
    }

    /// Takes the place of the routing daemon in one namespace, or has the record tell why not.
    void claim(const std::string& name, Served& served) {
        const bool is_start = name.empty() && !record_.not_served.contains(name);
        const Ownership::Outcome outcome = ownership_->claim(name);
        served.is_claimed = outcome.kind == Ownership::Outcome::Kind::owned;
        if (!served.is_claimed) {
            record_.not_served[name] = outcome.reason;
            // Later it serves others, and is tried again.
            is_refused_ = is_start && outcome.kind == Ownership::Outcome::Kind::refused;
            return;
        }
        record_.not_served.erase(name);
        told(outcome);
    }

    // What happened.

    void gather() {
        take_signals();
        take_file_changes();
        due_.namespaces = true;  // costs a few stat(2), and mountinfo tells nothing but "changed"
        const std::int64_t now = boottime_ms();
        for (auto& [name, served] : served_) {
            if (served.kernel.is_entered() && served.kernel.take_announcements()) {
                due_.routes.insert(name);
            }
            for (const FragmentFile& file : served.kernel.fragments()) {
                if (file.read_again_at_ms() && *file.read_again_at_ms() <= now) {
                    due_.fragments.insert(name);
                }
            }
            if (served.uncertain_since_ms &&
                *served.uncertain_since_ms + dumps_patience_ms <= now) {
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
        for (auto& [name, served] : served_) {
            due_.fragments.insert(name);
            served.kernel.forget_foreign();
        }
    }

    bool is_wanting() const {
        return !site_.is_read() || !are_holds_read_ || !is_record_left_ ||
               std::ranges::any_of(served_, [](const auto& entry) {
                   const Served& served = entry.second;
                   return !served.kernel.is_entered() || !served.is_good ||
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
        for (auto& [name, served] : served_) {
            for (const FragmentFile& file : served.kernel.fragments()) {
                if (has_changed(file.path())) {
                    due_.fragments.insert(name);
                }
            }
        }
    }

    std::optional<std::int64_t> next_deadline_ms() const {
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
        for (const auto& [name, served] : served_) {
            for (const FragmentFile& file : served.kernel.fragments()) {
                consider(file.read_again_at_ms());
            }
            if (served.uncertain_since_ms && !is_over(*served.uncertain_since_ms)) {
                consider(*served.uncertain_since_ms + dumps_patience_ms);
            }
        }
        return earliest;
    }

    static bool is_over(std::int64_t since_ms) {
        return boottime_ms() >= since_ms + dumps_patience_ms;
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
            follow_namespaces(to_read, due.configuration);
        }
        watch_files();  // with the fragments of namespaces that have just come
        if (is_refused_) {
            return;
        }
        for (const std::string& name : to_read) {
            read_fragments(name);
            to_route.insert(name);
        }
        for (auto& [name, served] : served_) {
            if (is_for_all || to_route.contains(name)) {
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

    void tell_of_watching() {
        Journal::Problems problems;
        if (files_.is_blind()) {
            problems
                ["not all files that matter can be watched; they are looked at every few "
                 "seconds instead (sysctl fs.inotify tells the limits; raise "
                 "max_user_watches or max_user_instances)"] = Level::warning;
        }
        journal_.tell("watch", problems);
    }

    /// `tries_again`: also what could not be written. Not at every wake: each try wakes us, by its
    /// change of the folder.
    void leave_record(bool tries_again) {
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

    /// Namespaces come and go with the configuration, and with their names below /var/run/netns.
    /// `claims_again`: also those whose place could not be taken.
    void follow_namespaces(std::set<std::string>& to_read, bool claims_again) {
        const std::set<std::string> named = served_names();
        Journal::Problems left_behind;
        for (auto& [name, served] : served_) {
            if (!named.contains(name)) {
                ownership_->release(name);
                record_.not_served.erase(name);
                left_behind.merge(left_behind_in(served.kernel));
            }
        }
        std::erase_if(served_, [&](const auto& entry) { return !named.contains(entry.first); });
        journal_.tell("left namespaces", left_behind);
        for (const std::string& name : named) {
            const auto [entry, is_new] = served_.try_emplace(name, name, options_);
            Served& served = entry->second;
            const bool is_to_claim = !served.is_claimed && (is_new || claims_again);
            if (is_to_claim) {
                claim(name, served);
            }
            std::string problem;
            const bool has_changed = served.is_claimed && served.kernel.follow(problem);
            Journal::Problems problems;
            if (!served.is_claimed) {
                problems[(name.empty() ? "the default namespace" : "namespace " + name) +
                         " is not served: " + record_.not_served[name]] = Level::error;
            } else if (!problem.empty()) {
                problems[problem] = Level::error;
            } else if (!served.kernel.is_entered()) {
                problems["namespace " + name + " is not there: its routes wait for it"] =
                    Level::notice;
            }
            journal_.tell("namespace " + name, problems);
            if (has_changed && served.kernel.is_entered()) {
                loop_.watch(served.kernel.monitor_descriptor());
            }
            if (is_refused_) {
                return;
            }
            if (has_changed || (is_to_claim && served.is_claimed)) {
                to_read.insert(name);
                served.paths.clear();
            }
        }
    }

    /// The namespaces that are to be served.
    std::set<std::string> served_names() {
        std::set<std::string> names = site_.uplinks().namespaces();
        if (!is_for_bird()) {
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
        const auto found = served_.find(name);
        if (found == served_.end()) {
            return;
        }
        for (FragmentFile& file : found->second.kernel.fragments()) {
            const auto before = file.in_force();
            file.read(boottime_ms());
            journal_.tell(file.path(), file.problems());
            if (file.in_force() != before) {
                found->second.uncertain_since_ms.reset();
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

    void route(const std::string& name, Served& served) {
        if (!served.kernel.is_entered()) {
            return;
        }
        const bool guesses = served.uncertain_since_ms && is_over(*served.uncertain_since_ms);
        const Surroundings surroundings = surroundings_of(name, site_.uplinks(), holds_);
        const auto result = is_for_bird() ? served.kernel.plan_for_others(surroundings, guesses)
                                          : served.kernel.put_into_force(surroundings, guesses);
        if (!result.is_uncertain && !guesses) {
            served.uncertain_since_ms.reset();
        } else if (!served.uncertain_since_ms) {
            served.uncertain_since_ms = boottime_ms();
        }
        served.is_shared = result.is_shared;
        served.is_uncertain = result.is_uncertain;
        tell_changes(name, served, result);
        forget_flows(name, served, result.abandoned);
        if (result.is_whole()) {
            note_refusals(record_, name, result.view);
        }
    }

    bool is_for_bird() const { return !options_.bird2_file.empty(); }

    /// Gives the routes to bird, once all of them are known, and adds what is wrong with that.
    /// True where bird has taken them over.
    bool hand_to_bird(const Served& served, const ServedNamespace::Result& result,
                      Journal::Problems& problems) {
        const bool is_known =
            result.view.problem.empty() && !result.is_uncertain && served.kernel.knows_fragments();
        if (!is_known) {
            return false;
        }
        const Bird2Text made =
            bird2_text_of_plan(result.view.wanted.routes, served.kernel.fragments());
        for (const std::string& left_out : made.left_out) {
            problems[left_out] = Level::warning;
        }
        if (!result.view.kernel.routes.empty()) {
            problems
                ["routes of an earlier lbroute without --bird2 stand in the way of bird's: stop "
                 "lbroute, then lbroute --once --flush"] = Level::error;
        }
        const std::string refusal = bird_.put(made.text);
        if (!refusal.empty()) {
            problems[refusal] = Level::error;
        }
        return refusal.empty();
    }

    void forget_flows(const std::string& name, Served& served,
                      const std::vector<Address>& addresses) {
        if (options_.keeps_flows || addresses.empty()) {
            return;
        }
        const FlowTable::Result flows = served.kernel.forget_flows(addresses);
        const std::string where = name.empty() ? "" : "namespace " + name + ": ";
        Journal::Problems problems;
        if (!flows.problem.empty()) {
            problems[where + "translated flows of a lost uplink stay: " + flows.problem] =
                Level::warning;
        }
        journal_.tell("flows " + name, problems);
        if (flows.deleted > 0) {
            std::string text;
            for (const Address& address : addresses) {
                text += (text.empty() ? "" : ", ") + address.text();
            }
            journal_.say(Level::information, where + "forgot " + std::to_string(flows.deleted) +
                                                 " flows translated to " + text +
                                                 ": their uplink left its last route");
        }
    }

    void tell_changes(const std::string& name, Served& served,
                      const ServedNamespace::Result& result) {
        if (!result.mode_reason.empty()) {
            journal_.say(Level::notice,
                         (name.empty() ? "" : "namespace " + name + ": ") + result.mode_reason +
                             ", so routes are " + word_of(served.kernel.mode()) +
                             " ones: flows may move between uplinks when one leaves or returns");
        }
        Journal::Problems problems = problems_of(result.view, name);
        const bool is_handed_over = !is_for_bird() || hand_to_bird(served, result, problems);
        for (const std::string& failed : result.failed_removals) {
            problems["not removed: " + failed] = Level::warning;
        }
        journal_.tell("routes " + name, problems);
        served.is_good = std::ranges::all_of(
            problems, [](const auto& problem) { return problem.second >= Level::notice; });
        if (!result.view.problem.empty() || !is_handed_over) {
            return;
        }
        std::map<std::string, std::string> paths;
        for (const PlannedRoute& route : result.view.wanted.routes) {
            paths[title_of(route, name)] = path_text(route);
        }
        std::vector<std::string> changes;
        for (const auto& [title, path] : paths) {
            const auto before = served.paths.find(title);
            const bool has_changed = before == served.paths.end() || before->second != path;
            // That a route has none is told with the reason, as a problem.
            if (has_changed && path != no_path) {
                changes.push_back(title + " " + path);
            }
        }
        for (const auto& [title, path] : served.paths) {
            if (!paths.contains(title)) {
                changes.push_back(title + " is not routed any more");
            }
        }
        if (changes.size() > most_told_routes) {
            journal_.say(Level::information, std::to_string(changes.size()) + " routes changed");
        } else {
            for (const std::string& change : changes) {
                journal_.say(Level::information, change);
            }
        }
        served.paths = std::move(paths);
    }

    void watch_files() {
        std::set<std::string> folders{folder_of(options_.configuration), "/var/run/netns",
                                      StateFolder::usual_path};
        bool is_shared = site_.has_learning_uplinks();
        for (const auto& [name, served] : served_) {
            folders.insert(folder_of(fragment_path(name, false)));
            is_shared |= served.is_shared;
        }
        // The daemon rewrites its dumps in every cycle; they wake us only where they tell more than
        // the fragments.
        if (is_shared) {
            folders.insert(site_.dump_folder());
        }
        files_.watch(folders);
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
        for (const auto& [name, served] : served_) {
            is_good &= served.is_good;
            for (const FragmentFile& file : served.kernel.fragments()) {
                is_good &= file.problems().empty();
            }
        }
        return end(is_good ? 0 : 1);
    }

    bool is_waiting_for_files() const {
        return site_.read_again_at_ms() || std::ranges::any_of(served_, [](const auto& entry) {
                   return entry.second.is_uncertain ||
                          std::ranges::any_of(entry.second.kernel.fragments(),
                                              [](const FragmentFile& file) {
                                                  return file.read_again_at_ms().has_value();
                                              });
               });
    }

    int flush_and_end() {
        site_.read_configuration();
        std::set<std::string> ignored;
        follow_namespaces(ignored, false);
        return end(record_.not_served.empty() ? 0 : 1);
    }

    int end(int status) {
        if (options_.flushes && !is_refused_) {
            for (const std::string& problem : is_for_bird() ? flush_bird() : flush_kernel()) {
                journal_.say(Level::error, problem);
                status = 1;
            }
        }
        ownership_->release_all();
        return status;
    }

    /// Also in namespaces that the configuration does not name any more.
    std::vector<std::string> flush_kernel() {
        std::vector<std::string> problems;
        std::set<std::string> names;
        for (auto& [name, served] : served_) {
            names.insert(name);
            if (served.kernel.is_entered()) {
                std::ranges::move(flush(served.kernel), std::back_inserter(problems));
            }
        }
        std::ranges::move(flush_others(names, options_), std::back_inserter(problems));
        return problems;
    }

    std::vector<std::string> flush_bird() {
        const std::string refusal = bird_.put(bird2_text({}, {}).text);
        return refusal.empty() ? std::vector<std::string>{} : std::vector{refusal};
    }

    const Options& options_;
    Journal journal_;
    NotifySocket notify_;
    Fd signals_;
    Fd mounts_;
    EventLoop loop_;
    shared::FolderWatch files_;
    std::int64_t look_at_ms_ = 0;  ///< while some file cannot be watched
    Site site_;
    Bird2File bird_;
    StateFolder folder_;
    std::optional<Ownership> ownership_;
    DaemonRecord record_;
    DaemonRecord left_;  // as it was written, or was to be
    bool is_record_left_ = false;
    std::vector<Hold> holds_;
    bool are_holds_read_ = false;
    std::optional<std::int64_t> retry_at_ms_;
    std::int64_t retry_after_ms_ = first_retry_ms;
    std::map<std::string, Served> served_;
    Due due_;
    bool is_ending_ = false;
    bool is_refused_ = false;  // at the start, another routing daemon has the default namespace
};

}  // namespace

int run(const Options& options) {
    return Daemon(options).run();
}

}  // namespace lbroute

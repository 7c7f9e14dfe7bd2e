#include "lbroute/daemon.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "base/fd.h"
#include "host/linux/notify_socket.h"
#include "lbroute/event_loop.h"
#include "lbroute/holds.h"
#include "lbroute/journal.h"
#include "lbroute/watched_files.h"
#include "lbroute/work.h"

namespace lbroute {

namespace {

/// What failed for a reason of which nothing tells that it is over is tried again: soon, then less
/// and less often, and soon again when the fragments change.
constexpr std::int64_t first_retry_ms = 1000;
constexpr std::int64_t longest_retry_ms = 30'000;

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

/// The loop: waits, gathers what is due, and has it worked off.
class Daemon {
  public:
    /// The folder is open.
    Daemon(const Options& options, Journal& journal, const StateFolder& folder)
        : options_(options),
          journal_(journal),
          notify_(getenv("NOTIFY_SOCKET")),
          signals_(open_signals()),
          mounts_(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)),
          work_(options, folder, journal, loop_),
          files_(options, work_.site(), loop_, journal) {}

    int run() {
        if (!loop_.is_open() || !signals_.is_open()) {
            journal_.say(Level::error,
                         "no descriptors for signals or time: the limit of open files is too low");
            return 1;
        }
        if (!work_.namespaces().begin()) {
            return 1;
        }
        loop_.watch(signals_.get());
        loop_.watch(mounts_.get(), true);
        if (options_.flushes && options_.runs_once) {
            return end(work_.prepare_flush() ? 0 : 1);
        }
        work();
        if (work_.namespaces().is_refused()) {
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
        for (auto& [name, served] : work_.namespaces().served()) {
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
        due_.dumps |= work_.site().read_again_at_ms() && *work_.site().read_again_at_ms() <= now;
        const auto hold_end = next_end_ms(work_.holds());
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
        for (auto& [name, served] : work_.namespaces().served()) {
            due_.fragments.insert(name);
            served.kernel.forget_foreign();
        }
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
        const WatchedFiles::Changes changes = files_.take_changes(work_.namespaces().served());
        if (changes.is_time_to_look) {
            look_at_everything();
        }
        due_.configuration |= changes.configuration;
        due_.holds |= changes.holds;
        due_.dumps |= changes.dumps;
        due_.fragments.insert(changes.fragments.begin(), changes.fragments.end());
    }

    std::optional<std::int64_t> next_deadline_ms() const {
        const std::int64_t now = boottime_ms();
        std::optional<std::int64_t> earliest;
        const auto consider = [&earliest](const std::optional<std::int64_t>& time) {
            if (time && (!earliest || *time < *earliest)) {
                earliest = time;
            }
        };
        consider(work_.site().read_again_at_ms());
        consider(next_end_ms(work_.holds()));
        consider(retry_at_ms_);
        consider(files_.next_look_ms());
        for (const auto& [name, served] : work_.namespaces().served()) {
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
        work_.run(std::exchange(due_, Due{.configuration = false,
                                          .namespaces = false,
                                          .dumps = false,
                                          .holds = false,
                                          .fragments = {},
                                          .routes = {}}),
                  files_);
        if (work_.namespaces().is_refused()) {
            return;
        }
        if (!work_.is_wanting()) {
            retry_after_ms_ = first_retry_ms;
            retry_at_ms_.reset();
        } else if (!retry_at_ms_) {
            retry_at_ms_ = boottime_ms() + retry_after_ms_;
        }
    }

    // The end.

    /// Waits for what is just being written, and no longer.
    int finish_once() {
        while (next_deadline_ms() && !is_ending_ && work_.is_waiting_for_files()) {
            loop_.wait(next_deadline_ms());
            gather();
            work();
        }
        return end(work_.is_good() ? 0 : 1);
    }

    int end(int status) {
        if (options_.flushes && !work_.namespaces().is_refused()) {
            for (const std::string& problem : work_.flush()) {
                journal_.say(Level::error, problem);
                status = 1;
            }
        }
        work_.namespaces().release();
        return status;
    }

    const Options& options_;
    Journal& journal_;
    NotifySocket notify_;
    Fd signals_;
    Fd mounts_;
    EventLoop loop_;
    Work work_;
    WatchedFiles files_;
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

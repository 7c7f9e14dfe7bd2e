#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "base/fd.h"
#include "lbwatch/event.h"
#include "lbwatch/hook_queue.h"
#include "lbwatch/moment.h"

namespace lbwatch {

/// Runs the executables of a folder for each event, in the order of their names: the event in the
/// environment (LB_EVENT and the others that lbwatch(8) lists), its JSON object on standard input.
/// Each has half a minute, then it is killed with its process group, as is what one leaves behind
/// when it ends. Waits for nothing; one thread. Notices, one line each, go to `notice`.
class Hooks {
  public:
    using Notice = std::function<void(const std::string& line)>;

    Hooks(std::string folder, Notice notice);
    ~Hooks();
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    /// Readable when a hook says something or ends: then tend() is due.
    int fd() const { return events_.get(); }

    void add(const Event& event, const Moment& now);
    void tend(const Moment& now);

    bool is_idle() const { return jobs_.empty() && queue_.is_empty(); }

    /// Starts nothing more; kills what runs and tells what was left undone.
    void stop();

  private:
    /// One event on its way through the executables.
    struct Job {
        Event event;
        std::deque<std::string> left;  ///< names still to run
        std::string name;              ///< the one that runs
        pid_t pid = 0;
        Fd ended;   ///< of pidfd_open(2)
        Fd output;  ///< what it prints
        std::string said;
        std::int64_t deadline_boot_ms = 0;
        bool is_killed = false;
        bool is_flooding = false;
    };

    std::deque<std::string> executables();
    void refuse(const std::string& path, const std::string& why);
    bool start(Job& job, const Moment& now);
    void read_output(Job& job) const;
    bool reap(Job& job);
    void start_waiting(const Moment& now);

    std::string folder_;
    Notice notice_;
    Fd events_;
    HookQueue queue_;
    std::list<Job> jobs_;
    std::set<std::string> refused_;
};

/// The variables for an event, NAME=value; control characters come out as \xNN.
std::vector<std::string> hook_environment(const Event& event);

}  // namespace lbwatch

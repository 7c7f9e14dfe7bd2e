#include "lbwatch/hooks.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "lbwatch/json.h"
#include "shared/folder_names.h"
#include "shared/plain_text.h"

namespace lbwatch {

namespace {

constexpr std::int64_t limit_ms = 30'000;
/// Of what a hook prints, so much is told; the rest is read and dropped, so that it can go on.
constexpr std::size_t most_said = 4096;

/// Empty where only root, or who runs this program, can have put it there.
std::string fault_of(const struct stat& found) {
    if (found.st_uid != 0 && found.st_uid != geteuid()) {
        return "its owner is not root";
    }
    return (found.st_mode & (S_IWGRP | S_IWOTH)) != 0 ? "others than its owner may write it" : "";
}

/// A file of memory that holds the text, to be read from its begin.
OpenedFd input_of(const std::string& text) {
    OpenedFd file = just_opened(memfd_create("event", MFD_CLOEXEC));
    if (file.is_open() &&
        (write(file.fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
         lseek(file.fd.get(), 0, SEEK_SET) != 0)) {
        return {.fd = Fd(), .error = errno};
    }
    return file;
}

struct Spawned {
    pid_t pid = 0;  ///< 0: none
    int error = 0;  ///< as in errno(3)
};

/// Starts a program in a process group of its own.
Spawned spawn(const std::string& path, std::vector<std::string> environment, int input,
              int output) {
    std::vector<char*> variables;
    for (std::string& variable : environment) {
        variables.push_back(variable.data());
    }
    variables.push_back(nullptr);
    std::string name = path;
    std::array<char*, 2> arguments{name.data(), nullptr};

    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
    posix_spawn_file_actions_addchdir_np(&files, "/");
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = 0;
    const int error =
        posix_spawn(&pid, path.c_str(), &files, &attributes, arguments.data(), variables.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return {.pid = error == 0 ? pid : 0, .error = error};
}

std::string end_text(const siginfo_t& ended) {
    return ended.si_code == CLD_EXITED ? "ended with status " + std::to_string(ended.si_status)
                                       : "was ended by signal " + std::to_string(ended.si_status);
}

void watch(int loop, int descriptor) {
    epoll_event event{.events = EPOLLIN, .data = {.fd = descriptor}};
    epoll_ctl(loop, EPOLL_CTL_ADD, descriptor, &event);
}

}  // namespace

std::vector<std::string> hook_environment(const Event& event) {
    const char* const path = getenv("PATH");
    const bool is_daemon = event.kind == EventKind::daemon;
    const auto set = [](const char* name, const std::string& value) {
        return std::string(name) + "=" + shared::harmless(value);
    };
    return {set("PATH", path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin"),
            set("LB_EVENT", word_of(event.kind)),
            set("LB_UPLINK", event.uplink.name),
            set("LB_FAMILY", is_daemon ? "" : "ipv" + std::to_string(event.uplink.family)),
            set("LB_NAMESPACE", event.uplink.namespace_name),
            set("LB_TARGET", event.target),
            set("LB_FROM", event.from),
            set("LB_TO", event.to),
            set("LB_AFTER", event.after_s ? std::to_string(*event.after_s) : ""),
            set("LB_REASON", event.reason),
            set("LB_TIME", rfc3339(event.time_ms)),
            set("LB_LINE", line_of(event))};
}

Hooks::Hooks(std::string folder, Notice notice)
    : folder_(std::move(folder)),
      notice_(std::move(notice)),
      events_(epoll_create1(EPOLL_CLOEXEC)) {}

Hooks::~Hooks() {
    stop();
}

void Hooks::refuse(const std::string& path, const std::string& why) {
    if (refused_.insert(path + why).second) {
        notice_(shared::harmless(path) + " is not run: " + why);
    }
}

/// The names of what may be run, in their order. A folder that is not there has none.
std::deque<std::string> Hooks::executables() {
    std::deque<std::string> names;
    struct stat found {};
    if (stat(folder_.c_str(), &found) != 0) {
        return names;
    }
    if (const std::string fault = fault_of(found); !fault.empty()) {
        refuse(folder_, fault);
        return names;
    }
    std::error_code error;
    for (const std::string& name : shared::names_in(folder_, error)) {
        const std::string path = std::filesystem::path(folder_) / name;
        if (name.starts_with(".") || stat(path.c_str(), &found) != 0 || !S_ISREG(found.st_mode) ||
            access(path.c_str(), X_OK) != 0) {
            continue;
        }
        if (const std::string fault = fault_of(found); !fault.empty()) {
            refuse(path, fault);
            continue;
        }
        names.push_back(name);
    }
    if (error) {
        refuse(folder_, error.message());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void Hooks::add(const Event& event, const Moment& now) {
    const std::size_t dropped = queue_.add(event);
    if (dropped > 0) {
        notice_("hooks are slower than events come: " + std::to_string(dropped) +
                " older events are not handed to them; the latest is: " + line_of(event));
    }
    tend(now);
}

void Hooks::start_waiting(const Moment& now) {
    while (auto event = queue_.next()) {
        Job job;
        job.event = std::move(*event);
        job.left = executables();
        if (start(job, now)) {
            jobs_.push_back(std::move(job));
        } else {
            queue_.done(job.event);
        }
    }
}

/// Runs the next executable of the job; false when there is none left.
bool Hooks::start(Job& job, const Moment& now) {
    while (!job.left.empty()) {
        job.name = std::move(job.left.front());
        job.left.pop_front();
        job.said.clear();
        job.is_killed = false;
        job.is_flooding = false;
        std::array<int, 2> ends{-1, -1};
        const OpenedFd input = input_of(json_of(job.event) + "\n");
        int error = input.error;
        if (input.is_open() && pipe2(ends.data(), O_CLOEXEC) != 0) {
            error = errno;
        }
        if (!input.is_open() || error != 0) {
            notice_("hook " + job.name + " cannot be run: " + strerror(error));
            continue;
        }
        job.output = Fd(ends[0]);
        const Fd said(ends[1]);
        fcntl(job.output.get(), F_SETFL, O_NONBLOCK);
        const Spawned spawned = spawn(folder_ + "/" + job.name, hook_environment(job.event),
                                      input.fd.get(), said.get());
        job.pid = spawned.pid;
        if (job.pid == 0) {
            notice_("hook " + shared::harmless(job.name) +
                    " cannot be run: " + strerror(spawned.error));
            continue;
        }
        job.ended = Fd(static_cast<int>(syscall(SYS_pidfd_open, job.pid, 0)));
        job.deadline_boot_ms = now.boot_ms + limit_ms;
        watch(events_.get(), job.ended.get());
        watch(events_.get(), job.output.get());
        return true;
    }
    return false;
}

void Hooks::read_output(Job& job) const {
    std::array<char, 65536> buffer{};
    for (int round = 0; round < 16 && job.output.is_open(); ++round) {
        const ssize_t got = read(job.output.get(), buffer.data(), buffer.size());
        if (got <= 0) {
            if (got == 0) {
                job.output = Fd();
            }
            return;
        }
        const std::size_t room = most_said - std::min(most_said, job.said.size());
        job.said.append(buffer.data(), std::min(room, static_cast<std::size_t>(got)));
        if (job.said.size() == most_said && !job.is_flooding) {
            // From now on it is read once a second, so that it costs nobody else anything.
            job.is_flooding = true;
            epoll_ctl(events_.get(), EPOLL_CTL_DEL, job.output.get(), nullptr);
        }
    }
}

/// True when the running executable has ended, or has been killed for taking too long; then its
/// group is gone and what it said is told.
bool Hooks::reap(Job& job) {
    siginfo_t ended{};
    // It stays a zombie, and its number its own, until its group has been killed.
    if (waitid(P_PID, static_cast<id_t>(job.pid), &ended, WEXITED | WNOHANG | WNOWAIT) != 0 ||
        ended.si_pid == 0) {
        return false;
    }
    kill(-job.pid, SIGKILL);
    waitid(P_PID, static_cast<id_t>(job.pid), &ended, WEXITED);
    read_output(job);
    const std::string name = "hook " + shared::harmless(job.name);
    for (std::size_t at = 0; at < job.said.size();) {
        const std::size_t end = std::min(job.said.find('\n', at), job.said.size());
        notice_(name + ": " + shared::harmless(job.said.substr(at, end - at)));
        at = end + 1;
    }
    if (job.is_flooding) {
        notice_(name + " said more than that, which is dropped");
    }
    if (job.is_killed) {
        notice_(name + " was killed with its group after 30 s, over: " + line_of(job.event));
    } else if (ended.si_code != CLD_EXITED || ended.si_status != 0) {
        notice_(name + " " + end_text(ended) + ", over: " + line_of(job.event));
    }
    job.pid = 0;
    job.ended = Fd();
    job.output = Fd();
    return true;
}

void Hooks::tend(const Moment& now) {
    for (auto job = jobs_.begin(); job != jobs_.end();) {
        read_output(*job);
        if (!job->is_killed && now.boot_ms >= job->deadline_boot_ms) {
            job->is_killed = true;
            kill(-job->pid, SIGKILL);
        }
        if (reap(*job) && !start(*job, now)) {
            queue_.done(job->event);
            job = jobs_.erase(job);
        } else {
            ++job;
        }
    }
    start_waiting(now);
}

void Hooks::stop() {
    for (Job& job : jobs_) {
        kill(-job.pid, SIGKILL);
        waitpid(job.pid, nullptr, 0);
        notice_("hook " + shared::harmless(job.name) +
                " was killed, as lbwatch ends, over: " + line_of(job.event));
    }
    jobs_.clear();
    if (queue_.waiting() > 0) {
        notice_(std::to_string(queue_.waiting()) + " events were not handed to the hooks");
    }
    queue_ = HookQueue();
}

}  // namespace lbwatch

#include "shared/program.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "base/fd.h"

namespace shared {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t longest_kept = 4096;

/// Starts the program with its output going to `output`; gives posix_spawn(3)'s error.
int start(const std::vector<std::string>& words, int output, pid_t& pid) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<std::string> copies = words;
    std::vector<char*> arguments;
    for (std::string& word : copies) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const int error =
        posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error;
}

/// Appends what is there; false at the end of the output.
bool take(int output, std::string& text) {
    std::array<char, longest_kept> piece{};
    const ssize_t size = read(output, piece.data(), piece.size());
    if (size <= 0) {
        return size < 0 && (errno == EINTR || errno == EAGAIN);
    }
    text.append(piece.data(), static_cast<std::size_t>(size));
    // The end, for that is where a program tells why it failed.
    text.erase(0, text.size() - std::min(text.size(), longest_kept));
    return true;
}

/// Gathers the output until the process ends; false when the time is over before.
bool gather(std::string& text, int output, int process, Clock::time_point deadline) {
    std::array<pollfd, 2> wanted{pollfd{.fd = output, .events = POLLIN, .revents = 0},
                                 pollfd{.fd = process, .events = POLLIN, .revents = 0}};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        if (poll(wanted.data(), wanted.size(), static_cast<int>(left)) < 0 && errno != EINTR) {
            return false;
        }
        const bool has_output = wanted[0].revents != 0;
        if (has_output && !take(output, text)) {
            wanted[0].fd = -1;
        }
        // What it started may hold the output open for ever: its own end is the end.
        if (wanted[1].revents != 0 && !has_output) {
            return true;
        }
    }
}

}  // namespace

ProgramEnd run_program(const std::vector<std::string>& words, std::chrono::seconds limit) {
    ProgramEnd end;
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        end.problem = std::string("cannot be run: ") + strerror(errno);
        return end;
    }
    const Fd output(ends[0]);
    Fd input(ends[1]);
    // Ours alone: the program's own end may block.
    fcntl(output.get(), F_SETFL, O_NONBLOCK);
    pid_t pid = 0;
    if (const int error = start(words, input.get(), pid); error != 0) {
        end.problem = std::string("cannot be run: ") + strerror(error);
        return end;
    }
    input = Fd();
    // By its number: Debian 12's <sys/pidfd.h> declares the function for C alone.
    const Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const bool has_ended =
        process.is_open() && gather(end.output, output.get(), process.get(), Clock::now() + limit);
    if (!has_ended) {
        kill(-pid, SIGKILL);
        end.problem = "no end within " + std::to_string(limit.count()) + " s, killed";
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (has_ended) {
        end.status = status;
    }
    return end;
}

}  // namespace shared

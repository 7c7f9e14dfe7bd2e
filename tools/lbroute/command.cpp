#include "lbroute/command.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "base/fd.h"

namespace lbroute {

namespace {

using Clock = std::chrono::steady_clock;

/// The child's side: never returns.
[[noreturn]] void become(const std::string& command, int output) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    constexpr int not_found = 127;
    _exit(not_found);
}

/// What a command wrote: its end, for that is where it tells why.
class Tail {
  public:
    /// Reads what is there; false at the end of the output.
    bool take(int output) {
        std::array<char, 4096> piece{};
        const ssize_t size = read(output, piece.data(), piece.size());
        if (size <= 0) {
            return size < 0 && (errno == EINTR || errno == EAGAIN);
        }
        text_.append(piece.data(), static_cast<std::size_t>(size));
        text_.erase(0, text_.size() - std::min(text_.size(), longest_kept));
        return true;
    }

    /// Lines joined, the end of them where they are long.
    std::string line() const {
        std::string joined;
        for (const char c : text_) {
            if (c == '\n') {
                joined += joined.empty() || joined.ends_with("; ") ? "" : "; ";
            } else {
                joined += c < ' ' || c > '~' ? '?' : c;
            }
        }
        if (joined.ends_with("; ")) {
            joined.resize(joined.size() - 2);
        }
        if (joined.size() > longest_shown) {
            joined = "..." + joined.substr(joined.size() - longest_shown);
        }
        return joined;
    }

  private:
    static constexpr std::size_t longest_kept = 4096;
    static constexpr std::size_t longest_shown = 400;
    std::string text_;
};

/// Gathers the output until the process ends; false when the time is over before.
bool gather(Tail& tail, int output, int process, Clock::time_point deadline) {
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
        if (has_output && !tail.take(output)) {
            wanted[0].fd = -1;
        }
        // What it started may hold the output open for ever: its own end is the end.
        if (wanted[1].revents != 0 && !has_output) {
            return true;
        }
    }
}

std::string manner_of(int status) {
    if (WIFSIGNALED(status)) {
        return std::string("ended by ") + strsignal(WTERMSIG(status));
    }
    return "failed with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

std::string run_command(const std::string& command, std::chrono::milliseconds limit) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        return std::string("cannot be run: ") + strerror(errno);
    }
    const Fd output(ends[0]);
    Fd input(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        // The command's own end may block.
        fcntl(input.get(), F_SETFL, 0);
        become(command, input.get());
    }
    if (pid < 0) {
        return std::string("cannot be run: ") + strerror(errno);
    }
    setpgid(pid, pid);  // whichever of the two comes first
    input = Fd();
    // By its number: Debian 12's <sys/pidfd.h> declares the function for C alone.
    const Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    Tail tail;
    const bool has_ended =
        process.is_open() && gather(tail, output.get(), process.get(), Clock::now() + limit);
    if (!has_ended) {
        kill(-pid, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const std::string words = tail.line();
    const std::string behind = words.empty() ? "" : ": " + words;
    if (!has_ended) {
        return "no end within " +
               std::to_string(std::chrono::duration_cast<std::chrono::seconds>(limit).count()) +
               " s, killed" + behind;
    }
    return status == 0 ? "" : manner_of(status) + behind;
}

}  // namespace lbroute

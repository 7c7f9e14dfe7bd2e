#include "lbsim/apart.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <thread>

#include "base/fd.h"

namespace lbsim {

namespace {

constexpr int exit_after_exception = 3;

void write_all(int descriptor, const std::string& text) {
    std::size_t at = 0;
    while (at < text.size()) {
        const ssize_t count = write(descriptor, text.data() + at, text.size() - at);
        if (count < 0 && errno != EINTR) {
            _exit(exit_after_exception);
        }
        at += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
}

[[noreturn]] void run_as_child(const std::function<std::string()>& task, int answer) {
    if (const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC); nothing >= 0) {
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
    }
    try {
        write_all(answer, task());
    } catch (const std::exception& failure) {
        write_all(answer, failure.what());
        _exit(exit_after_exception);
    }
    _exit(
        0);  // without destructors: what the daemon keeps for the life of its process goes with it
}

std::string end_of(int status, const std::string& said) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        return "";
    }
    if (WIFSIGNALED(status)) {
        return std::string("a simulated run was ended by signal ") +
               std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    }
    return "a simulated run failed: " + said;
}

struct Child {
    std::size_t number = 0;
    pid_t process = -1;
    Fd answer;
    std::string read{};
};

/// One read; false at the end.
bool read_on(Child& child) {
    char buffer[65536];
    const ssize_t count = read(child.answer.get(), buffer, sizeof buffer);
    if (count < 0) {
        return errno == EINTR;
    }
    child.read.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
}

}  // namespace

std::vector<Apart> run_apart(const std::vector<std::function<std::string()>>& tasks) {
    std::vector<Apart> answers(tasks.size());
    std::vector<Child> children;
    const std::size_t at_once = std::max(1U, std::thread::hardware_concurrency());
    std::size_t next = 0;
    while (next < tasks.size() || !children.empty()) {
        while (next < tasks.size() && children.size() < at_once) {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0) {
                answers[next++].error = std::string("no pipe: ") + strerror(errno);
                continue;
            }
            Fd reading(ends[0]);
            Fd writing(ends[1]);
            const pid_t process = fork();
            if (process == 0) {
                run_as_child(tasks[next], writing.get());
            }
            if (process < 0) {
                answers[next++].error = std::string("no process: ") + strerror(errno);
                continue;
            }
            children.push_back(
                {.number = next++, .process = process, .answer = std::move(reading)});
        }
        std::vector<pollfd> waits;
        for (const Child& child : children) {
            waits.push_back({.fd = child.answer.get(), .events = POLLIN, .revents = 0});
        }
        if (!waits.empty() && poll(waits.data(), waits.size(), -1) < 0) {
            continue;
        }
        for (std::size_t i = waits.size(); i-- > 0;) {
            if (waits[i].revents == 0 || read_on(children[i])) {
                continue;
            }
            Child& child = children[i];
            int status = 0;
            while (waitpid(child.process, &status, 0) < 0 && errno == EINTR) {
            }
            answers[child.number].error = end_of(status, child.read);
            answers[child.number].result = std::move(child.read);
            children.erase(children.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
    return answers;
}

Apart run_apart(const std::function<std::string()>& task) {
    return run_apart(std::vector<std::function<std::string()>>{task}).front();
}

}  // namespace lbsim

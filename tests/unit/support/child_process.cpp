#include "unit/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace {

constexpr int not_permitted = 77;
constexpr std::chrono::seconds longest_life{20};

struct Pipe {
    Fd read_end;
    Fd write_end;
};

Pipe make_pipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {Fd(ends[0]), Fd(ends[1])};
}

std::string waiting_bytes(const Fd& source) {
    std::string all;
    std::array<char, 4096> part{};
    for (ssize_t got = 0; (got = read(source.get(), part.data(), part.size())) > 0;) {
        all.append(part.data(), static_cast<std::size_t>(got));
    }
    return all;
}

bool bind_to(int number, const std::string& address) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    address.copy(name.sun_path, sizeof name.sun_path);
    if (address.starts_with('@')) {
        name.sun_path[0] = '\0';
    }
    const auto length = offsetof(sockaddr_un, sun_path) + address.size();
    return bind(number, reinterpret_cast<const sockaddr*>(&name), static_cast<socklen_t>(length)) ==
           0;
}

Fd datagram_socket() {
    return Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

/// In the child: /dev becomes empty but for the log and the console, which is the pipe's end.
bool enter_private_dev(int log, int console) {
    const int own_user = geteuid() == 0 ? 0 : CLONE_NEWUSER;
    if (unshare(CLONE_NEWNS | own_user) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0) {
        return false;
    }
    const std::string console_end = "/proc/self/fd/" + std::to_string(console);
    return symlink(console_end.c_str(), "/dev/console") == 0 && bind_to(log, "/dev/log");
}

/// Collects what the child says until it is dead.
class Watch {
  public:
    Watch(pid_t child, Pipe standard_error, Fd log)
        : child_(child), standard_error_(std::move(standard_error)), log_(std::move(log)) {
        standard_error_.write_end = Fd();
    }

    ChildEnd until_dead() {
        const auto deadline = std::chrono::steady_clock::now() + longest_life;
        ChildEnd end;
        while (waitpid(child_, &end.status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(child_, SIGKILL);
            }
            std::array<pollfd, 2> sources{pollfd{standard_error_.read_end.get(), POLLIN, 0},
                                          pollfd{log_.get(), POLLIN, 0}};
            poll(sources.data(), sources.size(), 10);
            collect(end);
        }
        collect(end);
        return end;
    }

  private:
    void collect(ChildEnd& end) {
        end.standard_error += waiting_bytes(standard_error_.read_end);
        for (std::string& datagram : waiting_datagrams(log_)) {
            end.log.push_back(std::move(datagram));
        }
    }

    pid_t child_;
    Pipe standard_error_;
    Fd log_;
};

ChildEnd run_after(const std::function<bool()>& prepare, const std::function<void()>& body,
                   Fd log) {
    Pipe standard_error = make_pipe();
    fflush(nullptr);  // or the child ends by writing what this process has still to write
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("no child process");
    }
    if (child == 0) {
        dup2(standard_error.write_end.get(), STDERR_FILENO);
        if (!prepare()) {
            _exit(not_permitted);
        }
        body();
        _exit(0);
    }
    return Watch(child, std::move(standard_error), std::move(log)).until_dead();
}

}  // namespace

ChildEnd run_in_child(const std::function<void()>& body) {
    return run_after([] { return true; }, body, Fd());
}

PrivateDevEnd run_in_child_with_private_dev(const std::function<void()>& body) {
    Fd log = datagram_socket();
    const Pipe console = make_pipe();
    const auto prepare = [log_number = log.get(), console_number = console.write_end.get()] {
        return enter_private_dev(log_number, console_number);
    };
    PrivateDevEnd end{run_after(prepare, body, std::move(log))};
    end.permitted = !WIFEXITED(end.status) || WEXITSTATUS(end.status) != not_permitted;
    end.console = waiting_bytes(console.read_end);
    return end;
}

Fd bound_datagram_socket(const std::string& address) {
    Fd bound = datagram_socket();
    return bind_to(bound.get(), address) ? std::move(bound) : Fd();
}

std::vector<std::string> waiting_datagrams(const Fd& socket) {
    std::vector<std::string> all;
    std::array<char, 4096> one{};
    for (ssize_t got = 0; (got = recv(socket.get(), one.data(), one.size(), MSG_DONTWAIT)) >= 0;) {
        all.emplace_back(one.data(), static_cast<std::size_t>(got));
    }
    return all;
}

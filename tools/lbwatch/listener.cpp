#include "lbwatch/listener.h"

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "lbwatch/json.h"
#include "lbwatch/moment.h"

namespace lbwatch {

namespace {

constexpr std::size_t most_connections = 64;
constexpr std::size_t most_streams = 24;
constexpr std::size_t longest_head = 8192;
constexpr std::int64_t head_ms = 10'000;
constexpr std::int64_t answer_ms = 20'000;
constexpr std::int64_t heartbeat_ms = 15'000;
constexpr std::int64_t pause_ms = 1'000;
/// A reader of the stream that lags behind by more is let go; it comes back and is told the rest.
constexpr std::size_t most_lag = 256 * 1024;
/// All answers that wait to be taken; who asks beyond is turned away.
constexpr std::size_t most_pending = 8 * 1024 * 1024;

constexpr const char* stream_head =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-store\r\n"
    "X-Content-Type-Options: nosniff\r\nConnection: close\r\n\r\nretry: 3000\n\n";

constexpr const char* busy =
    "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 5\r\nContent-Length: 0\r\n"
    "Connection: close\r\n\r\n";

/// Splits ADDRESS:PORT; an IPv6 address stands in brackets.
bool split(const std::string& text, std::string& address, std::string& port) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return false;
    }
    address = text.substr(0, colon);
    port = text.substr(colon + 1);
    if (address.size() >= 2 && address.front() == '[' && address.back() == ']') {
        address = address.substr(1, address.size() - 2);
    } else if (address.find(':') != std::string::npos) {
        return false;
    }
    return !address.empty() && !port.empty();
}

}  // namespace

Listener::Listener(const std::string& address, const Board& board, const std::string& version,
                   const std::vector<std::string>& hosts)
    : board_(board), web_(board, version, hosts), ending_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    open(address);
    if (problem_.empty()) {
        // Signals are the caller's.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        thread_ = std::thread([this] { run(); });
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
}

Listener::~Listener() {
    if (thread_.joinable()) {
        eventfd_write(ending_.get(), 1);
        thread_.join();
    }
}

void Listener::open(const std::string& text) {
    std::string address;
    std::string port;
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    addrinfo* found = nullptr;
    if (!split(text, address, port) ||
        getaddrinfo(address.c_str(), port.c_str(), &wanted, &found) != 0) {
        problem_ = "'" + text +
                   "' is no address to listen on; write for example 127.0.0.1:9837 or "
                   "[::1]:9837";
        return;
    }
    listening_ = Fd(socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(listening_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (!listening_.is_open() || bind(listening_.get(), found->ai_addr, found->ai_addrlen) != 0 ||
        listen(listening_.get(), 64) != 0) {
        problem_ = "cannot listen on " + text + ": " + strerror(errno);
    }
    freeaddrinfo(found);
}

void Listener::accept_all(std::int64_t now_ms) {
    for (int round = 0; round < 64; ++round) {
        Fd socket(accept4(listening_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket.is_open()) {
            // Without a descriptor for it the connection goes on waiting, and poll(2) telling of
            // it.
            const bool is_none_left = errno != EAGAIN && errno != EINTR && errno != ECONNABORTED;
            accept_again_boot_ms_ = now_ms + (is_none_left ? pause_ms : 0);
            return;
        }
        if (connections_.size() >= most_connections) {
            // The first that is no stream has been here longest.
            const auto oldest = std::find_if(connections_.begin(), connections_.end(),
                                             [](const auto& one) { return !one.is_stream; });
            connections_.erase(oldest == connections_.end() ? connections_.begin() : oldest);
        }
        Connection& made = connections_.emplace_back();
        made.socket = std::move(socket);
        made.deadline_boot_ms = now_ms + head_ms;
    }
}

/// False when the connection is over.
bool Listener::receive(Connection& connection, std::int64_t now_ms) {
    std::array<char, 4096> buffer{};
    ssize_t got = 0;
    while ((got = recv(connection.socket.get(), buffer.data(), buffer.size(), 0)) > 0) {
        if (connection.is_answered || connection.is_stream) {
            continue;  // one request a connection
        }
        connection.in.append(buffer.data(), static_cast<std::size_t>(got));
        if (connection.in.find("\r\n\r\n") != std::string::npos ||
            connection.in.size() > longest_head) {
            answer(connection, now_ms);
        }
    }
    if (got == 0) {
        // Who has said all may still listen.
        connection.has_said_all = true;
        return connection.is_answered && !connection.out.empty();
    }
    return errno == EAGAIN || errno == EINTR;
}

void Listener::answer(Connection& connection, std::int64_t now_ms) {
    const std::size_t end = connection.in.find("\r\n\r\n");
    std::size_t pending = 0;
    std::size_t streams = 0;
    for (const Connection& one : connections_) {
        pending += one.out.size();
        streams += one.is_stream ? 1 : 0;
    }
    connection.deadline_boot_ms = now_ms + answer_ms;
    std::uint64_t after = board_.last_number();
    if (end == std::string::npos) {
        connection.out =
            "HTTP/1.1 431 Request Header Fields Too Large\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n";
    } else if (pending > most_pending) {
        connection.out = busy;
    } else if (web_.is_meant(connection.in.substr(0, end + 4)) &&
               Web::is_stream(connection.in.substr(0, end + 4), after)) {
        connection.is_stream = streams < most_streams;
        connection.out = connection.is_stream ? stream_head : busy;
        // A number of another run of this program says nothing here.
        connection.last_event = std::min(after, board_.last_number());
        connection.heard_boot_ms = now_ms;
    } else {
        connection.out = web_.answer(connection.in.substr(0, end + 4));
    }
    connection.is_answered = !connection.is_stream;
    connection.in = std::string();
}

/// Appends what happened since, or a sign of life.
void Listener::feed(Connection& connection, std::int64_t now_ms) const {
    for (const Board::Numbered& one : board_.events_after(connection.last_event)) {
        connection.out += "id: " + std::to_string(one.number) +
                          "\nevent: change\ndata: " + json_of(one.event) + "\n\n";
        connection.last_event = one.number;
        connection.heard_boot_ms = now_ms;
    }
    if (now_ms - connection.heard_boot_ms >= heartbeat_ms) {
        connection.out += "event: beat\ndata: still here\n\n";
        connection.heard_boot_ms = now_ms;
    }
}

/// False when the connection is over.
bool Listener::send(Connection& connection, std::int64_t now_ms) const {
    while (connection.sent < connection.out.size()) {
        const ssize_t count =
            ::send(connection.socket.get(), connection.out.data() + connection.sent,
                   connection.out.size() - connection.sent, MSG_NOSIGNAL);
        if (count < 0) {
            return (errno == EAGAIN || errno == EINTR) &&
                   (!connection.is_stream || connection.out.size() - connection.sent <= most_lag);
        }
        connection.sent += static_cast<std::size_t>(count);
        // A stream has as long as an answer for each part of it.
        connection.deadline_boot_ms =
            connection.is_stream ? now_ms + answer_ms + heartbeat_ms : connection.deadline_boot_ms;
    }
    connection.out.clear();
    connection.sent = 0;
    if (!connection.is_answered) {
        return true;
    }
    // The other end reads all before it hears of the close.
    shutdown(connection.socket.get(), SHUT_WR);
    return false;
}

void Listener::run() {
    std::vector<pollfd> wanted;
    while (true) {
        wanted.clear();
        wanted.push_back({.fd = ending_.get(), .events = POLLIN, .revents = 0});
        wanted.push_back({.fd = board_.fd(), .events = POLLIN, .revents = 0});
        const bool accepts = now().boot_ms >= accept_again_boot_ms_;
        wanted.push_back({.fd = accepts ? listening_.get() : -1, .events = POLLIN, .revents = 0});
        for (const Connection& one : connections_) {
            const auto events = static_cast<short>((one.has_said_all ? 0 : POLLIN) |
                                                   (one.out.empty() ? 0 : POLLOUT));
            wanted.push_back({.fd = one.socket.get(), .events = events, .revents = 0});
        }
        // With nobody connected there is no deadline to keep.
        poll(wanted.data(), wanted.size(), connections_.empty() && accepts ? -1 : 1000);
        if ((wanted[0].revents & POLLIN) != 0) {
            return;
        }
        board_.settle();
        const std::int64_t now_ms = now().boot_ms;
        std::size_t at = 3;
        for (auto one = connections_.begin(); one != connections_.end(); ++at) {
            const short ready = wanted[at].revents;
            bool is_over = (ready & (POLLERR | POLLNVAL)) != 0 || now_ms >= one->deadline_boot_ms;
            if (!is_over && !one->has_said_all && (ready & (POLLIN | POLLHUP)) != 0) {
                is_over = !receive(*one, now_ms);
            }
            if (!is_over && one->is_stream) {
                feed(*one, now_ms);
            }
            is_over = is_over || (!one->out.empty() && !send(*one, now_ms));
            one = is_over ? connections_.erase(one) : std::next(one);
        }
        if ((wanted[2].revents & POLLIN) != 0) {
            accept_all(now_ms);
        }
    }
}

}  // namespace lbwatch

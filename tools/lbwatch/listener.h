#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "base/fd.h"
#include "lbwatch/board.h"
#include "lbwatch/web.h"

namespace lbwatch {

/// Takes connections on one address, in a thread of its own, and gives each one answer of a Web or
/// the stream of events. Nobody can hold it up: a request has ten seconds and 8 kB to come whole,
/// an answer twenty to be taken; of more than 64 connections the one that has waited longest goes.
class Listener {
  public:
    /// `address` is ADDRESS:PORT or [ADDRESS]:PORT, numbers alone. Throws nothing: problem() tells
    /// why it does not listen. `hosts` are names of this machine beside its own.
    Listener(const std::string& address, const Board& board, const std::string& version,
             const std::vector<std::string>& hosts = {});
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    const std::string& problem() const { return problem_; }

  private:
    struct Connection {
        Fd socket;
        std::string in;
        std::string out;  ///< still to be sent
        std::size_t sent = 0;
        std::int64_t deadline_boot_ms = 0;
        bool is_stream = false;
        bool is_answered = false;   ///< it is closed when all is sent
        bool has_said_all = false;  ///< the other end sends no more
        std::uint64_t last_event = 0;
        std::int64_t heard_boot_ms = 0;  ///< when the stream was last written to
    };

    void open(const std::string& address);
    void run();
    void accept_all(std::int64_t now_ms);
    bool receive(Connection& connection, std::int64_t now_ms);
    bool send(Connection& connection, std::int64_t now_ms) const;
    void answer(Connection& connection, std::int64_t now_ms);
    void feed(Connection& connection, std::int64_t now_ms) const;

    const Board& board_;
    Web web_;
    std::string problem_;
    Fd listening_;
    std::int64_t accept_again_boot_ms_ = 0;  // connections wait until then
    Fd ending_;
    std::list<Connection> connections_;
    std::thread thread_;
};

}  // namespace lbwatch

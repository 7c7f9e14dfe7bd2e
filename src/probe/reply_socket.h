#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "host/packets.h"
#include "probe/ping_run.h"
#include "probe/probes_in_flight.h"

/// The sockets of the probes in one namespace, and all that happens to a reply: one `drain` serves
/// the receiver thread, the worker and a waiting extended ping.

/// Opens the namespace's three sockets, once in the life of the process; the calling thread is in
/// that namespace. A socket that cannot be had is logged and leaves descriptor 0 in its table, on
/// which later sends fail: the daemon keeps 0 on something that is no socket.
void set_up_namespace(const ProbeFamily& family, const std::string& ns_name);
/// Closes the namespace's sockets; they are not opened again.
void close_namespace(const ProbeFamily& family, const std::string& ns_name);

/// Starts the namespace's receiver thread unless it runs: it drains the reply socket as replies
/// come, and ends when that fails; the next collection starts a new one. A thread that could not be
/// created is not tried again.
void start_receiver(const ProbeFamily& family, const std::string& ns_name);
/// Bodies of the receiver threads. The argument is the namespace's name, a std::string that the
/// thread takes over.
void* recv_icmp(void* ns_name);
void* recv_icmp6(void* ns_name);

/// A flood must not keep a waiting extended ping past its deadline.
inline constexpr int datagrams_at_once = 1024;

enum class Drained { all, enough, failed };

/// Takes what is in the namespace's reply socket, about `at_most` so many datagrams: each marks the
/// probe in flight that it answers and is offered to a waiting extended ping. Whoever finds the
/// socket empty finds every probe marked whose answer has come, whichever thread drained it. Never
/// waits.
Drained drain(const ProbeFamily& family, const std::string& ns_name, int at_most);

/// What a datagram means for the probes in flight: an echo reply marks the one whose identifier it
/// carries, whatever its source; anything else changes nothing. The caller holds the results.
void mark_answered_probe(const ProbeFamily& family, std::span<const std::uint8_t> datagram);

/// What a waiting extended ping accepts: the source, the packet identifier and the sequence number;
/// the ICMP type is not looked at.
struct ExpectedEcho {
    Ipv4Bytes source{};
    std::uint32_t packet_id = 0;
    std::uint16_t sequence = 0;

    /// True when a datagram, from its IP header on, is the awaited answer. The IP header is taken
    /// to be 20 bytes long.
    bool matches(std::span<const std::uint8_t> datagram) const;
};

/// How the wait for one echo of an extended ping ended.
struct EchoAnswer {
    bool is_in_time = false;
    std::int64_t remaining_us = 0;  ///< of the wait, when the answer came
};

/// An extended ping's place among the readers of its namespace's reply socket, for the length of
/// one run. Its worker alone calls it; at most one in a namespace at a time.
class WaitingPing {
  public:
    explicit WaitingPing(const std::string& ns_name);
    ~WaitingPing();
    WaitingPing(const WaitingPing&) = delete;
    WaitingPing& operator=(const WaitingPing&) = delete;

    /// From now on this echo is awaited; forgets what came for the one before.
    void expect(const ExpectedEcho& echo);
    /// Waits for its answer, by whichever reader it is taken. Holds no lock while waiting, and
    /// reports progress to the watchdog where that lasts.
    EchoAnswer await(const EchoWait& wait);
    /// Any reader of the socket: a datagram that was taken.
    void offer(std::span<const std::uint8_t> datagram);

  private:
    bool is_answered() const;
    /// Reads the socket; false where that failed.
    bool read_replies();

    const std::string ns_name_;
    host::Bell bell_;    ///< rung by an answer that another reader took
    ExpectedEcho echo_;  ///< guarded by the lock of all waiting pings, as the next four
    bool is_awaited_ = false;
    bool is_answered_ = false;
    bool is_reading_ = false;
    bool is_rung_ = false;
};

/// Offers a datagram to the extended ping that waits in the namespace, if one does.
void offer_to_waiting_ping(const std::string& ns_name, std::span<const std::uint8_t> datagram);

#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "host/connection_tracking.h"
#include "host/links.h"
#include "host/packets.h"
#include "probe/probes_in_flight.h"

/// An echo in a finished frame, with the record that has to be entered before it leaves.
struct OutgoingEcho {
    const ProbeFamily* family = nullptr;
    int socket = 0;
    host::Link link;
    host::TrackedEcho record;
    std::array<std::uint8_t, 66> frame{};  ///< the longest: IPv6
    std::size_t frame_size = 0;
};
/// `frame` is a finished EchoFrame4 or EchoFrame6.
OutgoingEcho outgoing_echo(const ProbeFamily& family, int socket, const host::Link& link,
                           std::span<const std::uint8_t> source,
                           std::span<const std::uint8_t> target,
                           std::span<const std::uint8_t> frame);

/// Where the echoes of a pass wait for each other, so that the host is asked once for many of them.
/// They leave in their order, each after its record, and each failure is told for its own probe,
/// in the same order. One worker's own.
///
/// Whatever else of the pass is told or sent comes after the echoes before it: who logs or sends in
/// between calls `send_waiting` first.
class Outbox {
  public:
    explicit Outbox(host::ConnectionTracking& tracking) : tracking_(tracking) {}
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    /// While it lives, echoes are collected; else each leaves at once. Its end sends them.
    class Collecting {
      public:
        explicit Collecting(Outbox& outbox) : outbox_(outbox) { outbox_.is_collecting_ = true; }
        ~Collecting();
        Collecting(const Collecting&) = delete;
        Collecting& operator=(const Collecting&) = delete;

      private:
        Outbox& outbox_;
    };

    /// Takes an echo. What became of it, or that it waits, which is no failure.
    host::Transfer take(const OutgoingEcho& echo);
    void send_waiting();

  private:
    host::Transfer send(const OutgoingEcho& echo);
    void send_together();

    host::ConnectionTracking& tracking_;
    bool is_collecting_ = false;
    std::vector<OutgoingEcho> waiting_;
};

/// Tells that an echo did not go out. A network that is unreachable is an everyday state of an
/// uplink and stays silent (B56).
void report_failed_send(const ProbeFamily& family, const host::Transfer& sent);

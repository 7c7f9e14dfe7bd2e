#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "host/packets.h"
#include "probe/probes_in_flight.h"

/// The room of a namespace's reply socket: for the answers to all its probes at once, however late
/// they are read, so that no target fails whose answer came. One worker's own; the namespace's
/// sockets are open.
class ReplyRoom {
  public:
    /// Before a pass of so many probes. Asks the host only when the number has changed.
    void make(const ProbeFamily& family, const std::string& ns_name, int probes);
    /// The most replies that can wait in the socket.
    int most_replies() const { return host::most_packets_in(room_); }
    /// After a pass has read the socket: logs how many replies the host dropped for want of room,
    /// the first time at once, then once an hour.
    void report_drops(const ProbeFamily& family, const std::string& ns_name);

  private:
    int probes_ = 0;
    host::ReceiverRoom room_;
    std::uint32_t seen_drops_ = 0;
    std::uint32_t seen_damaged_ = 0;
    std::uint32_t unreported_ = 0;         ///< lost for want of room
    std::optional<timespec> last_report_;  ///< monotonic clock
};

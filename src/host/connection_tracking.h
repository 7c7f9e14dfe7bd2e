#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "wire/bytes.h"

/// The host's connection tracking.
namespace host {

/// An echo request whose record is to be entered; an IPv4 address fills the first four bytes.
struct TrackedEcho {
    bool is_ipv6 = false;
    Ipv6Bytes source{};
    Ipv6Bytes destination{};
    bool is_entered = false;  ///< the answer: the host acknowledged the record
};

/// One worker's way to enter records, in the worker's network namespace.
class ConnectionTracking {
  public:
    ConnectionTracking();
    ~ConnectionTracking();
    ConnectionTracking(ConnectionTracking&&) noexcept;
    ConnectionTracking& operator=(ConnectionTracking&&) noexcept;

    /// Enters a record for an echo request with that identifier, so that the reply to a frame which
    /// never passed the host's connection tracking is known as the reply of a connection. The
    /// record lives 32 s; a later one for the same flow renews it. False where the host did not
    /// acknowledge it, with its own message in the log.
    bool enter_echo(const std::string& source, const std::string& destination, bool is_ipv6,
                    std::uint16_t identifier);
    /// The same for several, in their order and in one exchange with the host. Logs nothing, and
    /// enters nothing before `enter_echo` has opened the way to the host, and after an exchange
    /// that failed: what was not entered may be tried by `enter_echo`, which tells why.
    void enter_echoes(std::span<TrackedEcho> echoes, std::uint16_t identifier);

  private:
    struct Handle;
    std::unique_ptr<Handle> handle_;
};

}  // namespace host

#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <optional>
#include <string>

/// The way of an echo into a tunnel or modem: a raw ICMP socket bound to the interface, on which
/// the kernel adds the IP header. Runs on the worker.
struct TunnelPath {
    /// Each probe has texts of its own for the two last ones.
    enum class Step { ready, not_sendable, unresolved, not_bound };
    Step reached = Step::not_sendable;
    sockaddr_storage resolved{};
};

/// Whether the extended pings of an interface take this way, by its name. The plain ones do for a
/// modem as well.
bool pings_through_tunnel(const std::string& ifname);

/// Resolves the target in the family and binds the socket to the interface (SO_BINDTODEVICE,
/// socket(7)). Logs nothing. `not_sendable`: an empty name or target.
TunnelPath open_tunnel_path(int sock, const std::string& ifname, const std::string& target,
                            int family);

/// The target as a destination; only a dotted address can be one, a host name is refused with a
/// message (the resolved address served as a check only).
std::optional<sockaddr_in> dotted_destination(const std::string& target);

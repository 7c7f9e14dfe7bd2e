#pragma once

#include <optional>
#include <string>

#include "config/context.h"
#include "host/addresses.h"
#include "host/links.h"
#include "probe/host_view.h"
#include "wire/bytes.h"

/// The ways of an echo out of one particular interface, for all probes. Everything here runs on the
/// worker, asks its host and logs its failure, unless the result says that the caller does: each
/// probe has texts of its own for some. Errors are as in errno(3).

/// What a hand-built IPv4 frame needs.
struct FramePath4 {
    /// `source_absent` is the one failure that the caller reports.
    enum class Step { ready, failed, source_absent };
    Step reached = Step::failed;
    int error = 0;
    OwnEnd4 own;
    MacAddress next_hop_mac{};
    Ipv4Bytes target{};
};
/// Finds the path for one probe: link, source (the interface's own where `source_address` is
/// empty), the source's presence, the next hop's MAC, the binary addresses. A next hop whose MAC is
/// unknown is asked for and fails this probe; a later one finds the answer. Before anything is
/// logged or asked for, the echoes that wait in the worker's outbox leave.
FramePath4 find_frame_path4(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx);

/// The same for IPv6, whose source is always given.
struct FramePath6 {
    bool is_ready = false;
    int error = 0;
    host::Link link;
    MacAddress next_hop_mac{};
    Ipv6Bytes source{};
    Ipv6Bytes target{};
};
FramePath6 find_frame_path6(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx);

/// The way into a tunnel or modem: a raw ICMP socket bound to the interface, on which the host adds
/// the IP header.
struct TunnelPath {
    /// The caller reports the two last ones.
    enum class Step { ready, not_sendable, unresolved, not_bound };
    Step reached = Step::not_sendable;
    int error = 0;
    host::Resolved resolved;
};

/// Whether the extended pings of an interface take this way, by its name. The plain ones do for a
/// modem as well.
bool pings_through_tunnel(const std::string& ifname);
bool echoes_through_tunnel(const std::string& ifname);

/// Resolves the target in the family and binds the socket to the interface. `not_sendable`: an
/// empty name or target.
TunnelPath open_tunnel_path(int sock, const std::string& ifname, const std::string& target,
                            bool is_ipv6);

/// The target as a destination; only an address in digits can be one, a host name is refused with a
/// message (the resolved address served as a check only).
std::optional<Ipv4Bytes> digits_destination(const std::string& target);

#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "lbcheck/live_facts.h"

namespace lbcheck {

struct EchoRequest {
    std::string interface;
    std::string target;
    std::string source_address;  ///< empty: the interface's own
    std::string next_hop;
};

/// Sends one echo (a second one where the first is lost) a request by the daemon's own send path,
/// in the network namespace of the calling thread, and looks where the answers go: whether they
/// come in by the uplink, and whether a socket gets them. Takes four seconds at most, however many
/// there are. Nothing, with a `problem`, where no socket could be had.
///
/// What it leaves behind is what any packet does: entries of the neighbour and of the
/// connection-tracking table. Its identifiers are none that a running daemon looks at.
std::vector<Echo> send_echoes(const std::string& ns_name, bool is_ipv6,
                              const std::vector<EchoRequest>& requests, std::string& problem);

/// Packets that the reverse-path check of a namespace has dropped so far, by its
/// /proc/net/netstat (in TcpExt: a line of names, then one of numbers).
std::uint64_t reverse_path_drops_in(std::istream& netstat);

}  // namespace lbcheck

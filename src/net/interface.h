#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "net/bytes.h"

/// Questions about the interfaces of the calling thread's network namespace (netdevice(7), arp(7)).
///
/// Each thread asks through one datagram socket of its own, opened at its first question and kept:
/// a thread of this daemon never leaves its namespace once it has begun to work there. No function
/// here logs; the result says what went wrong, and the caller knows which message that is.

/// The thread's socket for interface requests, or -1 with errno set where none can be had.
int query_socket();

/// The link-level answer about one interface, or the step that failed.
struct LinkAnswer {
    enum class Step { none, socket, mac, index };
    Step failed = Step::none;
    int error = 0;  ///< errno of the failed step
    MacAddress mac{};
    int index = 0;
};

/// MAC address (SIOCGIFHWADDR) and index of an interface. Names are cut at 15 characters.
LinkAnswer ask_link(const std::string& ifname);

/// The interface's primary IPv4 address (SIOCGIFADDR), or nothing with errno set.
std::optional<in_addr> primary_address(const std::string& ifname);

/// The address in dotted decimal.
std::string to_text(const in_addr& address);
/// The address in the canonical form of RFC 5952, as inet_ntop(3) gives it.
std::string to_text(const in6_addr& address);

#pragma once

#include <cstdint>
#include <string>

#include "wire/bytes.h"

/// Questions about single interfaces of the calling thread's network namespace. Names are cut at 15
/// characters. No function here logs: the answer says what went wrong, its error as in errno(3),
/// and the caller knows which message that is.
namespace host {

/// MAC address and index of an interface, or the step that failed.
struct Link {
    enum class Step { none, socket, mac, index };
    Step failed = Step::none;
    int error = 0;
    MacAddress mac{};
    int index = 0;
};
Link ask_link(const std::string& ifname);

/// The primary IPv4 address of an interface; `error` is not 0 where there is none.
struct PrimaryAddress {
    int error = 0;
    Ipv4Bytes address{};
};
PrimaryAddress primary_address(const std::string& ifname);

/// The request for the peers of point-to-point interfaces. One serves all interfaces of a call:
/// where the host refuses an answer, the one before stays in it.
struct PeerRequest {
    explicit PeerRequest(bool is_ipv6);

    std::uint16_t family;  ///< the host's number of the address family
    Ipv4Bytes address{};   ///< the peer, IPv4 in either family
};
/// Asks for the peer of an interface. 0, or the error; the request is as before then.
int ask_peer(const std::string& ifname, PeerRequest& request);

}  // namespace host

#pragma once

#include <cstdint>
#include <vector>

#include "lbroute/kernel_state.h"

/// The requests of rtnetlink(7) for links, addresses, routes and next-hop objects
/// (linux/nexthop.h) as bytes, by libmnl; without a system call. They are appended to a buffer, so
/// that many go to the kernel at once.
namespace lbroute {

using Buffer = std::vector<std::uint8_t>;

/// One request that changes something; the kernel acknowledges it under its sequence number.
void append_request(Buffer& buffer, const Step& step, std::uint32_t sequence);

enum class Dump {
    links,
    addresses,
    next_hops,
    own_routes4,
    own_routes6,
    routes4,
    routes6,
    buckets
};
/// A request to list everything of a kind. `selector` is the table of `routes4` and `routes6`, the
/// group of `buckets`.
void append_dump(Buffer& buffer, Dump what, std::uint32_t selector, std::uint32_t sequence);

}  // namespace lbroute

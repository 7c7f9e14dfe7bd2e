#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "probe/probe_family.h"

/// The reply collectors: one detached thread per namespace and family blocks on the namespace's
/// reply socket and marks the probes in flight whose identifiers come back. The argument is the
/// namespace's name, a std::string that the thread takes over. A thread ends when its socket fails;
/// the next collection starts a new one.
void* recv_icmp(void* ns_name);
void* recv_icmp6(void* ns_name);

inline constexpr std::size_t largest_datagram = 65535;
/// More than a reply socket's queue holds; a flood must not keep a reader past its deadline.
inline constexpr int datagrams_at_once = 1024;

/// Takes what waits in the namespace's reply socket, so that a worker judges no probe as late whose
/// answer has come: after the process stood still, workers and receivers wake in any order. The
/// namespace's worker calls it while none of its extended pings waits. Never blocks.
void take_waiting_replies(const ProbeFamily& family, const std::string& ns_name);

/// What a received datagram means: an echo reply marks the probe in flight whose identifier it
/// carries, whatever its source; anything else changes nothing. `function` names the caller in a
/// message about the lock.
void take_reply(const ProbeFamily& family, std::span<const std::uint8_t> datagram,
                const char* function);

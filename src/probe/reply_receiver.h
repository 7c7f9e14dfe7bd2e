#pragma once

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

/// What a received datagram means: an echo reply marks the probe in flight whose identifier it
/// carries, whatever its source; anything else changes nothing. `function` names the caller in a
/// message about the lock.
void take_reply(const ProbeFamily& family, std::span<const std::uint8_t> datagram,
                const char* function);

#pragma once

#include <string>

struct context;

/// Enters a connection-tracking record for the echo request of a probe (ICMP or ICMPv6 by the
/// context's family, the process id as its identifier), so that the reply to a frame which never
/// passed the host's connection tracking is known as the reply of a connection. The record lives
/// 32 s; a later one for the same flow renews it.
///
/// Returns 0 when the kernel acknowledged it, else -1; every failure is logged and costs a new
/// netlink socket at the next call. Each worker keeps its own socket (nfnetlink), which belongs to
/// the worker's namespace.
int create_conntrack_record(const std::string& source, const std::string& destination,
                            context* ctx);

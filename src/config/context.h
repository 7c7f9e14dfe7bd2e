#pragma once

#include <string>

class HostView;
class LoadBalance;
class LBArp;
class LBNeighbor;
class OwnRecords;

/// One worker: a network namespace and an address family. Built by the namespace thread, handed by
/// pointer to every operation of the cycle, unchanged for the worker's life. Owns nothing.
struct context {
    LoadBalance* lb = nullptr;       ///< the one engine of the process
    LBArp* arp = nullptr;            ///< set in an IPv4 context only
    LBNeighbor* neighbor = nullptr;  ///< set in an IPv6 context only
    bool ipv6 = false;
    std::string* ns_name = nullptr;  ///< empty: the default namespace
    HostView* view = nullptr;        ///< what the worker knows of its host
    OwnRecords* own = nullptr;       ///< the records that the worker owns
};

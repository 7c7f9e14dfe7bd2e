#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>

#include "config/context.h"
#include "net/interface.h"

/// The way of a hand-built frame out of one particular interface: steps that the probes share. Each
/// runs on the worker, asks the kernel and logs its failure; errno then tells the reason.

/// MAC and index of the interface, or nothing. `mac_word` is how the probe's message calls the MAC.
std::optional<LinkAnswer> ask_source_link(const std::string& ifname, const char* mac_word);

/// What an IPv4 echo on an Ethernet-like interface needs.
struct FramePath4 {
    /// `source_absent` is the one failure that the caller reports: each probe has its own text.
    enum class Step { ready, failed, source_absent };
    Step reached = Step::failed;
    LinkAnswer link;
    MacAddress next_hop_mac{};
    std::string source_text;  ///< the source address in use
    in_addr source{};
    in_addr target{};
};

/// Finds the path for one probe: link, source (the interface's own where `source_address` is
/// empty), the source's presence, the next hop's MAC, the binary addresses. A next hop whose MAC is
/// unknown is asked for and fails this probe; a later one finds the answer.
FramePath4 find_frame_path4(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx);

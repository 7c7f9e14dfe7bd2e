#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/addresses.h"
#include "host/change_monitor.h"
#include "host/connection_tracking.h"
#include "host/links.h"
#include "probe/outbox.h"
#include "probe/reply_room.h"

struct context;

/// What an IPv4 frame of an interface carries of its own side.
struct OwnEnd4 {
    host::Link link;
    std::string source_text;  ///< dotted decimal
    Ipv4Bytes source{};
};

/// What one worker knows of its host: it is asked once, not once per uplink, and again where the
/// host has announced a change before the present pass of probes. One thread's own, in one network
/// namespace.
class HostView {
  public:
    HostView() = default;
    HostView(const HostView&) = delete;
    HostView& operator=(const HostView&) = delete;

    /// Starts a pass: forgets what the host announced a change of since the last one.
    void begin_pass();

    /// Whether `address` is, as text in dotted decimal, an IPv4 address of an interface whose name
    /// begins with `ifname` or with "vrrp" (B59). False, logged, where the list cannot be read;
    /// the echoes that wait leave before that line.
    bool has_source(const std::string& ifname, const std::string& address);

    /// The first IPv6 address, in the host's order, of an interface whose name begins with
    /// `ifname`, whose first byte is 0xFE or whose second byte is 0x80 (B60).
    struct LinkLocal {
        bool is_list_readable = false;
        std::optional<host::InterfaceAddress> address;
    };
    LinkLocal find_link_local(const std::string& ifname);

    /// 1 with the MAC in `mac`: the neighbour table has an entry for the address; 0: it has none;
    /// -1: error, logged. The table is dumped after an announced change, and again when an address
    /// is missing and an entry was written meanwhile: a dump per uplink would make a pass
    /// quadratic, and one per advertisement would let a neighbour that floods them stall it.
    int find_neighbor(const std::string& address, unsigned char* mac);
    /// The entry, as far as the table was dumped already; else null.
    const MacAddress* known_neighbor(const std::string& address) const;

    /// The MAC that was kept for an IPv4 next hop of an interface, as long as the host announces no
    /// change; else null. It is kept beside the interface's own end, and not without one.
    const MacAddress* known_mac(const std::string& ifname, const std::string& nexthop) const;
    void keep_mac(const std::string& ifname, const std::string& nexthop, const MacAddress& mac);

    /// MAC and index of an interface: asked once, as long as the host announces no change. What
    /// cannot be had is asked again each time.
    host::Link link(const std::string& ifname);

    /// The own end that was kept for an interface and the source address of its configuration, as
    /// long as the host announces no change; else null.
    const OwnEnd4* known_end(const std::string& ifname, const std::string& source_address) const;
    void keep_end(const std::string& ifname, const std::string& source_address, OwnEnd4 end);

    host::ConnectionTracking tracking;
    Outbox outbox{tracking};
    ReplyRoom reply_room;
    /// While a pass collects: what was answered before is marked. Monotonic clock.
    std::optional<timespec> drained_at;

  private:
    struct Addresses {
        /// Address in dotted decimal -> names of the interfaces that have it.
        std::unordered_map<std::string, std::vector<std::string>> names_by_ipv4;
        /// The first that looks link-local of each interface, with its place in the host's list;
        /// sorted, so that names with one beginning stand together.
        struct Candidate {
            std::size_t position = 0;
            host::InterfaceAddress address;
        };
        std::map<std::string, Candidate> link_locals;
    };
    struct Neighbors {
        std::unordered_map<std::string, MacAddress> macs;
        std::uint64_t written_before = 0;
    };

    const Addresses* known_addresses();

    host::ChangeMonitor monitor_;
    std::optional<Addresses> addresses_;
    std::unordered_map<std::string, host::Link> links_;
    struct KeptEnd {
        std::string source_address;
        OwnEnd4 end;
        std::string nexthop;  ///< empty: no MAC is kept
        MacAddress nexthop_mac{};
    };
    std::unordered_map<std::string, KeptEnd> ends_;  // by interface
    std::optional<Neighbors> neighbors_;
};

/// Writes an entry into the kernel's IPv6 neighbour table, and lets every view of the process know
/// that one was written. Failures are logged.
void add_neighbor_entry(const std::string& address, const std::string& ifname,
                        const MacAddress& mac);

/// The calls of given form. The first asks the host anew each time, where workers ask their view.
bool check_src_addr_on_interface(const std::string& ifname, const std::string& address);
/// Enters the connection-tracking record of a probe's echo request by the worker's view; the family
/// is the context's. 0, or -1 where the host did not acknowledge it, logged.
int create_conntrack_record(const std::string& source, const std::string& destination,
                            context* ctx);

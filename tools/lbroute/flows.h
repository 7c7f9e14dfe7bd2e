#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "host/linux/netlink.h"
#include "lbroute/address.h"

namespace lbroute {

/// The connection-tracking table of one network namespace (nfnetlink, libnetfilter_conntrack).
///
/// A flow that was masqueraded behind an uplink's address keeps that address for as long as it
/// talks, also when its route leads over another uplink by now: the answers never come back. Once
/// its entry is deleted, the next packet of the flow is translated anew, by the route of now.
///
/// For one thread; needs CAP_NET_ADMIN.
class FlowTable {
  public:
    struct Result {
        std::size_t deleted = 0;
        std::string problem;      ///< empty: all of them are deleted
        bool is_tracking = true;  ///< false: this kernel tracks no connections, nothing to delete
    };

    /// Opens the table of the namespace that the calling thread is in; stays with that namespace
    /// when the thread leaves it. What stands in the way, the calls below tell.
    FlowTable();

    /// Deletes the entries, of every protocol, whose source was translated to one of the addresses.
    /// In such an entry the answers go to the address while the flow comes from another. Not
    /// deleted are flows of the router itself from that address: another route does not change
    /// their source, so nothing is gained; and connections from outside that are forwarded to a
    /// host inside (destination translated from the address): they belong to this uplink's address
    /// for ever and go on when the uplink is only held or bad.
    ///
    /// Blocks for the time of one look through the table of each family among the addresses (about
    /// 0.2 s for 20,000 entries), at most two seconds where the kernel does not answer.
    Result delete_translated(std::span<const Address> addresses);

  private:
    Result delete_translated(std::span<const Address> addresses, Family family);

    Netlink socket_;
    int open_error_ = 0;
    std::uint32_t sequence_ = 0;
};

}  // namespace lbroute

#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "base/fd.h"
#include "lbroute/rtnetlink_requests.h"

/// The route netlink sockets of one network namespace: that in which they are opened. They keep
/// that namespace alive as long as they are open. For one thread; calls wait for the kernel's
/// answers, which it gives at once.
namespace lbroute {

class RouteSocket {
  public:
    /// Closed, with the cause in `problem`, where the kernel gives no socket.
    static RouteSocket open(std::string& problem);

    bool is_open() const { return socket_.is_open(); }
    /// What the kernel's announcements of our own changes carry as their sender.
    std::uint32_t port() const { return port_; }

    /// Has the kernel take the steps in their order; one that it refuses stops none behind it.
    /// One answer a step.
    std::vector<Answer> take(std::span<const Step> steps);

    /// Hands every message of a listing to `take_message`. An errno in the answer where the kernel
    /// refuses; a listing that changed underneath starts again with `restart`.
    Answer list(Dump what, std::uint32_t selector,
                const std::function<void(const nlmsghdr&)>& take_message,
                const std::function<void()>& restart);

  private:
    /// 0, or the error as in errno(3).
    int send(const Buffer& buffer);
    struct Received {
        long length = -1;  ///< negative: none
        int error = 0;     ///< as in errno(3)
    };
    /// Reads one datagram into the buffer.
    Received receive();

    Fd socket_;
    std::uint32_t port_ = 0;
    std::uint32_t sequence_ = 0;
    Buffer received_;
};

/// Whether the kernel knows next-hop objects, and what it knows of everything of interest.
struct Listing {
    KernelState state;
    bool has_next_hops = true;
    std::string problem;  ///< not empty: the state is not whole, and why
};
Listing list_kernel_state(RouteSocket& socket);

/// Routes of others to these prefixes in the table.
std::vector<KernelRoute> list_foreign_routes(RouteSocket& socket, std::uint32_t table,
                                             const std::set<Prefix>& prefixes,
                                             std::string& problem);

/// How many buckets of a resilient group lead to each hop object: (id, count) in order of ids.
std::vector<std::pair<std::uint32_t, int>> count_buckets(RouteSocket& socket, std::uint32_t group);

/// The kernel's announcements of one namespace.
class RouteMonitor {
  public:
    /// Announcements of links, addresses, routes and next hops, but not those of what `own_port`
    /// asked the kernel for, nor the thousands of single buckets: the kernel leaves them out before
    /// anybody wakes.
    static RouteMonitor open(std::uint32_t own_port, std::string& problem);

    int descriptor() const { return socket_.get(); }

    /// Takes every announcement that waits. Null where some were lost: everything may have changed.
    void drain(const std::function<void(const nlmsghdr*)>& take_message);

  private:
    Fd socket_;
    Buffer received_;
};

}  // namespace lbroute

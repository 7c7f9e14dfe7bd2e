// Announcements of links, addresses and neighbours, rtnetlink(7).

#include "host/change_monitor.h"

#include <linux/rtnetlink.h>

#include <cerrno>
#include <utility>

#include "host/linux/netlink.h"

namespace host {

/// A socket that hears the announcements.
struct ChangeMonitor::Subscription {
    Netlink netlink;
};

ChangeMonitor::ChangeMonitor() = default;
ChangeMonitor::~ChangeMonitor() = default;
ChangeMonitor::ChangeMonitor(ChangeMonitor&&) noexcept = default;
ChangeMonitor& ChangeMonitor::operator=(ChangeMonitor&&) noexcept = default;

Changes ChangeMonitor::take() {
    if (subscription_ == nullptr) {
        constexpr unsigned groups =
            RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_NEIGH;
        Netlink netlink(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (netlink && mnl_socket_bind(netlink.get(), groups, MNL_SOCKET_AUTOPID) == 0) {
            subscription_ = std::make_unique<Subscription>(Subscription{std::move(netlink)});
        }
        return Changes::everything();
    }
    Changes changes;
    while (true) {
        // Of what is announced its kind is enough: the rest is cut, which is told as ENOSPC.
        nlmsghdr announced{};
        const auto length =
            mnl_socket_recvfrom(subscription_->netlink.get(), &announced, sizeof announced);
        if (length > 0 || (length < 0 && errno == ENOSPC)) {
            const bool is_of_neighbours =
                announced.nlmsg_type == RTM_NEWNEIGH || announced.nlmsg_type == RTM_DELNEIGH;
            changes.of_neighbours = changes.of_neighbours || is_of_neighbours;
            changes.of_links = changes.of_links || !is_of_neighbours;
        } else if (length < 0 && errno == ENOBUFS) {
            changes = Changes::everything();  // more than the queue holds; what is left follows
        } else if (length < 0 && errno == EAGAIN) {
            return changes;
        } else if (length == 0 || errno != EINTR) {
            subscription_.reset();
            return Changes::everything();
        }
    }
}

}  // namespace host

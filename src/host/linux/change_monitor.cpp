// Announcements of links, addresses and neighbours, rtnetlink(7).

#include "host/change_monitor.h"

#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <utility>

#include "host/linux/netlink.h"

namespace host {

namespace {

/// A socket that hears the announcements of some groups.
class Announcements {
  public:
    explicit Announcements(unsigned groups) : groups_(groups) {}

    /// Whether anything was announced since the last call; also true where that cannot be known.
    bool take() {
        if (netlink_ == nullptr) {
            subscribe();
            return true;
        }
        bool is_announced = false;
        // That something was announced is enough: what does not fit is cut and told as ENOSPC.
        std::array<char, 16> content;
        while (true) {
            const auto length = mnl_socket_recvfrom(netlink_.get(), content.data(), content.size());
            if (length > 0 || (length < 0 && errno == ENOSPC)) {
                is_announced = true;
            } else if (length < 0 && errno == ENOBUFS) {
                is_announced = true;  // more than the queue holds; what is left follows
            } else if (length < 0 && errno == EAGAIN) {
                return is_announced;
            } else if (length == 0 || errno != EINTR) {
                netlink_.reset();
                return true;
            }
        }
    }

  private:
    void subscribe() {
        Netlink opened(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (opened && mnl_socket_bind(opened.get(), groups_, MNL_SOCKET_AUTOPID) == 0) {
            netlink_ = std::move(opened);
        }
    }

    unsigned groups_;
    Netlink netlink_;
};

}  // namespace

/// Two queues: neighbours may be announced by the hundred, and what the queue of links loses has
/// everything asked anew.
struct ChangeMonitor::Subscription {
    Announcements links{RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR};
    Announcements neighbours{RTMGRP_NEIGH};
};

ChangeMonitor::ChangeMonitor() = default;
ChangeMonitor::~ChangeMonitor() = default;
ChangeMonitor::ChangeMonitor(ChangeMonitor&&) noexcept = default;
ChangeMonitor& ChangeMonitor::operator=(ChangeMonitor&&) noexcept = default;

Changes ChangeMonitor::take() {
    if (subscription_ == nullptr) {
        subscription_ = std::make_unique<Subscription>();
    }
    return {.of_links = subscription_->links.take(),
            .of_neighbours = subscription_->neighbours.take()};
}

}  // namespace host

#include "net/address_monitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace {

Fd subscribe() {
    Fd opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    own.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    const bool is_bound =
        opened.is_open() &&
        bind(opened.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0;
    return is_bound ? std::move(opened) : Fd();
}

}  // namespace

bool AddressMonitor::has_changed() {
    if (!announcements_.is_open()) {
        announcements_ = subscribe();
        return true;
    }
    bool is_announced = false;
    std::array<char, 1> content;  // that something was announced is enough
    while (true) {
        if (recv(announcements_.get(), content.data(), content.size(), MSG_TRUNC) > 0) {
            is_announced = true;
        } else if (errno == ENOBUFS) {
            is_announced = true;  // more than the queue holds; what is left follows
        } else if (errno != EINTR) {
            break;
        }
    }
    if (errno != EAGAIN) {
        announcements_ = Fd();
        return true;
    }
    return is_announced;
}

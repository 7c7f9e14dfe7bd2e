#pragma once

#include <libmnl/libmnl.h>

#include <memory>
#include <utility>

/// A netlink socket that is closed with its owner, libmnl. It belongs to the network namespace of
/// the thread that opens it.
struct CloseNetlink {
    void operator()(mnl_socket* handle) const { mnl_socket_close(handle); }
};
using Netlink = std::unique_ptr<mnl_socket, CloseNetlink>;

/// Whether a whole message stands at the head of so many bytes. mnl_nlmsg_ok alone takes a length
/// beyond two gigabytes for a negative one.
inline bool is_whole(const nlmsghdr* message, int left) {
    return mnl_nlmsg_ok(message, left) && std::cmp_less_equal(message->nlmsg_len, left);
}

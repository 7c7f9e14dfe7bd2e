#pragma once

#include <libmnl/libmnl.h>

#include <memory>

/// A netlink socket that is closed with its owner, libmnl. It belongs to the network namespace of
/// the thread that opens it.
struct CloseNetlink {
    void operator()(mnl_socket* handle) const { mnl_socket_close(handle); }
};
using Netlink = std::unique_ptr<mnl_socket, CloseNetlink>;

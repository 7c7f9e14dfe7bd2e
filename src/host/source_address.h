#pragma once

#include <string>

/// True when `address` is, as text in dotted decimal, an IPv4 address of an interface whose name
/// begins with `ifname` or with "vrrp", in the namespace of the calling thread. The list of
/// addresses is kept until the kernel announces a change; a pass of probes sees one state of it.
bool check_src_addr_on_interface(const std::string& ifname, const std::string& address);

/// Starts a pass of the calling thread: addresses may have changed since the last one.
void forget_interface_addresses();

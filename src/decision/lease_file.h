#pragma once

#include <chrono>
#include <cstdio>
#include <string>

/// The folder of the DHCP clients' lease files.
inline constexpr const char* lease_folder = "/var/db";
/// The name of an interface's lease file there. B94: only the IPv4 client's has an underscore
/// before the interface.
inline std::string lease_name(const std::string& ifname, bool ipv6) {
    return (ipv6 ? "dhcp6_client" : "dhclient_") + ifname + ".leases";
}
inline std::string lease_path(const std::string& ifname, bool ipv6) {
    return std::string(lease_folder) + "/" + lease_name(ifname, ipv6);
}

/// Reads the router's address out of a DHCP client's lease file (dhclient.leases(5)). Pure but for
/// reading `leases` from where it stands. Lines are read 1,023 characters at a time. Empty where
/// the file tells no router, also when the client is just writing it: a last line that neither a
/// newline nor the end of its value closes counts once the file is `unmodified_for` a second.

/// IPv4: the first address of the first line "option routers A, B;", whatever lease it is in (B91).
std::string router_in_lease(FILE* leases, std::chrono::nanoseconds unmodified_for);
/// IPv6: the first address of the first line "new_routers='A B'".
std::string router_in_lease6(FILE* leases, std::chrono::nanoseconds unmodified_for);

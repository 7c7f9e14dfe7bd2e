#pragma once

#include <chrono>
#include <cstdio>
#include <string>

/// Reads the router's address out of a DHCP client's lease file (dhclient.leases(5)). Pure but for
/// reading `leases` from where it stands. Lines are read 1,023 characters at a time. Empty where
/// the file tells no router, also when the client is just writing it: a last line that neither a
/// newline nor the end of its value closes counts once the file is `unmodified_for` a second.

/// IPv4: the first address of the first line "option routers A, B;", whatever lease it is in (B91).
std::string router_in_lease(FILE* leases, std::chrono::nanoseconds unmodified_for);
/// IPv6: the first address of the first line "new_routers='A B'".
std::string router_in_lease6(FILE* leases, std::chrono::nanoseconds unmodified_for);

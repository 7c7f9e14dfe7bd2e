#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What stands in a lease file, without a system call. Where it lies, and how the daemon reads it,
/// is decision/lease_file.h's.
namespace lblease {

/// Why no interface can have this name (dev_valid_name of the kernel, and no character that a log
/// does not print); empty where one can.
std::string problem_of_name(const std::string& name);

/// The address as the kernel prints it, or why a router cannot have it.
struct Router {
    std::string address;
    std::string problem;
};
/// A scope behind an IPv6 address (fe80::1%eth0) must be the interface itself, and is taken off.
Router parse_router(const std::string& text, bool is_ipv6, const std::string& interface);

/// The router of the default route among classless static routes (RFC 3442), in which some
/// providers name it alone: as isc-dhclient writes them (numbers: the length of the destination, as
/// many of its octets as that covers, four of the router) or as the others do (DESTINATION/LENGTH
/// ROUTER, behind blanks or commas). Empty where none is the default; nothing where the text is
/// none.
std::optional<std::string> default_router(const std::string& static_routes);

/// What the text tells.
struct Told {
    std::string interface;
    bool is_ipv6 = false;
    std::string router;
    std::string boot;  ///< the machine's start since which it counts; empty where that is unknown
};
/// The file's whole text. One router: the daemon takes the first in any case, and cuts the last
/// character off the first of several IPv6 ones.
std::string lease_text(const Told& told);
/// Whether lease_text made this text. A DHCP client may keep its own database under that name.
bool is_own_text(std::string_view text);
/// Whether lease_text made it, and for another start of the machine than `boot`.
bool is_of_other_boot(std::string_view text, std::string_view boot);

}  // namespace lblease

#pragma once

#include <sys/socket.h>

#include <string>

/// Judgements of single values, without a system call.
namespace lbcheck {

/// An address of the family (AF_INET, AF_INET6), and nothing else.
bool is_address(int family, const std::string& text);
/// ADDRESS/LENGTH of the family.
bool is_prefix(int family, const std::string& text);
/// ADDRESS/LENGTH of the family as the kernel prints it; what is none stays as it is.
std::string canonical_prefix(int family, const std::string& text);
/// Why a routing daemon refuses the destination ADDRESS/LENGTH of that family, with what to write
/// instead; empty for one that it takes.
std::string problem_of_prefix(int family, const std::string& text);
/// Why no frame or route ever goes to the next hop, an address of that family; empty for one that
/// may work.
std::string problem_of_next_hop(int family, const std::string& text);
/// Whether a host can have it, an address of that family.
bool is_of_a_host(int family, const std::string& text);
/// PPP, WireGuard and other tunnels as they are usually called: their frames have no addresses.
bool is_usually_without_ethernet(const std::string& ifname);
/// Why no interface has the name, or no network namespace; empty for one that some may have.
std::string problem_of_interface_name(const std::string& name);
std::string problem_of_namespace_name(const std::string& name);
/// Of fe80::/10: it needs an interface beside it to be a next hop.
bool is_link_local(const std::string& address);
/// What the loader makes of a number that is not written as one, or that it does not hold; empty
/// when the number is taken as it stands.
std::string problem_of_number(const std::string& text);

inline int family_of(bool is_ipv6) {
    return is_ipv6 ? AF_INET6 : AF_INET;
}

}  // namespace lbcheck

#pragma once

#include <sys/socket.h>

#include <string>

/// Judgements of single values, without a system call.
namespace lbcheck {

/// An address of the family (AF_INET, AF_INET6), and nothing else.
bool is_address(int family, const std::string& text);
/// ADDRESS/LENGTH of the family.
bool is_prefix(int family, const std::string& text);
/// What the loader makes of a number that is not written as one, or that it does not hold; empty
/// when the number is taken as it stands.
std::string problem_of_number(const std::string& text);

inline int family_of(bool is_ipv6) {
    return is_ipv6 ? AF_INET6 : AF_INET;
}

}  // namespace lbcheck

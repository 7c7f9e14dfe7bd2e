#pragma once

#include <string>
#include <vector>

/// Which requests are meant for this machine. A web site can let its own name lead to an address
/// behind a firewall, and read through a browser there what that address answers; the name that
/// stands in the request gives it away. Addresses that stand there as numbers cannot be made so.
namespace lbwatch {

class HostNames {
  public:
    /// `own` is the machine's name, with its domain or without; `given` are others of it.
    HostNames(std::string own, std::vector<std::string> given);

    /// Of a whole request head: whether each name of a host in it is an address, localhost, one of
    /// `given`, the machine's own one, or that one with a domain behind it. A head without any is
    /// no browser's, and accepted.
    bool accept(const std::string& head) const;

  private:
    bool accept_name(std::string name) const;

    std::vector<std::string> names_;
    std::string own_;  ///< without its domain; empty: unknown
};

/// The machine's name as the kernel has it.
std::string own_host_name();

}  // namespace lbwatch

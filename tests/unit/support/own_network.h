#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/fd.h"

/// A network of a test's own, with the kernel's routes, links and settings as on any machine. Only
/// one thread is in it, for as long as `body` runs: the process stays where it is. False where the
/// right to make one with links in it is missing.
bool in_own_network(const std::function<void()>& body);
/// The same, and these folders of the machine are empty ones in memory meanwhile.
bool in_own_network(const std::vector<std::string>& folders, const std::function<void()>& body);

/// A tunnel device of the network that the thread is in, as long as this lives: up, with an IPv4
/// address and a network of 24 bits.
class TestLink {
  public:
    TestLink(std::string name, const std::string& ipv4);

    void set_up(bool is_up) const;

    int index = 0;

  private:
    void put_address(unsigned long request, const std::string& text) const;

    std::string name_;
    Fd tunnel_;
    Fd query_;
};

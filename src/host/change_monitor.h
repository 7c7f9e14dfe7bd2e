#pragma once

#include <memory>

namespace host {

/// What may have changed since the last look.
struct Changes {
    bool of_links = false;       ///< interfaces or their addresses
    bool of_neighbours = false;  ///< entries of the tables of link-layer addresses, either family
};

/// Tells what the host has announced of the network namespace in which it was first asked. One
/// thread's own: what that thread learnt of links, addresses and neighbours stays good between two
/// passes in which nothing was announced, so that it need not ask in each.
class ChangeMonitor {
  public:
    ChangeMonitor();
    ~ChangeMonitor();
    ChangeMonitor(ChangeMonitor&&) noexcept;
    ChangeMonitor& operator=(ChangeMonitor&&) noexcept;

    /// Both at the first call; then what was announced since the last one. What cannot be heard of,
    /// or was announced and lost, counts as changed. Never blocks.
    Changes take();

  private:
    struct Subscription;
    std::unique_ptr<Subscription> subscription_;
};

}  // namespace host

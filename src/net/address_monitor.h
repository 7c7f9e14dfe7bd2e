#pragma once

#include "net/fd.h"

/// Tells whether interfaces or their addresses may have changed, from the kernel's announcements
/// (rtnetlink(7)) in the namespace of the thread that asks first. One thread's own: what it knows
/// of addresses stays good between two passes in which nothing was announced, so that a dump of all
/// addresses is not needed in each.
class AddressMonitor {
  public:
    /// True at the first call, and when something was announced since the last one. Where the
    /// announcements cannot be had or were lost, it is always true. Never blocks.
    bool has_changed();

  private:
    Fd announcements_;
};

#pragma once

#include <sys/types.h>

#include <string>

#include "base/fd.h"

namespace lbwatch {

/// The process of the daemon that writes below an output directory, found without any right: by its
/// name and arguments in /proc, and held by a descriptor of pidfd_open(2), which becomes readable
/// when it ends.
struct DaemonProcess {
    pid_t pid = 0;  ///< 0: none was found
    Fd ended;       ///< closed where the kernel gives none
};

/// Looks for a process called `lb` whose option -o, or the default, names `out_dir`; among several
/// the youngest that is no child of another one.
DaemonProcess find_daemon(const std::string& out_dir);

/// False where /proc hides the processes of others: then "none was found" proves nothing.
bool can_see_processes();

}  // namespace lbwatch

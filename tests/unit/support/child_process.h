#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/fd.h"

/// What became of a child process.
struct ChildEnd {
    int status = 0;                ///< as of wait(2)
    std::string standard_error;    ///< all it wrote there
    std::vector<std::string> log;  ///< datagrams that arrived at its system log
    std::string console;           ///< what it wrote to its console
};

/// Runs `body` in a child process, which exits with 0 when it returns, and waits for its end; after
/// 20 seconds the child is killed. For what can happen only once in a process, or ends it.
ChildEnd run_in_child(const std::function<void()>& body);

/// The same in a mount namespace whose /dev holds nothing but a system log and a console of the
/// test. `permitted` is false, and the body did not run, where the kernel grants no such namespace.
struct PrivateDevEnd : ChildEnd {
    bool permitted = false;
};
PrivateDevEnd run_in_child_with_private_dev(const std::function<void()>& body);

/// A datagram socket of the local kind, bound to `address`: a path, or an abstract name behind '@'.
Fd bound_datagram_socket(const std::string& address);
/// The datagrams that wait there, oldest first. Does not block.
std::vector<std::string> waiting_datagrams(const Fd& socket);

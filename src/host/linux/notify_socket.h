#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <string_view>

#include "base/fd.h"

/// The service manager's notification socket, sd_notify(3): one datagram of "NAME=value" lines.
///
/// Opened in the namespace of the opening thread, to which an abstract address belongs; after that
/// any thread may send, whatever namespace it is in. Sends never block and raise no signal.
class NotifySocket {
  public:
    /// `address` is the value of NOTIFY_SOCKET: a path, or an abstract name behind '@'. Null, empty
    /// or anything else means that there is no service manager.
    explicit NotifySocket(const char* address);

    /// True where the text went out, and also where there is nobody to tell.
    bool send(std::string_view text) const;

  private:
    Fd socket_;  ///< closed where there is no service manager
    sockaddr_un address_{};
    socklen_t address_length_ = 0;
};

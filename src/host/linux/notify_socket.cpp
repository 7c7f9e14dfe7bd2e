#include "host/linux/notify_socket.h"

#include <algorithm>
#include <cstddef>

NotifySocket::NotifySocket(const char* address) {
    const std::string_view text = address != nullptr ? address : "";
    const bool is_abstract = text.starts_with('@');
    // A path is followed by its terminating zero, an abstract name has its length only.
    const std::size_t longest = sizeof address_.sun_path - (is_abstract ? 0 : 1);
    if ((!is_abstract && !text.starts_with('/')) || text.size() < 2 || text.size() > longest) {
        return;
    }
    address_.sun_family = AF_UNIX;
    std::copy(text.begin(), text.end(), address_.sun_path);
    if (is_abstract) {
        address_.sun_path[0] = '\0';
    }
    address_length_ = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() +
                                             (is_abstract ? 0 : 1));
    socket_ = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

bool NotifySocket::send(std::string_view text) const {
    if (!socket_.is_open()) {
        return address_length_ == 0;
    }
    // Not connected, so that a service manager that starts anew is found again under its address.
    const auto sent = sendto(socket_.get(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&address_), address_length_);
    return sent == static_cast<ssize_t>(text.size());
}

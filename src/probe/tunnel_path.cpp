#include "probe/tunnel_path.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "net/resolve.h"
#include "platform/log.h"

bool pings_through_tunnel(const std::string& ifname) {
    return ifname.find("ip4ip4") != std::string::npos || ifname.find("gre") != std::string::npos;
}

TunnelPath open_tunnel_path(int sock, const std::string& ifname, const std::string& target,
                            int family) {
    TunnelPath path;
    if (ifname.empty() || target.empty()) {
        errno = EINVAL;
        return path;
    }
    if (resolve_host(target, family, path.resolved) != 0) {
        path.reached = TunnelPath::Step::unresolved;
        errno = EHOSTUNREACH;
        return path;
    }
    const auto length = static_cast<socklen_t>(ifname.size());
    const bool is_bound =
        setsockopt(sock, SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(), length) == 0;
    path.reached = is_bound ? TunnelPath::Step::ready : TunnelPath::Step::not_bound;
    return path;
}

std::optional<sockaddr_in> dotted_destination(const std::string& target) {
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    if (inet_aton(target.c_str(), &destination.sin_addr) == 0) {
        LOG_ERROR("inet_aton() failed: %s", strerror(EINVAL));
        errno = EINVAL;
        return std::nullopt;
    }
    return destination;
}

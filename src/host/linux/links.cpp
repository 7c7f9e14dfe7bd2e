#include "host/links.h"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/fd.h"
#include "host/linux/query_socket.h"

namespace {

ifreq request_for(const std::string& ifname) {
    ifreq request{};
    ifname.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

}  // namespace

host::OpenedSocket query_socket() {
    thread_local OpenedFd of_thread;
    if (!of_thread.is_open()) {
        of_thread = just_opened(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    return {.number = of_thread.fd.get(), .error = of_thread.error};
}

namespace host {

// SIOCGIFHWADDR and SIOCGIFINDEX, netdevice(7).
Link ask_link(const std::string& ifname) {
    const OpenedSocket query = query_socket();
    if (!query.is_open()) {
        return {.failed = Link::Step::socket, .error = query.error};
    }
    Link link;
    ifreq request = request_for(ifname);
    if (ioctl(query.number, SIOCGIFHWADDR, &request) < 0) {
        return {.failed = Link::Step::mac, .error = errno};
    }
    std::memcpy(link.mac.data(), request.ifr_hwaddr.sa_data, link.mac.size());
    request = request_for(ifname);
    if (ioctl(query.number, SIOCGIFINDEX, &request) < 0) {
        return {.failed = Link::Step::index, .error = errno};
    }
    link.index = request.ifr_ifindex;
    return link;
}

PrimaryAddress primary_address(const std::string& ifname) {
    const OpenedSocket query = query_socket();
    if (!query.is_open()) {
        return {.error = query.error, .address = {}};
    }
    ifreq request = request_for(ifname);
    if (ioctl(query.number, SIOCGIFADDR, &request) < 0) {
        return {.error = errno, .address = {}};
    }
    sockaddr_in address;
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return {.error = 0, .address = std::bit_cast<Ipv4Bytes>(address.sin_addr)};
}

PeerRequest::PeerRequest(bool is_ipv6)
    : family(static_cast<std::uint16_t>(is_ipv6 ? AF_INET6 : AF_INET)) {}

int ask_peer(const std::string& ifname, PeerRequest& request) {
    const OpenedSocket query = query_socket();
    if (!query.is_open()) {
        return query.error;
    }
    ifreq passed = request_for(ifname);
    sockaddr_in peer{};
    peer.sin_family = request.family;
    peer.sin_addr = std::bit_cast<in_addr>(request.address);
    std::memcpy(&passed.ifr_dstaddr, &peer, sizeof peer);
    if (ioctl(query.number, SIOCGIFDSTADDR, &passed) < 0) {
        return errno;
    }
    std::memcpy(&peer, &passed.ifr_dstaddr, sizeof peer);
    request.family = peer.sin_family;
    request.address = std::bit_cast<Ipv4Bytes>(peer.sin_addr);
    return 0;
}

}  // namespace host

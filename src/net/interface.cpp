#include "net/interface.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "net/fd.h"

namespace {

ifreq request_for(const std::string& ifname) {
    ifreq request{};
    ifname.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

}  // namespace

int query_socket() {
    thread_local Fd socket_of_thread;
    if (!socket_of_thread.is_open()) {
        socket_of_thread = Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    return socket_of_thread.get();
}

LinkAnswer ask_link(const std::string& ifname) {
    LinkAnswer answer;
    const int asked = query_socket();
    if (asked < 0) {
        answer.failed = LinkAnswer::Step::socket;
        answer.error = errno;
        return answer;
    }
    ifreq request = request_for(ifname);
    if (ioctl(asked, SIOCGIFHWADDR, &request) < 0) {
        answer.failed = LinkAnswer::Step::mac;
        answer.error = errno;
        return answer;
    }
    std::memcpy(answer.mac.data(), request.ifr_hwaddr.sa_data, answer.mac.size());
    request = request_for(ifname);
    if (ioctl(asked, SIOCGIFINDEX, &request) < 0) {
        answer.failed = LinkAnswer::Step::index;
        answer.error = errno;
        return answer;
    }
    answer.index = request.ifr_ifindex;
    return answer;
}

std::optional<in_addr> primary_address(const std::string& ifname) {
    const int asked = query_socket();
    ifreq request = request_for(ifname);
    if (asked < 0 || ioctl(asked, SIOCGIFADDR, &request) < 0) {
        return std::nullopt;
    }
    sockaddr_in address;
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return address.sin_addr;
}

std::string to_text(const in_addr& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

std::string to_text(const in6_addr& address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(AF_INET6, &address, text.data(), text.size());
    return text.data();
}

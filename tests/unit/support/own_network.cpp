#include "unit/support/own_network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

namespace {

ifreq request_of(const std::string& name) {
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return request;
}

/// Puts an empty folder over each, which the rest of the machine does not see.
bool hide(const std::vector<std::string>& folders) {
    if (folders.empty()) {
        return true;
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return false;
    }
    return std::all_of(folders.begin(), folders.end(), [](const std::string& folder) {
        return mount("tmpfs", folder.c_str(), "tmpfs", 0, "mode=0755") == 0;
    });
}

/// Links have IPv6, but make no address for themselves: the kernel would announce it some time
/// later.
bool give_links_no_ipv6_address() {
    std::ofstream mode("/proc/sys/net/ipv6/conf/default/addr_gen_mode");
    return (mode << 1 << std::endl).good();
}

}  // namespace

bool in_own_network(const std::function<void()>& body) {
    return in_own_network({}, body);
}

bool in_own_network(const std::vector<std::string>& folders, const std::function<void()>& body) {
    bool is_possible = false;
    std::thread([&] {
        is_possible = unshare(CLONE_NEWNET | (folders.empty() ? 0 : CLONE_NEWNS)) == 0 &&
                      hide(folders) && give_links_no_ipv6_address() &&
                      TestLink("try", "192.0.2.1").index != 0;
        if (is_possible) {
            body();
        }
    }).join();
    return is_possible;
}

TestLink::TestLink(std::string name, const std::string& ipv4, Kind kind)
    : name_(std::move(name)),
      device_(open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK)),
      query_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    ifreq request = request_of(name_);
    request.ifr_flags = kind == Kind::tunnel ? IFF_TUN | IFF_NO_PI : IFF_TAP | IFF_NO_PI;
    if (ioctl(device_.get(), TUNSETIFF, &request) == 0) {
        put_address(SIOCSIFADDR, ipv4);
        put_address(SIOCSIFNETMASK, "255.255.255.0");
        set_up(true);
        index = static_cast<int>(if_nametoindex(name_.c_str()));
    }
}

void TestLink::set_up(bool is_up) const {
    ifreq request = request_of(name_);
    request.ifr_flags = is_up ? IFF_UP | IFF_RUNNING : 0;
    ioctl(query_.get(), SIOCSIFFLAGS, &request);
}

void TestLink::put_address(unsigned long what, const std::string& text) const {
    ifreq request = request_of(name_);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, text.c_str(), &address.sin_addr);
    std::memcpy(&request.ifr_addr, &address, sizeof address);
    ioctl(query_.get(), what, &request);
}

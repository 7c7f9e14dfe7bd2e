#include "probe/frame_path.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "host/lb_arp.h"
#include "host/source_address.h"
#include "platform/log.h"

std::optional<LinkAnswer> ask_source_link(const std::string& ifname, const char* mac_word) {
    const LinkAnswer link = ask_link(ifname);
    const char* reason = strerror(link.error);
    switch (link.failed) {
        case LinkAnswer::Step::none:
            return link;
        case LinkAnswer::Step::socket:
            LOG_ERROR("socket() failed to get socket descriptor for using ioctl() %s", reason);
            break;
        case LinkAnswer::Step::mac:
            LOG_ERROR("ioctl() failed to get source MAC %s %s", mac_word, reason);
            break;
        case LinkAnswer::Step::index:
            LOG_ERROR("if_nametoindex() failed to obtain interface index %s", reason);
            break;
    }
    errno = link.error;
    return std::nullopt;
}

namespace {

/// The next hop's MAC as the kernel knows it. Where it does not, a request goes out; nobody waits.
bool find_next_hop_mac(LBArp& arp, const std::string& nexthop, const std::string& source,
                       const std::string& ifname, MacAddress& mac) {
    arp.set_data(nexthop, source, ifname);
    const int known = arp.check_arp_exist();
    if (known < 0) {
        return false;
    }
    if (known == 0) {
        arp.send_arp();
        arp.received_arp();
    }
    const int complete = arp.get_mac(mac.data());
    if (complete == 0) {
        errno = EHOSTUNREACH;
    }
    return complete == 1;
}

bool to_binary(const std::string& text, in_addr& address) {
    if (inet_pton(AF_INET, text.c_str(), &address) == 1) {
        return true;
    }
    LOG_ERROR("inet_pton() failed.\nError message: %s", strerror(EINVAL));
    errno = EINVAL;
    return false;
}

}  // namespace

FramePath4 find_frame_path4(const std::string& ifname, const std::string& source_address,
                            const std::string& nexthop, const std::string& target, context* ctx) {
    FramePath4 path;
    const auto link = ask_source_link(ifname, "address");
    if (!link) {
        return path;
    }
    path.link = *link;
    path.source_text = source_address;
    if (source_address.empty()) {
        const auto own = primary_address(ifname);
        if (!own) {
            return path;
        }
        path.source_text = to_text(*own);
    }
    if (!check_src_addr_on_interface(ifname, path.source_text)) {
        path.reached = FramePath4::Step::source_absent;
        return path;
    }
    if (find_next_hop_mac(*ctx->arp, nexthop, path.source_text, ifname, path.next_hop_mac) &&
        to_binary(path.source_text, path.source) && to_binary(target, path.target)) {
        path.reached = FramePath4::Step::ready;
    }
    return path;
}

#include "host/lb_arp.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "host/arp_receiver.h"
#include "net/fd.h"
#include "net/frame_builder.h"
#include "net/interface.h"
#include "net/resolve.h"
#include "net/sockets.h"
#include "platform/log.h"

NamespaceTable<int> LBArp::_send_sock;
NamespaceTable<bool> LBArp::is_start_recv;

namespace {

arpreq table_query(in_addr address, const std::string& ifname) {
    arpreq query{};
    sockaddr_in protocol_address{};
    protocol_address.sin_family = AF_INET;
    protocol_address.sin_addr = address;
    std::memcpy(&query.arp_pa, &protocol_address, sizeof protocol_address);
    query.arp_ha.sa_family = ARPHRD_ETHER;
    ifname.copy(query.arp_dev, sizeof query.arp_dev - 1);
    return query;
}

/// The IPv4 address of a name, or nothing after logging why.
std::optional<in_addr> resolve(const std::string& address) {
    sockaddr_storage first{};
    const int status = resolve_host(address, AF_INET, first);
    if (status != 0) {
        LOG_ERROR("<%s> getaddrinfo() failed: %s", "send_arp", gai_strerror(status));
        return std::nullopt;
    }
    sockaddr_in found;
    std::memcpy(&found, &first, sizeof found);
    return found.sin_addr;
}

bool log_link_failure(const LinkAnswer& link) {
    switch (link.failed) {
        case LinkAnswer::Step::none:
            return false;
        case LinkAnswer::Step::socket:
            LOG_ERROR("<%s> socket() failed to get socket descriptor for using ioctl()",
                      "send_arp");
            return true;
        case LinkAnswer::Step::mac:
            LOG_ERROR("<%s> ioctl() failed to get source MAC address", "send_arp");
            return true;
        case LinkAnswer::Step::index:
            LOG_ERROR("<%s> if_nametoindex() failed to obtain interface index", "send_arp");
            return true;
    }
    return true;
}

}  // namespace

LBArp::~LBArp() {
    if (const int open_socket = _send_sock.exchange(nsname, 0); open_socket > 0) {
        close(open_socket);
    }
}

void LBArp::init(std::string ns_name) {
    nsname = std::move(ns_name);
    Fd opened = open_send_only_packet_socket();
    if (!opened.is_open()) {
        LOG_ERROR("<%s> socket() fo _send_sock in %s failed ", "init", nsname.c_str());
        _send_sock.set(nsname, -1);
        return;
    }
    _send_sock.set(nsname, opened.release());
    targets = std::make_shared<AskedAddresses>();
    is_start_recv.set(nsname, false);
}

void LBArp::set_data(const std::string& next_hop, const std::string& source_address,
                     const std::string& interface) {
    address = next_hop;
    source = source_address;
    ifname = interface;
    if (targets) {
        targets->set(address, ifname);
    }
}

int LBArp::check_arp_exist() {
    const int asked = query_socket();
    if (asked < 0) {
        LOG_ERROR("<%s> Socket", "check_arp_exist");
        return -1;
    }
    in_addr binary{};
    if (inet_aton(address.c_str(), &binary) == 0) {
        errno = EINVAL;
        LOG_ERROR("<%s> Inet_aton() failed %s(%d)", "check_arp_exist", strerror(errno), errno);
        return -1;
    }
    arpreq query = table_query(binary, ifname);
    if (ioctl(asked, SIOCGARP, &query) < 0) {
        if (errno == ENXIO) {
            return 0;
        }
        LOG_ERROR("<%s> Ioctl %s(%d)", "check_arp_exist", strerror(errno), errno);
        return -1;
    }
    return (query.arp_flags & ATF_COM) != 0 ? 1 : 0;
}

int LBArp::get_mac(unsigned char* mac) {
    const int asked = query_socket();
    if (asked < 0) {
        LOG_ERROR("<%s> Socket", "get_mac");
        return -1;
    }
    in_addr binary{};
    if (inet_aton(address.c_str(), &binary) == 0) {
        LOG_ERROR("<%s> Inet_aton", "get_mac");
        errno = EINVAL;
        return -1;
    }
    arpreq query = table_query(binary, ifname);
    if (ioctl(asked, SIOCGARP, &query) < 0) {
        return -1;
    }
    if ((query.arp_flags & ATF_COM) == 0) {
        return 0;
    }
    std::memcpy(mac, query.arp_ha.sa_data, sizeof(MacAddress));
    return 1;
}

int LBArp::send_arp() {
    if (targets && !is_start_recv.get(nsname) && !targets->receiver.is_open()) {
        targets->receiver = open_arp_receiver();
    }
    const LinkAnswer link = ask_link(ifname);
    if (log_link_failure(link)) {
        return -1;
    }
    in_addr sender{};
    const int converted = inet_pton(AF_INET, source.c_str(), &sender);
    if (converted != 1) {
        // The text of the conversion's result, not of errno: routers' operators know it so.
        LOG_ERROR("<%s> inet_pton() failed for source IP address.Error message: %s", "send_arp",
                  strerror(converted));
        return -1;
    }
    const auto target = resolve(address);
    if (!target) {
        return -1;
    }
    const ArpFrame frame = arp_request_frame(link.mac, sender, *target);
    const int sent = send_frame(_send_sock.get(nsname), link.index, link.mac, bytes_of(frame));
    if (sent <= 0) {
        LOG_ERROR("<%s> sendto() failed", "send_arp");
    }
    return sent;
}

void LBArp::received_arp() {
    if (!targets) {
        return;
    }
    switch (start_receiver_once(is_start_recv, nsname, recv_arp, targets)) {
        case DetachedStart::started:
            break;
        case DetachedStart::not_created:
            LOG_ERROR("Can't create new thread for arp recv");
            break;
        case DetachedStart::not_detached:
            LOG_ERROR("Can't detach thread for arp recv");
            break;
    }
}

#include "probe/lb_arp.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "base/address_text.h"
#include "host/addresses.h"
#include "host/links.h"
#include "host/log.h"
#include "host/neighbours.h"
#include "wire/frame_builder.h"

NamespaceTable<int> LBArp::_send_sock;
NamespaceTable<bool> LBArp::is_start_recv;

namespace {

void log_receiver_without_socket() {
    LOG_ERROR("<%s> socket() for _recv_sock failed ", "recv_arp");
}

const NextHopFamily arp_family{
    .send_sock = LBArp::_send_sock,
    .is_start_recv = LBArp::is_start_recv,
    .open_receiver = host::open_arp_receiver,
    .receiver = recv_arp,
    .handle = handle_arp_frame,
    .log_name = "arp",
    .log_no_receiver_socket = log_receiver_without_socket,
};

bool log_link_failure(const host::Link& link) {
    switch (link.failed) {
        case host::Link::Step::none:
            return false;
        case host::Link::Step::socket:
            LOG_ERROR("<%s> socket() failed to get socket descriptor for using ioctl()",
                      "send_arp");
            return true;
        case host::Link::Step::mac:
            LOG_ERROR("<%s> ioctl() failed to get source MAC address", "send_arp");
            return true;
        case host::Link::Step::index:
            LOG_ERROR("<%s> if_nametoindex() failed to obtain interface index", "send_arp");
            return true;
    }
    return true;
}

}  // namespace

LBArp::LBArp() : NextHopProber(arp_family) {}

void LBArp::init(std::string ns_name) {
    if (!open(std::move(ns_name))) {
        LOG_ERROR("<%s> socket() fo _send_sock in %s failed ", "init", nsname.c_str());
    }
}

LBArp::Presence LBArp::ask_presence() {
    const auto binary = parse_ipv4_in_any_form(address);
    if (!binary) {
        LOG_ERROR("<%s> Inet_aton() failed %s(%d)", "check_arp_exist", strerror(EINVAL), EINVAL);
        return {.known = -1, .error = EINVAL};
    }
    const host::ArpEntry entry = host::ask_arp_entry(*binary, ifname);
    switch (entry.state) {
        case host::ArpEntry::State::complete:
            return {.known = 1, .error = 0};
        case host::ArpEntry::State::incomplete:
        case host::ArpEntry::State::missing:
            return {.known = 0, .error = 0};
        case host::ArpEntry::State::no_socket:
            LOG_ERROR("<%s> Socket", "check_arp_exist");
            break;
        case host::ArpEntry::State::refused:
            LOG_ERROR("<%s> Ioctl %s(%d)", "check_arp_exist", strerror(entry.error), entry.error);
            break;
    }
    return {.known = -1, .error = entry.error};
}

int LBArp::check_arp_exist() {
    const Presence presence = ask_presence();
    errno = presence.error;
    return presence.known;
}

LBArp::Mac LBArp::ask_mac() {
    const auto binary = parse_ipv4_in_any_form(address);
    if (!binary) {
        LOG_ERROR("<%s> Inet_aton", "get_mac");
        return {.error = EINVAL, .mac = {}};
    }
    const host::ArpEntry entry = host::ask_arp_entry(*binary, ifname);
    switch (entry.state) {
        case host::ArpEntry::State::complete:
            return {.error = 0, .mac = entry.mac};
        case host::ArpEntry::State::incomplete:
            return {.error = EHOSTUNREACH, .mac = {}};
        case host::ArpEntry::State::no_socket:
            LOG_ERROR("<%s> Socket", "get_mac");
            break;
        case host::ArpEntry::State::missing:
        case host::ArpEntry::State::refused:
            break;
    }
    return {.error = entry.error, .mac = {}};
}

int LBArp::get_mac(unsigned char* mac) {
    const Mac found = ask_mac();
    if (found.error == 0) {
        std::copy(found.mac.begin(), found.mac.end(), mac);
        return 1;
    }
    errno = found.error;
    return found.error == EHOSTUNREACH ? 0 : -1;
}

std::optional<MacAddress> LBArp::known_mac() const {
    const auto binary = parse_ipv4_in_any_form(address);
    if (!binary) {
        return std::nullopt;
    }
    const host::ArpEntry entry = host::ask_arp_entry(*binary, ifname);
    return entry.state == host::ArpEntry::State::complete ? std::make_optional(entry.mac)
                                                          : std::nullopt;
}

LBArp::Mac LBArp::find_mac() {
    const Presence presence = ask_presence();
    if (presence.known < 0) {
        return {.error = presence.error, .mac = {}};
    }
    if (presence.known == 0) {
        send_arp();
        received_arp();
    }
    return ask_mac();
}

int LBArp::send_arp() {
    prepare_receiver();
    const host::Link link = host::ask_link(ifname);
    if (log_link_failure(link)) {
        return -1;
    }
    const auto sender = parse_ipv4(source);
    if (!sender) {
        // B128: the message has the text of the conversion's result, 0, and not of an error.
        LOG_ERROR("<%s> inet_pton() failed for source IP address.Error message: %s", "send_arp",
                  strerror(0));
        return -1;
    }
    const host::Resolved target = host::resolve(address, false);
    if (target.status != 0) {
        LOG_ERROR("<%s> getaddrinfo() failed: %s", "send_arp",
                  host::resolver_text(target.status).c_str());
        return -1;
    }
    const ArpFrame frame = arp_request_frame(link.mac, *sender, target.ipv4);
    const host::Transfer sent =
        host::send_frame(_send_sock.get(nsname), link.index, link.mac, bytes_of(frame));
    if (sent.count <= 0) {
        LOG_ERROR("<%s> sendto() failed", "send_arp");
    }
    return sent.count;
}

void LBArp::received_arp() {
    start_receiver();
}

bool handle_arp_frame(std::span<const std::uint8_t> frame, AskedAddresses& targets) {
    if (frame.size() < sizeof(ArpFrame)) {
        return true;
    }
    const auto reply = read_at<ArpFrame>(frame, 0);
    if (reply.ethernet.ethertype != ethertype_arp || reply.operation != arp_reply) {
        return true;  // B76: requests are the kernel's
    }
    const std::string sender = to_text(reply.sender_address);
    const std::string ifname = targets.find_or_enter(sender);
    if (ifname.empty()) {
        return true;
    }
    // The field for the MAC is longer than one: what follows in the frame fills it.
    const auto from_mac_on = bytes_of(reply).subspan(offsetof(ArpFrame, sender_mac));
    switch (host::write_arp_entry(reply.sender_address, from_mac_on, ifname)) {
        case host::ArpWritten::written:
            break;
        case host::ArpWritten::no_socket:
            LOG_ERROR("<%s> socket() failed", "add_arp_entry");
            break;
        case host::ArpWritten::refused:
            LOG_ERROR("<%s> %s", "add_arp_entry", sender.c_str());
            break;
    }
    return true;
}

void* recv_arp(void* targets) {
    const std::unique_ptr<NextHopReceiver> receiver(static_cast<NextHopReceiver*>(targets));
    if (receiver->socket < 0) {
        log_receiver_without_socket();
        return nullptr;
    }
    receive_answers(
        arp_family, *receiver, [] { LOG_ERROR("<%s> select() failed", "recv_arp"); },
        [] { LOG_ERROR("<%s> recv() failed", "recv_arp"); });
    return nullptr;
}

#include "host/arp_receiver.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <array>
#include <cstring>

#include "net/frames.h"
#include "net/interface.h"
#include "net/sockets.h"
#include "platform/log.h"

namespace {

/// Writes an entry as the answer gives it. The hardware family stays 0: the kernel takes it from
/// the device.
void add_arp_entry(const ArpFrame& reply, in_addr sender, const std::string& ifname) {
    const int asked = query_socket();
    if (asked < 0) {
        LOG_ERROR("<%s> socket() failed", "add_arp_entry");
        return;
    }
    arpreq entry{};
    sockaddr_in protocol_address{};
    protocol_address.sin_family = AF_INET;
    protocol_address.sin_addr = sender;
    std::memcpy(&entry.arp_pa, &protocol_address, sizeof protocol_address);
    // The data field is longer than a MAC: what follows the sender's MAC in the frame fills it.
    std::memcpy(entry.arp_ha.sa_data, bytes_of(reply).data() + offsetof(ArpFrame, sender_mac),
                sizeof entry.arp_ha.sa_data);
    entry.arp_flags = ATF_COM;
    ifname.copy(entry.arp_dev, sizeof entry.arp_dev - 1);
    if (ioctl(asked, SIOCSARP, &entry) < 0) {
        LOG_ERROR("<%s> %s", "add_arp_entry", to_text(sender).c_str());
    }
}

}  // namespace

std::span<const sock_filter> pass_arp_replies() {
    static constexpr std::array<sock_filter, 4> program{
        sock_filter{BPF_LD | BPF_H | BPF_ABS, 0, 0, offsetof(ArpFrame, operation)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, arp_reply},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0},
    };
    return program;
}

Fd open_arp_receiver() {
    return open_packet_receiver(ETH_P_ARP, pass_arp_replies());
}

bool take_arp_frame(std::span<const std::uint8_t> frame, AskedAddresses& asked) {
    if (frame.size() < sizeof(ArpFrame)) {
        return true;
    }
    const auto reply = read_at<ArpFrame>(frame, 0);
    if (reply.ethernet.ethertype != ethertype_arp || reply.operation != arp_reply) {
        return true;
    }
    in_addr sender{};
    std::memcpy(&sender.s_addr, reply.sender_address.data(), reply.sender_address.size());
    const std::string ifname = asked.find_or_enter(to_text(sender));
    if (!ifname.empty()) {
        add_arp_entry(reply, sender, ifname);
    }
    return true;
}

void* recv_arp(void* targets) {
    const AskedAddressesRef asked = take_asked_addresses(targets);
    if (!asked->receiver.is_open()) {
        LOG_ERROR("<%s> socket() for _recv_sock failed ", "recv_arp");
        return nullptr;
    }
    switch (receive_frames(asked->receiver.get(), take_arp_frame, *asked)) {
        case ReceiverEnd::wait_failed:
            LOG_ERROR("<%s> select() failed", "recv_arp");
            break;
        case ReceiverEnd::receive_failed:
            LOG_ERROR("<%s> recv() failed", "recv_arp");
            break;
        case ReceiverEnd::handler_ended:
            break;
    }
    return nullptr;
}

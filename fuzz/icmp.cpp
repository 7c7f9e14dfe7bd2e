// Datagrams on the ICMP reply socket, as the receiver and a waiting extended ping see them.
#include "fuzz/input.h"
#include "probe/probe_family.h"
#include "probe/reply_mailbox.h"
#include "probe/reply_receiver.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    timespec last_sent{};
    register_probe(ipv4_probes, "eth0", "192.0.2.1", last_sent);
    const std::span datagram(data, size);
    take_reply(ipv4_probes, datagram, "fuzz");
    ReplyMailbox mailbox("fuzz");
    mailbox.expect({.source = {}, .packet_id = 1, .sequence = 0});
    hand_to_waiting_ping("fuzz", datagram);
    return 0;
}

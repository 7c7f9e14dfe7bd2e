// Datagrams on the ICMP reply socket, as its readers and a waiting extended ping see them.
#include "fuzz/input.h"
#include "probe/reply_socket.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    timespec last_sent{};
    register_probe(ipv4_probes, "eth0", "192.0.2.1", last_sent);
    const std::span datagram(data, size);
    mark_answered_probe(ipv4_probes, datagram);
    WaitingPing waiting("fuzz");
    waiting.expect({.source = {}, .packet_id = 1, .sequence = 0});
    offer_to_waiting_ping("fuzz", datagram);
    return 0;
}

// Datagrams on the ICMPv6 reply socket, as the receiver sees them.
#include "fuzz/input.h"
#include "probe/probe_family.h"
#include "probe/reply_receiver.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    timespec last_sent{};
    register_probe(ipv6_probes, "eth0", "2001:db8::1", last_sent);
    take_reply(ipv6_probes, {data, size}, "fuzz");
    return 0;
}

// Datagrams on the ICMPv6 reply socket, as its readers see them.
#include "fuzz/input.h"
#include "probe/reply_socket.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    timespec last_sent{};
    register_probe(ipv6_probes, "eth0", "2001:db8::1", last_sent);
    mark_answered_probe(ipv6_probes, {data, size});
    return 0;
}

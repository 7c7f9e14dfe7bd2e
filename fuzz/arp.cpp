// ARP frames from senders that nobody asked for.
#include "fuzz/input.h"
#include "probe/lb_arp.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    AskedAddresses targets;
    handle_arp_frame({data, size}, targets);
    return 0;
}

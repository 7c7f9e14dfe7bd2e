// ARP frames from senders that nobody asked for.
#include "fuzz/input.h"
#include "host/arp_receiver.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    AskedAddresses asked;
    take_arp_frame({data, size}, asked);
    return 0;
}

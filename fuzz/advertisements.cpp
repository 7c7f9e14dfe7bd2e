// Neighbour advertisements from senders that nobody asked for.
#include "fuzz/input.h"
#include "host/neighbor_receiver.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    AskedAddresses asked;
    take_neighbor_frame({data, size}, asked);
    return 0;
}

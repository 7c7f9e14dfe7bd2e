// Neighbour advertisements from senders that nobody asked for.
#include "fuzz/input.h"
#include "probe/lb_neighbor.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    AskedAddresses targets;
    handle_advertisement({data, size}, targets);
    return 0;
}

// The lease files of the DHCP clients.
#include "decision/lease_file.h"
#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    router_in_lease(as_file(data, size).get());
    router_in_lease6(as_file(data, size).get());
    return 0;
}

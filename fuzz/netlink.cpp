// Answers of the kernel's neighbour table.
#include "fuzz/input.h"
#include "host/linux/neighbor_netlink.h"
#include "host/log.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    set_log_sink([](int, const char*) {});
    walk_netlink_answers({data, size}, [](const host::Neighbor& neighbor) {
        return neighbor.address == "2001:db8::1";
    });
    return 0;
}

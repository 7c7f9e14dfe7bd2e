// ARP frames to a worker that has asked for one next hop: whoever else answers stays out of the
// kernel's table.
#include "fuzz/input.h"
#include "host/simulated/simulation.h"
#include "probe/lb_arp.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Simulation machine;
    machine.add_link("gi1_1");
    AskedAddresses targets;
    targets.set("192.0.2.1", "gi1_1");
    handle_arp_frame({data, size}, targets);
    for (const auto& [place, mac] : machine.neighbours) {
        if (place != std::tuple(std::string(), "gi1_1", "192.0.2.1")) {
            __builtin_trap();
        }
    }
    return 0;
}

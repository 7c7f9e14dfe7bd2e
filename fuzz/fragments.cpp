// The fragments of the daemon, as lbroute reads them.
#include "fuzz/input.h"
#include "lbroute/fragment.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto family : {lbroute::Family::ipv4, lbroute::Family::ipv6}) {
        const auto reading = lbroute::parse_fragment(text, family);
        // A text that is not whole must never change a route.
        if (reading.wholeness != lbroute::Wholeness::whole && !reading.fragment.routes.empty()) {
            __builtin_trap();
        }
        // Nothing in a message may act on the terminal that shows it.
        for (const auto& fault : reading.faults) {
            for (const char c : fault.reason) {
                if (c < ' ' || c > '~') {
                    __builtin_trap();
                }
            }
        }
        for (const auto& route : reading.fragment.routes) {
            // Each prefix reads back as itself.
            const auto again = lbroute::parse_fragment(
                "protocol static {\nroute " + route.prefix.text() + " multipath via " +
                    route.hops.at(0).gateway.text() + " weight 1;\n};\n",
                family);
            if (again.fragment.routes.size() != 1 ||
                again.fragment.routes[0].prefix != route.prefix) {
                __builtin_trap();
            }
        }
    }
    return 0;
}

// The dump files, as lbshow reads and shows them.
#include "fuzz/input.h"
#include "lbshow/freshness.h"
#include "lbshow/in_force.h"
#include "lbshow/views.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span dump(data, size);
    for (const bool is_swapped : {false, true}) {
        lbshow::State state{.interfaces = lbshow::read_interfaces(dump, 4, is_swapped).items,
                            .rules = lbshow::read_rules(dump, is_swapped).items,
                            .routes = lbshow::read_routes(dump, is_swapped).items,
                            .files = {{.name = lbshow::outbounds_name(4)}}};
        lbshow::judge_freshness(state, lbshow::Time(std::chrono::seconds(1)), std::nullopt);
        lbshow::resolve_next_hops(state);
        lbshow::tables(state, {}, true);
        lbshow::json(state, {});
        lbshow::metrics(state, "1");
    }
    return 0;
}

// The dump files, as lbshow reads and shows them.
#include "dumps/freshness.h"
#include "dumps/in_force.h"
#include "fuzz/input.h"
#include "lbshow/views.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span dump(data, size);
    for (const bool is_swapped : {false, true}) {
        dumps::State state{.interfaces = dumps::read_interfaces(dump, 4, is_swapped).items,
                           .rules = dumps::read_rules(dump, is_swapped).items,
                           .routes = dumps::read_routes(dump, is_swapped).items,
                           .files = {{.name = dumps::outbounds_name(4)}}};
        dumps::judge_freshness(state, dumps::Time(std::chrono::seconds(1)), std::nullopt);
        dumps::resolve_next_hops(state);
        lbshow::tables(state, {}, true);
        lbshow::json(state, {});
        lbshow::metrics(state, "1");
    }
    return 0;
}

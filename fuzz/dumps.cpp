// The dump files, as lbshow reads and shows them.
#include "fuzz/input.h"
#include "lbshow/state.h"
#include "lbshow/views.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span dump(data, size);
    for (const bool is_swapped : {false, true}) {
        const lbshow::State state{.interfaces = lbshow::read_interfaces(dump, 4, is_swapped).items,
                                  .rules = lbshow::read_rules(dump, is_swapped).items,
                                  .routes = lbshow::read_routes(dump, is_swapped).items};
        lbshow::tables(state, {}, true);
        lbshow::json(state, {});
        lbshow::metrics(state, {});
    }
    return 0;
}

// The file of maintenance holds, and the durations that are typed.
#include "lbroute/holds.h"

#include <string>
#include <vector>

#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto reading = lbroute::parse_holds(text);
    // What is in force is written back as it was read, and is one hold of each uplink and family.
    const auto again = lbroute::parse_holds(lbroute::holds_text(reading.holds));
    if (!again.problem.empty() || again.holds != reading.holds) {
        __builtin_trap();
    }
    for (const lbroute::Hold& hold : reading.holds) {
        const auto* const found =
            lbroute::hold_of(reading.holds, hold.namespace_name, hold.interface, hold.family);
        if (found != &hold) {
            __builtin_trap();
        }
    }
    auto left = reading.holds;
    const auto next_ms = lbroute::next_end_ms(left);
    if (next_ms) {
        lbroute::drop_ended(left, *next_ms);
        if (left.size() >= reading.holds.size()) {
            __builtin_trap();
        }
    }
    const auto duration_ms = lbroute::parse_duration_ms(text);
    if (duration_ms && *duration_ms < 1) {
        __builtin_trap();
    }
    return 0;
}

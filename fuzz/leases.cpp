// The lease files of the DHCP clients.
#include "decision/lease_file.h"
#include "fuzz/input.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const int age_s : {0, 1}) {
        const std::chrono::seconds unmodified_for(age_s);
        router_in_lease(as_file(data, size).get(), unmodified_for);
        router_in_lease6(as_file(data, size).get(), unmodified_for);
    }
    return 0;
}

// Deletes the connection-tracking entries translated to the addresses given, in the namespace it
// runs in, by the very code that lbroute uses; prints how many, or "no tracking". For
// test_lbroute_flows.py.
#include <iostream>
#include <vector>

#include "lbroute/flows.h"

int main(int argc, char* argv[]) {
    std::vector<lbroute::Address> addresses;
    for (int i = 1; i < argc; ++i) {
        for (const auto family : {lbroute::Family::ipv4, lbroute::Family::ipv6}) {
            if (const auto address = lbroute::Address::parse(argv[i], family)) {
                addresses.push_back(*address);
            }
        }
    }
    lbroute::FlowTable table;
    const auto result = table.delete_translated(addresses);
    if (!result.problem.empty()) {
        std::cerr << result.problem << "\n";
        return 1;
    }
    if (!result.is_tracking) {
        std::cout << "no tracking\n";
        return 0;
    }
    std::cout << result.deleted << "\n";
    return 0;
}

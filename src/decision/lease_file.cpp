#include "decision/lease_file.h"

#include <array>

#include "config/str_proc.h"

namespace {

constexpr std::size_t line_buffer_size = 1024;

/// The words of the first line whose word `index` is `keyword`; none where there is no such line.
StrProc first_line(FILE* leases, const std::string& delimiter, int index,
                   const std::string& keyword) {
    std::array<char, line_buffer_size> buffer;
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), leases) != nullptr) {
        StrProc words(buffer.data(), delimiter);
        if (words.get(index) == keyword) {
            return words;
        }
    }
    return {"", delimiter};
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

}  // namespace

std::string router_in_lease(FILE* leases) {
    const std::string routers = first_line(leases, " ", 1, "routers").get(2);
    std::string router = StrProc(routers, ",").get(0);
    if (!router.empty() && !is_digit(router.back())) {
        router.pop_back();  // the ";" that ends the statement
    }
    return router;
}

std::string router_in_lease6(FILE* leases) {
    const std::string routers = first_line(leases, "=", 0, "new_routers").get(1);
    const std::string router = StrProc(routers, " ").get(0);
    // Without its quotes; with two routers the last character is the address's own, as routers have
    // always read it.
    return router.size() < 2 ? std::string() : router.substr(1, router.size() - 2);
}

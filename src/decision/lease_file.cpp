#include "decision/lease_file.h"

#include <array>
#include <string_view>

#include "config/str_proc.h"

namespace {

using std::chrono::nanoseconds;

constexpr std::size_t line_buffer_size = 1024;
/// A client writes a lease in one go; one that has paused for so long has nothing to add.
constexpr std::chrono::seconds pause_of_a_writer{1};

/// Whether the file ends within the line's value while its client may still be at it: the start of
/// an address may well be an address itself.
bool is_just_written(std::string_view line, FILE* leases, nanoseconds unmodified_for) {
    constexpr std::string_view ends_of_value = "\n;'\"";
    return unmodified_for < pause_of_a_writer && feof(leases) != 0 && !line.empty() &&
           ends_of_value.find(line.back()) == std::string_view::npos;
}

/// The words of the first line whose word `index` is `keyword`; none where there is no such line.
StrProc first_line(FILE* leases, nanoseconds unmodified_for, const std::string& delimiter,
                   int index, const std::string& keyword) {
    std::array<char, line_buffer_size> buffer;
    while (fgets(buffer.data(), static_cast<int>(buffer.size()), leases) != nullptr) {
        StrProc words(buffer.data(), delimiter);
        if (words.get(index) == keyword &&
            !is_just_written(buffer.data(), leases, unmodified_for)) {
            return words;
        }
    }
    return {"", delimiter};
}

bool is_digit(char character) {
    return character >= '0' && character <= '9';
}

}  // namespace

std::string router_in_lease(FILE* leases, nanoseconds unmodified_for) {
    const std::string routers = first_line(leases, unmodified_for, " ", 1, "routers").get(2);
    std::string router = StrProc(routers, ",").get(0);
    if (!router.empty() && !is_digit(router.back())) {
        router.pop_back();  // B93: the ";" that ends the statement
    }
    return router;
}

std::string router_in_lease6(FILE* leases, nanoseconds unmodified_for) {
    const std::string routers = first_line(leases, unmodified_for, "=", 0, "new_routers").get(1);
    const std::string router = StrProc(routers, " ").get(0);
    // Without its quotes. B92: with two routers the last character is the address's own and is
    // lost.
    return router.size() < 2 ? std::string() : router.substr(1, router.size() - 2);
}

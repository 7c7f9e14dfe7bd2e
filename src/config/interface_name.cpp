#include "config/interface_name.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace {

/// How many dots select a pattern.
enum class Dots { any, none, one, more };

struct NamePattern {
    std::string_view prefix;
    Dots dots;
    const char* parsed;  ///< scanf(3) pattern of the kernel's name
    int count;           ///< numbers that it must convert
    const char* shown;   ///< printf(3) pattern of the router's name
};

// B130: the first prefix that matches decides, even when its pattern then fails. No pattern has
// more than four numbers.
constexpr std::array patterns{
    NamePattern{"gi", Dots::none, "gi%d_%d", 2, "gigabitethernet %d/0/%d"},
    NamePattern{"gi", Dots::one, "gi%d_%d.%d", 3, "gigabitethernet %d/0/%d.%d"},
    NamePattern{"gi", Dots::more, "gi%d_%d.%d.%d", 4, "gigabitethernet %d/0/%d.%d.%d"},
    NamePattern{"te", Dots::none, "te%d_%d", 2, "tengigabitethernet %d/0/%d"},
    NamePattern{"te", Dots::one, "te%d_%d.%d", 3, "tengigabitethernet %d/0/%d.%d"},
    NamePattern{"te", Dots::more, "te%d_%d.%d.%d", 4, "tengigabitethernet %d/0/%d.%d.%d"},
    NamePattern{"gre", Dots::any, "gre_%d", 1, "gre %d"},
    NamePattern{"lt", Dots::any, "lt_%d", 1, "lt %d"},
    NamePattern{"ip4ip4", Dots::any, "ip4ip4_%d", 1, "ip4ip4 %d"},
    NamePattern{"br", Dots::any, "br%d", 1, "bridge %d"},
    NamePattern{"po", Dots::none, "po%d", 1, "port-channel %d"},
    NamePattern{"po", Dots::one, "po%d.%d", 2, "port-channel %d.%d"},
    NamePattern{"po", Dots::more, "po%d.%d.%d", 3, "port-channel %d.%d.%d"},
    NamePattern{"lo_", Dots::any, "lo_%d", 1, "loopback %d"},
    NamePattern{"modem", Dots::any, "modem%d", 1, "modem %d"},
};

constexpr std::size_t shown_size = 32;

Dots dots_in(std::string_view name) {
    const auto count = std::count(name.begin(), name.end(), '.');
    return count == 0 ? Dots::none : count == 1 ? Dots::one : Dots::more;
}

const NamePattern* pattern_for(std::string_view name) {
    const auto selects = [name, dots = dots_in(name)](const NamePattern& pattern) {
        return name.starts_with(pattern.prefix) &&
               (pattern.dots == Dots::any || pattern.dots == dots);
    };
    const auto found = std::find_if(patterns.begin(), patterns.end(), selects);
    return found == patterns.end() ? nullptr : &*found;
}

}  // namespace

std::string linux_ifname_to_qel_ifname(const char* ifname, context* /*ctx*/) {
    const NamePattern* pattern = pattern_for(ifname);
    if (pattern == nullptr) {
        return "";
    }
    std::array<int, 4> n{};
    // The patterns come from the table above, so no compiler can check them against the numbers.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (sscanf(ifname, pattern->parsed, &n[0], &n[1], &n[2], &n[3]) != pattern->count) {
        return "";
    }
    std::array<char, shown_size> shown{};
    snprintf(shown.data(), shown.size(), pattern->shown, n[0], n[1], n[2], n[3]);
#pragma GCC diagnostic pop
    return shown.data();
}

std::string shown_ifname(const std::string& ifname, context* ctx) {
    std::string shown = linux_ifname_to_qel_ifname(ifname.c_str(), ctx);
    return shown.empty() ? "unknown interface" : shown;
}

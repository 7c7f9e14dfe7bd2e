// What the scripts of DHCP clients hand to lb-lease, and that the daemon reads the same router out
// of what it writes.
#include <string>

#include "decision/lease_file.h"
#include "fuzz/input.h"
#include "lb-lease/lease_text.h"

namespace {

void write_and_read(const std::string& interface, bool is_ipv6, const std::string& text) {
    if (!lblease::problem_of_name(interface).empty()) {
        return;
    }
    const lblease::Router router = lblease::parse_router(text, is_ipv6, interface);
    if (router.problem.empty() == router.address.empty()) {
        __builtin_trap();
    }
    // Nothing in a message may act on the terminal that shows it.
    for (const char c : router.problem) {
        if (c < ' ' || c > '~') {
            __builtin_trap();
        }
    }
    if (router.address.empty()) {
        return;
    }
    const std::string written = lblease::lease_text({interface, is_ipv6, router.address, "0c4b"});
    const auto file =
        as_file(reinterpret_cast<const std::uint8_t*>(written.data()), written.size());
    const std::string read = is_ipv6 ? router_in_lease6(file.get(), std::chrono::seconds(0))
                                     : router_in_lease(file.get(), std::chrono::seconds(0));
    if (read != router.address || !lblease::is_own_text(written) ||
        lblease::is_of_other_boot(written, "0c4b") || !lblease::is_of_other_boot(written, "77") ||
        lease_name(interface, is_ipv6).find('/') != std::string::npos) {
        __builtin_trap();
    }
}

}  // namespace

/// The first line is the interface's name, the rest the router or the static routes.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t end = text.find('\n');
    const std::string interface = text.substr(0, end);
    const std::string rest = end == std::string::npos ? "" : text.substr(end + 1);
    for (const bool is_ipv6 : {false, true}) {
        write_and_read(interface, is_ipv6, rest);
    }
    if (const auto router = lblease::default_router(rest)) {
        write_and_read(interface, false, *router);
    }
    lblease::is_own_text(rest);
    lblease::is_of_other_boot(rest, interface);
    return 0;
}

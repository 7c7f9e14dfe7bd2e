#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "unit/support/own_network.h"

/// Where lbroute's commands are tried: a network with two uplinks, wan1 (192.0.2.10) and wan2
/// (198.51.100.10), and folders in which nothing has been routed or held yet.
namespace lbroute::machine {

/// Fragments: over both uplinks, and over the first one alone.
inline constexpr const char* both =
    "protocol static {\nroute 10.0.0.0/8 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight "
    "3;\n};\n";
inline constexpr const char* first =
    "protocol static {\nroute 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\n};\n";

inline void write_fragment(const std::string& text) {
    std::ofstream("/usr/etc/routing-wlb.conf") << text;
}

/// Skips the test without the right to have such a machine.
inline void in_own_machine(const std::function<void()>& body) {
    const bool is_possible = in_own_network({"/usr", "/run"}, [&] {
        std::filesystem::create_directories("/usr/etc");
        const TestLink one("wan1", "192.0.2.10");
        const TestLink two("wan2", "198.51.100.10");
        body();
    });
    if (!is_possible) {
        GTEST_SKIP() << "needs the right to make a network and mounts of its own";
    }
}

}  // namespace lbroute::machine

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lbroute/address.h"

/// The fragments that `lb` writes for its routing daemon, as plain values; without a system call.
///
///     protocol static {
///     check link 1;
///     route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric 20;
///     };
///
/// `lb` writes in place, so a reader may meet any beginning of that text: it is whole only when it
/// starts with the first and ends with the last of these lines. Nothing is taken from a text that
/// is not whole. In a whole text each line stands alone: what is wrong in one costs that route, or
/// that next hop, and nothing else.
namespace lbroute {

struct FragmentHop {
    Address gateway;  ///< of the fragment's family; may stand twice in a route
    int weight = 1;   ///< 1 to 2147483647

    bool operator==(const FragmentHop&) const = default;
};

struct FragmentRoute {
    Prefix prefix;
    std::vector<FragmentHop> hops;  ///< as they stand in the line; at least one
    std::optional<std::uint32_t> metric;

    bool operator==(const FragmentRoute&) const = default;
};

struct Fragment {
    bool check_link = false;            ///< the line "check link 1;" stands there
    std::vector<FragmentRoute> routes;  ///< ordered by prefix, each prefix once

    bool operator==(const Fragment&) const = default;
};

/// What is wrong in one line, printable whatever the line holds.
struct FragmentFault {
    int line = 0;  ///< counted from 1
    std::string reason;

    bool operator==(const FragmentFault&) const = default;
};

enum class Wholeness {
    whole,
    incomplete,  ///< to be read again; the only fault says what is missing
    empty        ///< no byte: just being rewritten, or emptied on purpose
};

struct FragmentReading {
    Wholeness wholeness = Wholeness::empty;
    Fragment fragment;  ///< without routes unless whole
    /// In the order of the lines. Faults beyond the first 20 are counted in one last entry.
    std::vector<FragmentFault> faults;
};

/// Reads a fragment of the family. Of two lines for one prefix the later counts, whatever its
/// metric; a faulty line leaves the earlier one in force.
FragmentReading parse_fragment(std::string_view text, Family family);

}  // namespace lbroute

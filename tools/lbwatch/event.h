#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace lbwatch {

/// Which uplink: kernel's interface name, family and namespace (empty: the default one).
struct UplinkKey {
    std::string namespace_name;
    int family = 4;
    std::string name;

    auto operator<=>(const UplinkKey&) const = default;
};

/// For example "eth0 ipv4", or "eth0 ipv4 (blue)" in a namespace. Harmless on a terminal.
std::string text_of(const UplinkKey& key);

enum class EventKind { uplink, target, nexthop, routes, daemon };

const char* word_of(EventKind kind);
std::optional<EventKind> read_kind(const std::string& word);

/// Something that changed. `from` and `to` are words of the kind: uplinks "absent", "unknown",
/// "active", "failed"; targets "success", "failure"; the daemon "unknown", "running", "stale",
/// "stopped"; next hops are addresses or empty; routes list the uplinks in use, or "none".
struct Event {
    std::int64_t time_ms = 0;  ///< since the epoch
    EventKind kind = EventKind::uplink;
    /// The name is empty where the event is about no single uplink; family and namespace of a
    /// routes event are the rule's, those of a daemon event mean nothing.
    UplinkKey uplink;
    std::string target;                     ///< of a target event: its address
    std::string rule;                       ///< of a routes event, for example 1_ipv4
    std::vector<std::string> destinations;  ///< of a routes event: the prefixes concerned
    std::string from;
    std::string to;
    std::optional<std::int64_t> after_s;  ///< how long `from` had lasted, where it is known
    std::string reason;                   ///< empty where there is nothing to add

    bool operator==(const Event&) const = default;
};

/// One line without a line feed and without the time, for people; foreign texts made harmless.
std::string line_of(const Event& event);

}  // namespace lbwatch

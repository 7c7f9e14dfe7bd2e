#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// What the daemon's dumps tell, as plain values. Texts come from a file and may hold anything;
/// those who print them make them harmless first.
namespace lbshow {

/// The latest measurements of an extended ping beside their limits.
struct Quality {
    int loss_percent = 0;
    int rtt_ms = 0;
    int jitter_ms = 0;
    int loss_limit = 0;
    int rtt_limit = 0;
    int jitter_limit = 0;
};

enum class Result { none, answered, timed_out };

struct Probe {
    std::string target;
    Result last_result = Result::none;
    int success_run = 0;
    int failure_run = 0;
    std::optional<Quality> quality;
};

struct Interface {
    std::string name;
    int family = 4;
    std::string namespace_name;  ///< empty: the default namespace
    bool is_active = false;
    std::string nexthop;       ///< empty while none is known
    std::string nexthop_from;  ///< "configured", "dhcp" or "tunnel"
    std::string source_address;
    std::optional<int> since_success_s;  ///< none: there never was one
    std::optional<int> since_failure_s;
    int last_change_s = 0;  ///< since the epoch, by the clock of then; 0: it never changed
    int success_ct = 0;
    int failure_ct = 0;
    std::vector<Probe> probes;
};

struct Member {
    std::string interface;
    int family = 4;
    int weight = 0;  ///< the lowest byte of the configured one
};

struct Rule {
    int number = 0;
    int family = 4;
    std::string namespace_name;
    bool is_failover = false;
    std::vector<Member> members;

    std::string name() const;  ///< for example 1_ipv4
};

struct Route {
    int rule_number = 0;
    int family = 4;
    int position = 0;  ///< within its rule, from 1
    std::string prefix;
    std::optional<int> metric;
    std::string nexthop;  ///< chosen by a failover rule, else empty

    std::string rule_name() const;
};

struct State {
    std::vector<Interface> interfaces;
    std::vector<Rule> rules;
    std::vector<Route> routes;
};

/// Items read, or why the file is none of ours.
template <class Item>
struct Read {
    std::vector<Item> items;
    std::string problem;        ///< empty: all is well
    bool is_truncated = false;  ///< the file ends within a record: it may just be rewritten
};

/// Reads a whole dump. `is_swapped`: it comes from a machine of the other byte order.
Read<Interface> read_interfaces(std::span<const std::uint8_t> dump, int family, bool is_swapped);
Read<Rule> read_rules(std::span<const std::uint8_t> dump, bool is_swapped);
Read<Route> read_routes(std::span<const std::uint8_t> dump, bool is_swapped);

/// Reads the dumps below an output directory; a dump that is cut is tried again for a short while.
/// Gives what is wrong, or an empty text.
std::string read_state(const std::string& directory, bool is_swapped, State& state);

}  // namespace lbshow

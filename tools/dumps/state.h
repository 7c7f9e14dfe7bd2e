#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// What the daemon's dumps tell, as plain values. Texts come from a file and may hold anything;
/// those who print them make them harmless first.
namespace dumps {

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
    int position = 0;  ///< within its interface, from 1, in the order of the probes' numbers
    std::string target{};
    Result last_result = Result::none;
    int success_run = 0;
    int failure_run = 0;
    std::optional<Quality> quality{};

    const char* type() const;  ///< as in the configuration: "ping" or "ping_ext"
};

/// What lbwatch(8) has seen of an interface's present state.
struct Past {
    std::int64_t since_s = 0;    ///< how long it has lasted
    bool is_begin_seen = false;  ///< else it has lasted for at least so long
    int flaps_today = 0;         ///< changes between active and failed since midnight
};

struct Interface {
    std::string name{};
    int family = 4;
    std::string namespace_name{};  ///< empty: the default namespace
    bool is_active = false;
    std::string nexthop{};       ///< empty while none is known
    std::string nexthop_from{};  ///< "configured", "dhcp" or "tunnel"
    std::string source_address{};
    std::optional<int> since_success_s{};  ///< none: there never was one
    std::optional<int> since_failure_s{};
    int success_ct = 0;
    int failure_ct = 0;
    std::vector<Probe> probes{};
    bool is_routed = false;  ///< a route uses it; see in_force.h
    bool is_stale = false;   ///< what stands here is not of now; see freshness.h

    std::optional<Past> past{};  ///< none: nobody has watched

    bool has_extended_ping() const;
};

struct Member {
    std::string interface = {};
    int family = 4;
    int weight = 0;  ///< the lowest byte of the configured one
};

struct Rule {
    int number = 0;
    int family = 4;
    std::string namespace_name{};
    bool is_failover = false;
    std::vector<Member> members{};
    bool is_stale = false;

    std::string name() const;  ///< for example 1_ipv4
};

/// A next hop of a route, as the routing daemon is handed it.
struct NextHop {
    std::string address{};
    std::string interface = {};
    int weight = 0;  ///< the lowest byte of the configured one
};

struct Route {
    int rule_number = 0;
    int family = 4;
    int position = 0;  ///< within its rule, from 1
    std::string prefix{};
    std::optional<int> metric{};
    std::string nexthop{};            ///< chosen by a failover rule, else empty
    std::vector<NextHop> in_force{};  ///< see in_force.h
    bool is_stale = false;

    std::string rule_name() const;
};

/// Wall-clock time, as files carry it.
using Time = std::chrono::sys_time<std::chrono::milliseconds>;

/// A dump and when it was last written.
struct DumpFile {
    std::string name{};  ///< without its folder
    Time written{};
};

/// "ipv4" or "ipv6".
const char* family_name(int family);

/// The dump of a family's interfaces.
std::string outbounds_name(int family);

/// How old what is known of a family is.
struct Family {
    int family = 4;
    DumpFile oldest{};           ///< of the files that tell of it
    std::int64_t age_s = 0;      ///< negative: from the future, the clock was set back since
    std::int64_t own_age_s = 0;  ///< of its own dump
    std::int64_t limit_s = 0;    ///< the age from which on it is stale
    bool is_stale = false;
};

/// Items that are not shown since they are stale.
struct LeftOut {
    std::size_t interfaces = 0;
    std::size_t rules = 0;
    std::size_t routes = 0;
};

struct State {
    std::vector<Interface> interfaces{};
    std::vector<Rule> rules{};
    std::vector<Route> routes{};
    std::string dump_directory{};
    std::vector<DumpFile> files{};
    Time seen{};                        ///< when the ages were reckoned
    std::vector<Family> families{};     ///< those that have a dump
    std::vector<Interface> unjudged{};  ///< whose worker stands still; see freshness.h
    LeftOut left_out{};
    bool has_history = false;  ///< the interfaces' pasts were asked for
};

/// Items read, or why the file is none of ours.
template <class Item>
struct Read {
    std::vector<Item> items;
    std::string problem{};      ///< empty: all is well
    bool is_truncated = false;  ///< the file ends within a record: it may just be rewritten
};

/// Reads a whole dump. `is_swapped`: it comes from a machine of the other byte order.
Read<Interface> read_interfaces(std::span<const std::uint8_t> dump, int family, bool is_swapped);
Read<Rule> read_rules(std::span<const std::uint8_t> dump, bool is_swapped);
Read<Route> read_routes(std::span<const std::uint8_t> dump, bool is_swapped);

}  // namespace dumps

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lbroute/daemon_record.h"
#include "lbroute/holds.h"
#include "lbroute/served_namespace.h"

/// What `lbroute status` shows: the fragments beside what the kernel routes by, compared; without a
/// system call.
namespace lbroute {

struct ReportedHop {
    std::string gateway;
    std::string interface;
    int weight = 0;     ///< the fragment's; of a leftover the kernel's
    std::string state;  ///< "routed", "held", "no carrier", "refused", "missing", "leftover"
    std::string reason;
    std::optional<int> buckets;           ///< of a sticky route
    std::optional<double> share_percent;  ///< of the route's flows, as the kernel divides them
};

struct ReportedRoute {
    std::string prefix;
    Family family = Family::ipv4;
    std::uint32_t metric = 0;
    std::uint32_t table = main_table;
    std::string state;  ///< "ok", "differs", "missing", "leftover", "shadowed"
    std::string mode;   ///< as it stands: "sticky", "group", "plain"; empty where it does not
    std::string refusal;
    std::string in_place;                  ///< the command that ends the route in its place
    std::vector<std::string> shadowed_by;  ///< the commands that would end them
    std::vector<ReportedHop> hops;

    bool agrees() const { return state == "ok"; }
};

struct ReportedFragment {
    std::string path;
    std::string state;  ///< "read", "missing", "not whole or not readable"
    std::vector<std::string> problems;
};

struct ReportedNamespace {
    std::string name;
    std::string problem;     ///< what could not be looked at
    std::string not_served;  ///< why the running program leaves it alone; empty where it serves it
    std::vector<ReportedFragment> fragments;
    std::vector<ReportedRoute> routes;

    bool agrees() const;
};

struct Report {
    DaemonRecord daemon;
    bool is_running = false;
    /// Where lbroute does not run: the process number files that name a process which does.
    std::vector<std::string> others;
    std::vector<std::string> problems;  ///< of the configuration and the holds
    std::vector<Hold> holds;
    std::int64_t now_ms = 0;  ///< CLOCK_BOOTTIME, as the holds' ends
    std::vector<ReportedNamespace> namespaces;

    /// Something is asked for at all.
    bool has_fragments() const;
    /// The kernel routes as the fragments ask, and all of it could be looked at.
    bool agrees() const;
};

/// Buckets of a group by hop object, asked once a group.
using BucketsOf = std::function<std::vector<std::pair<std::uint32_t, int>>(std::uint32_t)>;

std::vector<ReportedRoute> reported_routes(const View& view, const DaemonRecord& daemon,
                                           const std::string& namespace_name,
                                           const BucketsOf& buckets_of);

}  // namespace lbroute

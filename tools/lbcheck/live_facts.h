#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "dumps/state.h"
#include "lbroute/report.h"

/// What a router tells of itself at one moment, as plain values: all that `lbcheck --live` judges.
namespace lbcheck {

/// A number of /proc/sys; none where it cannot be read.
using Setting = std::optional<long>;

/// What became of an echo that left by the daemon's own send path.
struct Echo {
    enum class End {
        answered,
        not_sent,       ///< see `reason`
        not_delivered,  ///< the answer came in by the uplink, and its socket never had it
        unanswered
    };
    End end = End::unanswered;
    std::string target;
    std::string reason;
    /// Packets that the reverse-path check dropped meanwhile, in the whole namespace.
    std::uint64_t reverse_path_drops = 0;
};

/// The lease file of an uplink whose next hop comes by DHCP.
struct Lease {
    std::string path;
    std::string error;                          ///< why it cannot be read; empty where it can
    std::string router;                         ///< what the daemon reads there; empty: nothing
    std::optional<std::int64_t> ended_for_s{};  ///< above 0: the last lease in it is over
};

struct UplinkFacts {
    std::string interface;
    bool is_ipv6 = false;
    std::string configured_next_hop;  ///< an address, "dhcp" or "tunnel"
    std::string next_hop;             ///< in force; empty while none is known
    std::string source_address;       ///< configured; empty: the interface's own
    bool is_source_found = false;     ///< by the daemon's rules; see live_namespace.cpp
    bool is_tunnel = false;           ///< by its name: probes leave without a frame
    std::vector<std::string> similar_interfaces{};  ///< that are there, where this one is not
    bool exists = false;
    bool is_up = false;
    bool has_carrier = false;
    bool is_ethernet = true;  ///< its frames have Ethernet addresses
    std::vector<std::string>
        addresses{};  ///< of the family, global ones; as the kernel prints them
    bool is_next_hop_on_link = false;
    std::string neighbour{};  ///< the next hop's state in the kernel's table, empty for none
    Setting reverse_path_all{};
    Setting reverse_path_own{};
    std::optional<Lease> lease{};
    /// What the dumps of a daemon with this configuration tell of it; none where no worker serves
    /// it.
    std::optional<dumps::Interface> expected{};
    bool needs_all_targets = false;
    std::optional<Echo> echo{};  ///< none: it could not be asked, see NamespaceFacts
};

/// Who takes the fragments of a namespace and family.
struct RouterFacts {
    bool is_ipv6 = false;
    std::string fragment_path;
    bool has_folder = false;
    bool has_fragment = false;
    std::string pid_path;
    std::string pid_text;  ///< empty: there is no such file, or nothing in it
    bool is_running = false;
    std::string process;      ///< the command's name
    std::string version;      ///< of bird: its own word; empty for others, and where it said none
    bool has_judged = false;  ///< bird said whether it takes its configuration with the fragment
    std::string refusal;      ///< what it says against it; empty where it takes it
};

struct NamespaceFacts {
    std::string name;
    std::string problem;       ///< not empty: nothing below is known
    std::string echo_problem;  ///< why no echo could be sent
    std::vector<UplinkFacts> uplinks{};
    std::vector<RouterFacts> routers{};
    /// Routes to the prefixes that the fragments ask for, whoever made them; and why not.
    std::vector<lbroute::KernelRoute> routes{};
    std::string routes_problem{};
    Setting tracked{};  ///< connections
    Setting most_tracked{};
};

constexpr const char* configuration_use = "configuration";

/// A file or folder that root's programs use, or one above it. Without symbolic links.
struct PathRights {
    std::string path;
    std::string use;        ///< "output", "leases" ...
    bool is_above = false;  ///< nothing of ours is put directly into it
    unsigned owner = 0;     ///< user
    unsigned group = 0;
    unsigned mode = 0;  ///< as of chmod(1)
};

/// A unit of the service manager.
struct UnitFacts {
    std::string name;
    std::string active;   ///< "active", "inactive", "failed" ...; empty: unknown
    std::string enabled;  ///< "enabled", "disabled" ...; empty: unknown
};

struct LiveFacts {
    std::string configuration;
    std::string output_directory;
    std::vector<NamespaceFacts> namespaces{};
    lbroute::Report routes{};
    dumps::State dumps{};
    std::string dumps_problem{};
    /// What the dumps of a daemon with this configuration tell of its rules.
    std::vector<dumps::Rule> expected_rules{};
    std::vector<dumps::Route> expected_routes{};
    /// Uplinks of each family (4, 6) that the configuration has.
    std::map<int, int> configured{};
    Setting neighbour_least[2]{};      ///< gc_thresh1 of IPv4, IPv6
    Setting neighbour_most[2]{};       ///< gc_thresh3
    std::vector<PathRights> rights{};  ///< of what is there
    std::vector<UnitFacts> units{};
    std::string units_problem{};
    bool is_root = false;
};

/// `output_directory` is the daemon's; `configuration` was understood as `data`.
LiveFacts collect_facts(const std::string& configuration, const LBData& data,
                        const std::string& output_directory);

}  // namespace lbcheck

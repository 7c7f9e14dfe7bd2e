#pragma once

#include <string>
#include <utility>
#include <vector>

#include "lbcheck/live_findings.h"

/// What the parts of `judge_live` share. Pure.
namespace lbcheck {

inline constexpr const char* no_such_namespace = "there is no such namespace";

struct LiveFindings {
    void add(State state, std::string place, std::string text, std::string mend = "") {
        all.push_back({state, std::move(place), std::move(text), std::move(mend)});
    }
    std::vector<LiveFinding> all;
};

/// "namespace blue: " in front of a place; nothing for the default one.
inline std::string in_namespace(const std::string& name) {
    return name.empty() ? "" : "namespace " + name + ": ";
}
/// "namespace blue: gi1_1 (IPv4)".
std::string place_of(const NamespaceFacts& space, const UplinkFacts& uplink);
/// The command as it is typed outside of the namespace.
std::string within(const std::string& namespace_name, const std::string& command);

/// Who takes the fragments: folder, process, kind, and what it says of the fragment.
void judge_routers(const LiveFacts& facts, const NamespaceFacts& space, LiveFindings& findings);
/// What a running lbroute has to tell beside its routes.
void judge_lbroute(const LiveFacts& facts, LiveFindings& findings);
/// Whether the kernel routes as the fragments ask.
void judge_routes(const LiveFacts& facts, const NamespaceFacts& space, LiveFindings& findings);
/// Whether the daemon lives, with this configuration, and which uplinks it holds for failed.
void judge_dumps(const LiveFacts& facts, LiveFindings& findings);
/// Whether the dumps are those of a daemon that read this configuration at its start.
bool are_of_this_configuration(const LiveFacts& facts);
/// Who else may change what root's programs write into, read or run.
void judge_rights(const LiveFacts& facts, LiveFindings& findings);

}  // namespace lbcheck

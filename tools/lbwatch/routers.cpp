#include "lbwatch/routers.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <set>
#include <utility>

#include "decision/route_text.h"
#include "shared/file_text.h"
#include "shared/processes.h"

namespace lbwatch {

namespace {

/// None where it could not be looked at.
std::optional<bool> is_running(const std::string& path) {
    int error = 0;
    const auto text = shared::text_of_file(path, error);
    if (!text) {
        return error == ENOENT || error == ENOTDIR ? std::make_optional(false) : std::nullopt;
    }
    const pid_t pid = std::atoi(text->c_str());  // as the daemon reads it
    return pid > 0 && shared::is_running(pid);
}

}  // namespace

std::vector<Router> find_routers(const World::Rules& rules, const World::Uplinks& uplinks,
                                 const std::string& root) {
    std::set<std::pair<std::string, int>> wanted;
    for (const auto& [key, rule] : rules) {
        for (const UplinkKey& member : rule.members) {
            if (uplinks.contains(member)) {
                wanted.emplace(member.namespace_name, member.family);
            }
        }
    }
    std::vector<Router> routers;
    for (const auto& [name, family] : wanted) {
        if (const auto running = is_running(root + pid_path(name, family == 6))) {
            routers.push_back({.namespace_name = name, .family = family, .is_running = *running});
        }
    }
    return routers;
}

}  // namespace lbwatch

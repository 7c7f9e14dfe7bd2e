// Who else may change what root's programs write into, read or run.

#include <string>

#include "lbcheck/live_judge.h"

namespace lbcheck {

namespace {

constexpr unsigned group_writes = 0020;
constexpr unsigned all_write = 0002;
constexpr unsigned only_owners_remove = 01000;

/// The bits by which others than root write; root's own group has nobody else in it.
unsigned writable_by_others(const PathRights& path) {
    return path.mode & (all_write | (path.group == 0 ? 0 : group_writes));
}

/// Others may put something else in the place of what we use.
bool is_open(const PathRights& path) {
    const bool is_guarded = path.is_above && (path.mode & only_owners_remove) != 0;
    return path.owner != 0 || (writable_by_others(path) != 0 && !is_guarded);
}

std::string who_writes(const PathRights& path) {
    if (path.owner != 0) {
        return "it belongs to user " + std::to_string(path.owner) + ", who";
    }
    return (writable_by_others(path) & all_write) != 0
               ? "every user may write there and"
               : "group " + std::to_string(path.group) + " may write there and";
}

/// A home directory is not taken from its user: the configuration leaves it.
std::string mend_of(const PathRights& path, const LiveFacts& facts) {
    if (path.owner != 0 && path.use == configuration_use) {
        return "install -m 644 " + facts.configuration + " /etc/lb.conf";
    }
    const std::string owner = path.owner != 0 ? "chown root:root " + path.path : "";
    const std::string mode = writable_by_others(path) != 0 ? "chmod go-w " + path.path : "";
    return owner + (owner.empty() || mode.empty() ? "" : " && ") + mode;
}

}  // namespace

void judge_rights(const LiveFacts& facts, LiveFindings& findings) {
    bool is_any_open = false;
    for (const PathRights& path : facts.rights) {
        if (is_open(path)) {
            is_any_open = true;
            // Known users may be trusted, and the router's owner knows whether they are.
            const bool is_for_all = (path.mode & all_write) != 0;
            findings.add(is_for_all ? State::error : State::warning, path.path,
                         who_writes(path) + " so may decide over routes (" + path.use + ")",
                         mend_of(path, facts));
        }
    }
    if (!is_any_open && !facts.rights.empty()) {
        findings.add(State::ok, "rights",
                     "root alone may change the configuration and the folders of output, "
                     "fragments, process numbers, leases, holds and hooks");
    }
}

}  // namespace lbcheck

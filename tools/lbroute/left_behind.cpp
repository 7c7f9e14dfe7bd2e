#include "lbroute/left_behind.h"

#include <algorithm>
#include <iterator>

#include "lbroute/commands.h"
#include "lbroute/findings.h"

namespace lbroute {

Journal::Problems left_behind_in(ServedNamespace& kernel) {
    std::string problem;
    kernel.follow(problem);
    if (!kernel.is_entered()) {
        return {};
    }
    const Listing listing = kernel.list();
    if (!listing.problem.empty()) {
        return problems_of_listing(listing.problem, kernel.name());
    }
    Journal::Problems problems;
    if (const std::size_t count = listing.state.routes.size(); count > 0) {
        problems["namespace " + kernel.name() + " is not served any more: its routes stay (" +
                 std::to_string(count) +
                 "), which end with: " + flush_commands(listing.state, kernel.name())] =
            Level::notice;
    }
    return problems;
}

std::vector<std::string> flush(ServedNamespace& kernel) {
    const std::string where = kernel.name().empty() ? "" : "namespace " + kernel.name() + ": ";
    std::vector<std::string> problems;
    for (const std::string& failed : kernel.flush()) {
        problems.push_back(where + "not removed: " + failed);
    }
    return problems;
}

std::vector<std::string> flush_others(const std::set<std::string>& names, const Options& options) {
    std::vector<std::string> problems;
    std::string unread;
    for (const std::string& name : other_namespaces(names, unread)) {
        ServedNamespace other(name, options);
        std::string problem;
        other.follow(problem);
        if (other.is_entered()) {
            std::ranges::move(flush(other), std::back_inserter(problems));
        } else if (!problem.empty()) {
            problems.push_back(problem);
        }
    }
    if (!unread.empty()) {
        problems.push_back(unread);
    }
    return problems;
}

}  // namespace lbroute

#pragma once

#include <sys/types.h>

#include <compare>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/fd.h"

/// Named network namespaces as ip-netns(8) keeps them: a file below /var/run/netns for each.
namespace lbroute {

std::string namespace_path(const std::string& name);

/// Tells one namespace from another that was made under its name later.
struct NamespaceIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    auto operator<=>(const NamespaceIdentity&) const = default;
};

/// The namespace that has the name now; none where there is none. The default one (the empty name)
/// is that of the calling thread, and always is there.
std::optional<NamespaceIdentity> namespace_identity(const std::string& name);

/// A name of each namespace that is there beside the own one and those with these names, and has a
/// folder of fragments: somebody routes or has routed by them there. Those without one are another
/// router's. One that was bound to a second name is no other. The cause of a failure goes into
/// `problem`.
std::vector<std::string> other_namespaces(const std::set<std::string>& names, std::string& problem);

/// The calling thread is in a namespace as long as this lives. Sockets opened meanwhile stay there.
class [[nodiscard]] NamespaceVisit {
  public:
    /// Where it cannot be entered, the thread stays where it is.
    explicit NamespaceVisit(const std::string& name);
    /// Ends the process where it cannot return: it would go on in a foreign namespace.
    ~NamespaceVisit();
    NamespaceVisit(const NamespaceVisit&) = delete;
    NamespaceVisit& operator=(const NamespaceVisit&) = delete;

    /// Why it could not be entered; empty where it was.
    const std::string& problem() const { return problem_; }

  private:
    Fd home_;
    std::string problem_;
};

}  // namespace lbroute

#include "lbroute/net_namespace.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace lbroute {

std::string namespace_path(const std::string& name) {
    return "/var/run/netns/" + name;
}

std::optional<NamespaceIdentity> namespace_identity(const std::string& name) {
    if (name.empty()) {
        return NamespaceIdentity{};
    }
    const std::string path = namespace_path(name);
    struct stat found {};
    struct statfs system {};
    // Before ip(8) mounts the namespace on it, the file is an empty one of its folder.
    if (stat(path.c_str(), &found) != 0 || statfs(path.c_str(), &system) != 0 ||
        system.f_type != NSFS_MAGIC) {
        return std::nullopt;
    }
    return NamespaceIdentity{found.st_dev, found.st_ino};
}

NamespaceVisit::NamespaceVisit(const std::string& name) {
    if (name.empty()) {
        return;
    }
    const std::string path = namespace_path(name);
    Fd home(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const Fd there(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!home.is_open() || !there.is_open() || setns(there.get(), CLONE_NEWNET) != 0) {
        problem_ = path + " cannot be entered: " + strerror(errno);
        return;
    }
    home_ = std::move(home);
}

NamespaceVisit::~NamespaceVisit() {
    if (home_.is_open() && setns(home_.get(), CLONE_NEWNET) != 0) {
        fputs("lbroute: the way back into the own network namespace is barred\n", stderr);
        abort();
    }
}

}  // namespace lbroute

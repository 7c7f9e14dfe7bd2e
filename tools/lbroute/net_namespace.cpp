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
#include <filesystem>
#include <system_error>

#include "decision/route_text.h"
#include "shared/folder_names.h"
#include "shared/usual_paths.h"

namespace lbroute {

namespace {

constexpr const char* own_path = "/proc/thread-self/ns/net";

}  // namespace

std::string namespace_path(const std::string& name) {
    return std::string(shared::namespaces) + "/" + name;
}

std::optional<NamespaceIdentity> namespace_identity(const std::string& name) {
    struct stat found {};
    if (name.empty()) {
        return stat(own_path, &found) == 0 ? NamespaceIdentity{found.st_dev, found.st_ino}
                                           : NamespaceIdentity{};
    }
    const std::string path = namespace_path(name);
    struct statfs system {};
    // Before ip(8) mounts the namespace on it, the file is an empty one of its folder.
    if (stat(path.c_str(), &found) != 0 || statfs(path.c_str(), &system) != 0 ||
        system.f_type != NSFS_MAGIC) {
        return std::nullopt;
    }
    return NamespaceIdentity{found.st_dev, found.st_ino};
}

std::vector<std::string> other_namespaces(const std::set<std::string>& names,
                                          std::string& problem) {
    std::set<NamespaceIdentity> known{*namespace_identity("")};
    for (const std::string& name : names) {
        if (const auto identity = namespace_identity(name)) {
            known.insert(*identity);
        }
    }
    std::vector<std::string> others;
    std::error_code error;
    for (const std::string& name : shared::names_in(shared::namespaces, error)) {
        const auto identity = namespace_identity(name);
        const auto fragments = std::filesystem::path(fragment_path(name, false)).parent_path();
        std::error_code unseen;
        const bool is_ours = std::filesystem::exists(fragments, unseen) || unseen;
        if (identity && is_ours && known.insert(*identity).second) {
            others.push_back(name);
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        problem = std::string(shared::namespaces) + " cannot be read: " + error.message();
    }
    return others;
}

NamespaceVisit::NamespaceVisit(const std::string& name) {
    if (name.empty()) {
        return;
    }
    const std::string path = namespace_path(name);
    Fd home(open(own_path, O_RDONLY | O_CLOEXEC));
    const Fd there(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!home.is_open() || !there.is_open() || setns(there.get(), CLONE_NEWNET) != 0) {
        problem_ = path + " cannot be entered: " + strerror(errno);
        return;
    }
    home_ = std::move(home);
}

NamespaceVisit::~NamespaceVisit() {
    if (home_.is_open() && setns(home_.get(), CLONE_NEWNET) != 0) {
        fputs("lbroute: cannot return to its own network namespace\n", stderr);
        abort();
    }
}

}  // namespace lbroute

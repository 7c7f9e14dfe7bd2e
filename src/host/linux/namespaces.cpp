#include "host/namespaces.h"

#include <fcntl.h>
#include <sched.h>

#include "base/fd.h"

// setns(2) acts on the calling thread alone; threads that it starts inherit its namespace.
host::NamespaceEntry host::enter_namespace(const std::string& path) {
    const Fd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened.is_open()) {
        return NamespaceEntry::not_opened;
    }
    return setns(opened.get(), 0) == 0 ? NamespaceEntry::entered : NamespaceEntry::refused;
}

#include "shared/processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>

#include "shared/file_text.h"

namespace shared {

namespace {

std::string proc_text(pid_t pid, const char* name) {
    return text_of_file("/proc/" + std::to_string(pid) + "/" + name);
}

}  // namespace

std::optional<ProcessStat> stat_of(pid_t pid) {
    constexpr int parent_field = 4;
    constexpr int start_field = 22;
    const std::string text = proc_text(pid, "stat");
    // The name may hold spaces and parentheses: the fields are counted from its end.
    const std::size_t name_end = text.rfind(')');
    if (name_end == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(text.substr(name_end + 1));
    ProcessStat stat;
    fields >> stat.state >> stat.parent;
    std::string skipped;
    for (int field = parent_field + 1; field < start_field; ++field) {
        fields >> skipped;
    }
    fields >> stat.start;
    return fields ? std::make_optional(stat) : std::nullopt;
}

bool is_running(pid_t pid) {
    const std::optional<ProcessStat> stat = stat_of(pid);
    if (!stat) {
        return kill(pid, 0) == 0 || errno == EPERM;
    }
    const bool is_process =
        proc_text(pid, "status").find("\nTgid:\t" + std::to_string(pid) + "\n") !=
        std::string::npos;
    return is_process && stat->state != 'Z' && stat->state != 'X';
}

std::string start_of(pid_t pid) {
    const std::optional<ProcessStat> stat = stat_of(pid);
    return stat ? std::to_string(stat->start) : "";
}

bool is_in_own_pid_namespace(pid_t pid) {
    const auto depth_of = [](const std::string& status) -> std::optional<std::ptrdiff_t> {
        const std::size_t begin = status.find("\nNSpid:");
        if (begin == std::string::npos) {
            return std::nullopt;
        }
        const std::size_t end = std::min(status.find('\n', begin + 1), status.size());
        return std::count(status.begin() + static_cast<std::ptrdiff_t>(begin),
                          status.begin() + static_cast<std::ptrdiff_t>(end), '\t');
    };
    const auto own = depth_of(text_of_file("/proc/self/status"));
    const auto other = depth_of(proc_text(pid, "status"));
    return !own || !other || *own == *other;
}

std::vector<std::string> arguments_of(pid_t pid) {
    const std::string text = proc_text(pid, "cmdline");
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\0', begin), text.size());
        words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

std::string process_name(pid_t pid) {
    std::string name = proc_text(pid, "comm");
    if (name.ends_with('\n')) {
        name.pop_back();
    }
    std::ranges::replace_if(
        name, [](char c) { return c < ' ' || c > '~'; }, '?');
    return name.empty() ? "name unknown" : name;
}

}  // namespace shared

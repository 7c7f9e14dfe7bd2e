#include "lbwatch/daemon_process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <string_view>
#include <system_error>
#include <vector>

#include "shared/file_text.h"

namespace lbwatch {

namespace {

constexpr const char* default_directory = "/var/run/load-balance";

std::string without_links(const std::string& path) {
    std::error_code error;
    const auto plain = std::filesystem::weakly_canonical(path, error);
    std::string text = error ? path : plain.string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

/// The value of -o among a process's arguments, which end with a NUL each.
std::string directory_of(const std::string& arguments) {
    std::vector<std::string> words;
    for (std::size_t at = 0; at < arguments.size();) {
        const std::size_t end = std::min(arguments.find('\0', at), arguments.size());
        words.push_back(arguments.substr(at, end - at));
        at = end + 1;
    }
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (words[i] == "-o" && i + 1 < words.size()) {
            return words[i + 1];
        }
        if (words[i].starts_with("-o") && words[i].size() > 2) {
            return words[i].substr(2);
        }
    }
    return default_directory;
}

bool is_number(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isdigit(character) != 0;
    });
}

/// What proc(5)'s stat tells of a process.
struct Origin {
    pid_t parent = 0;
    unsigned long long start = 0;  ///< in clock ticks since the machine started
};
Origin origin_of(const std::string& process) {
    constexpr int name_field = 2;
    constexpr int parent_field = 4;
    constexpr int start_field = 22;
    const std::string stat = shared::text_of_file(process + "/stat");
    Origin origin;
    // The name may hold spaces and parentheses: the fields are counted from its end.
    std::size_t at = stat.rfind(')');
    for (int field = name_field + 1; field <= start_field && at != std::string::npos; ++field) {
        at = stat.find(' ', at + 1);
        const char* text = at == std::string::npos ? "" : stat.c_str() + at;
        if (field == parent_field) {
            origin.parent = static_cast<pid_t>(strtol(text, nullptr, 10));
        } else if (field == start_field) {
            origin.start = strtoull(text, nullptr, 10);
        }
    }
    return origin;
}

/// Every process called `lb` that names this directory.
std::map<pid_t, Origin> processes_for(const std::string& wanted) {
    std::map<pid_t, Origin> found;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        const std::string process = entry.path();
        if (!is_number(name) || shared::text_of_file(process + "/comm") != "lb\n") {
            continue;
        }
        const std::string arguments = shared::text_of_file(process + "/cmdline");
        // One without arguments has ended, and waits for its parent.
        if (!arguments.empty() && without_links(directory_of(arguments)) == wanted) {
            found.emplace(static_cast<pid_t>(std::stol(name)), origin_of(process));
        }
    }
    return found;
}

}  // namespace

DaemonProcess find_daemon(const std::string& out_dir) {
    const std::map<pid_t, Origin> candidates = processes_for(without_links(out_dir));
    pid_t found = 0;
    for (const auto& [pid, origin] : candidates) {
        // The daemon runs commands: until such a child becomes the command it looks like the
        // daemon, and its end, a moment later, would be taken for the daemon's.
        const bool is_child_of_one = candidates.contains(origin.parent);
        if (!is_child_of_one && (found == 0 || origin.start >= candidates.at(found).start)) {
            found = pid;
        }
    }
    DaemonProcess process{.pid = found, .ended = Fd()};
    if (found != 0) {
        process.ended = Fd(static_cast<int>(syscall(SYS_pidfd_open, found, 0)));
    }
    return process;
}

bool can_see_processes() {
    return !shared::text_of_file("/proc/1/comm").empty();
}

}  // namespace lbwatch

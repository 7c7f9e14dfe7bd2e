#include "lbwatch/daemon_process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>
#include <vector>

#include "shared/file_text.h"
#include "shared/folder_names.h"
#include "shared/processes.h"

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

/// The directory that a daemon with these arguments writes to, as getopt(3) reads them; none where
/// they are not a daemon's: those of a process that has ended, and of one that only looks at its
/// configuration or tells its usage.
std::optional<std::string> directory_of(const std::vector<std::string>& words) {
    if (words.empty()) {
        return std::nullopt;
    }
    std::string directory = default_directory;
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        for (std::size_t at = 1; word.starts_with("-") && at < word.size(); ++at) {
            if (word[at] == 't' || word[at] == 'h') {
                return std::nullopt;
            }
            if (word[at] == 'f' || word[at] == 'i' || word[at] == 'o') {
                const bool is_behind = at + 1 == word.size() && i + 1 < words.size();
                const std::string value = is_behind ? words[i + 1] : word.substr(at + 1);
                directory = word[at] == 'o' && !value.empty() ? value : directory;
                i += is_behind ? 1 : 0;
                break;
            }
        }
    }
    return directory;
}

bool is_number(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char character) {
        return std::isdigit(character) != 0;
    });
}

/// Every process called `lb` that names this directory.
std::map<pid_t, shared::ProcessStat> processes_for(const std::string& wanted) {
    std::map<pid_t, shared::ProcessStat> found;
    std::error_code error;
    for (const std::string& name : shared::names_in("/proc", error)) {
        if (!is_number(name) || shared::text_of_file("/proc/" + name + "/comm") != "lb\n") {
            continue;
        }
        const auto pid = static_cast<pid_t>(std::stol(name));
        const auto directory = directory_of(shared::arguments_of(pid));
        // A container's has a directory of that name of its own.
        if (directory && without_links(*directory) == wanted &&
            shared::is_in_own_pid_namespace(pid)) {
            found.emplace(pid, shared::stat_of(pid).value_or(shared::ProcessStat{}));
        }
    }
    return found;
}

}  // namespace

DaemonProcess find_daemon(const std::string& out_dir) {
    const std::map<pid_t, shared::ProcessStat> candidates = processes_for(without_links(out_dir));
    pid_t found = 0;
    for (const auto& [pid, stat] : candidates) {
        // The daemon runs commands: until such a child becomes the command it looks like the
        // daemon, and its end, a moment later, would be taken for the daemon's.
        const bool is_child_of_one = candidates.contains(stat.parent);
        if (!is_child_of_one && (found == 0 || stat.start >= candidates.at(found).start)) {
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

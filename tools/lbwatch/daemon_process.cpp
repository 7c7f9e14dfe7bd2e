#include "lbwatch/daemon_process.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
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

/// In clock ticks since the machine started: field 22 of proc(5)'s stat.
unsigned long long start_of(const std::string& process) {
    const std::string stat = shared::text_of_file(process + "/stat");
    std::size_t at = stat.rfind(')');
    for (int field = 2; field < 22 && at != std::string::npos; ++field) {
        at = stat.find(' ', at + 1);
    }
    return at == std::string::npos ? 0 : strtoull(stat.c_str() + at, nullptr, 10);
}

}  // namespace

DaemonProcess find_daemon(const std::string& out_dir) {
    const std::string wanted = without_links(out_dir);
    pid_t found = 0;
    unsigned long long youngest = 0;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        const std::string process = entry.path();
        if (!is_number(name) || shared::text_of_file(process + "/comm") != "lb\n") {
            continue;
        }
        const std::string arguments = shared::text_of_file(process + "/cmdline");
        // One without arguments has ended, and waits for its parent.
        if (arguments.empty() || without_links(directory_of(arguments)) != wanted) {
            continue;
        }
        const unsigned long long start = start_of(process);
        if (found == 0 || start >= youngest) {
            found = static_cast<pid_t>(std::stol(name));
            youngest = start;
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

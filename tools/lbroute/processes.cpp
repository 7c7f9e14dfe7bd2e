#include "lbroute/processes.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sstream>
#include <string_view>

#include "shared/file_text.h"

namespace lbroute {

namespace {

std::string proc_text(pid_t pid, const char* name) {
    return shared::text_of_file("/proc/" + std::to_string(pid) + "/" + name);
}

/// The fields of `stat` from the third on, the state; the name before them may hold anything.
std::istringstream fields_from_state(pid_t pid) {
    const std::string stat = proc_text(pid, "stat");
    const std::size_t name_end = stat.rfind(')');
    return std::istringstream(name_end == std::string::npos ? "" : stat.substr(name_end + 1));
}

}  // namespace

bool is_running(pid_t pid) {
    std::string state;
    fields_from_state(pid) >> state;
    if (state.empty()) {
        return kill(pid, 0) == 0 || errno == EPERM;
    }
    const bool is_process =
        proc_text(pid, "status").find("\nTgid:\t" + std::to_string(pid) + "\n") !=
        std::string::npos;
    return is_process && state != "Z" && state != "X";
}

std::string start_of(pid_t pid) {
    constexpr int state_field = 3;
    constexpr int start_field = 22;
    std::istringstream fields = fields_from_state(pid);
    std::string field;
    for (int number = state_field; number <= start_field; ++number) {
        if (!(fields >> field)) {
            return "";
        }
    }
    return field;
}

std::string name_of(pid_t pid) {
    std::string name = proc_text(pid, "comm");
    if (name.ends_with('\n')) {
        name.pop_back();
    }
    std::ranges::replace_if(
        name, [](char c) { return c < ' ' || c > '~'; }, '?');
    return name.empty() ? "name unknown" : name;
}

}  // namespace lbroute

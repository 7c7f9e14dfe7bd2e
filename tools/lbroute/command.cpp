#include "lbroute/command.h"

#include <sys/wait.h>

#include <cstring>

#include "shared/program.h"

namespace lbroute {

namespace {

/// Lines joined to one that can be printed, the end of them where they are long.
std::string one_line(const std::string& text) {
    constexpr std::size_t longest_shown = 400;
    std::string joined;
    for (const char c : text) {
        if (c == '\n') {
            joined += joined.empty() || joined.ends_with("; ") ? "" : "; ";
        } else {
            joined += c < ' ' || c > '~' ? '?' : c;
        }
    }
    if (joined.ends_with("; ")) {
        joined.resize(joined.size() - 2);
    }
    if (joined.size() > longest_shown) {
        joined = "..." + joined.substr(joined.size() - longest_shown);
    }
    return joined;
}

std::string manner_of(int status) {
    if (WIFSIGNALED(status)) {
        return std::string("ended by ") + strsignal(WTERMSIG(status));
    }
    return "failed with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

std::string run_command(const std::string& command, std::chrono::seconds limit) {
    const shared::ProgramEnd end = shared::run_program({"/bin/sh", "-c", command}, limit);
    if (end.status == 0) {
        return "";
    }
    const std::string words = one_line(end.output);
    return (end.status ? manner_of(*end.status) : end.problem) +
           (words.empty() ? "" : ": " + words);
}

}  // namespace lbroute

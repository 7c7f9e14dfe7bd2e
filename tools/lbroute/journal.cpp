#include "lbroute/journal.h"

#include <cstdio>

namespace lbroute {

void Journal::say(Level level, const std::string& text) const {
    std::string line;
    if (with_levels_) {
        line.append("<").append(std::to_string(static_cast<int>(level))).append(">");
    }
    // What a file or the kernel gave may hold anything: a line stays one line.
    for (const char one : text) {
        const bool is_plain = static_cast<unsigned char>(one) >= ' ' && one != '\x7f';
        line += is_plain ? one : '?';
    }
    line += '\n';
    fputs(line.c_str(), stderr);
}

void Journal::tell(const std::string& subject, const Problems& problems) {
    std::set<std::string>& told = told_[subject];
    for (const auto& [text, level] : problems) {
        if (!told.contains(text)) {
            say(level, text);
        }
    }
    told.clear();
    for (const auto& [text, level] : problems) {
        told.insert(text);
    }
}

}  // namespace lbroute

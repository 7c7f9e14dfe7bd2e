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
    std::size_t count = 0;
    for (const auto& [text, level] : problems) {
        if (!told.contains(text) && ++count <= most_at_once) {
            say(level, text);
        }
    }
    if (count > most_at_once) {
        say(Level::warning, "and " + std::to_string(count - most_at_once) +
                                " more of this kind: lbroute status shows them");
    }
    told.clear();
    for (const auto& [text, level] : problems) {
        told.insert(text);
    }
}

}  // namespace lbroute

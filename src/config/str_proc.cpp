#include "config/str_proc.h"

#include <algorithm>

namespace {

constexpr char separator = '~';

void replace_all(std::string& text, const std::string& what, const std::string& by) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
        text.replace(at, what.size(), by);
        at += by.size();
    }
}

}  // namespace

StrProc::StrProc(const std::string& text, const std::string& delim) {
    std::string line = text;
    replace_all(line, "\t", "    ");
    if (const std::size_t line_feed = line.find('\n'); line_feed != std::string::npos) {
        line.erase(line_feed, 1);
    }
    if (!delim.empty()) {
        replace_all(line, delim, std::string(1, separator));
    }
    std::size_t begin = line.find_first_not_of(separator);
    while (begin != std::string::npos) {
        const std::size_t end = std::min(line.find(separator, begin), line.size());
        tokens.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(separator, end);
    }
}

std::string StrProc::get(int i) const {
    const auto index = static_cast<std::size_t>(i);
    return i >= 0 && index < tokens.size() ? tokens[index] : std::string();
}

std::string StrProc::get(int from, int to) const {
    std::string joined;
    const int count = static_cast<int>(tokens.size());
    for (int i = std::max(from, 0); i < std::min(to, count); ++i) {
        joined += (joined.empty() ? "" : " ") + tokens[static_cast<std::size_t>(i)];
    }
    return joined;
}

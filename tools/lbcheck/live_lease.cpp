#include "lbcheck/live_lease.h"

#include <ctime>
#include <sstream>

namespace lbcheck {

namespace {

std::optional<std::int64_t> moment_of(const std::string& expire_line) {
    std::istringstream words(expire_line);
    std::string expire;
    std::string day;
    std::string first;
    std::string second;
    words >> expire >> day >> first >> second;
    if (day == "epoch") {
        std::istringstream number(first);
        std::int64_t seconds = 0;
        return number >> seconds ? std::make_optional(seconds) : std::nullopt;
    }
    std::tm moment{};
    const std::string text = first + " " + second;
    const char* rest = strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &moment);
    return rest != nullptr && *rest == ';' ? std::make_optional<std::int64_t>(timegm(&moment))
                                           : std::nullopt;
}

}  // namespace

std::optional<std::int64_t> end_of_lease(const std::string& database) {
    std::istringstream lines(database);
    std::optional<std::int64_t> end;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t begin = line.find_first_not_of(" \t");
        if (begin != std::string::npos && line.compare(begin, 7, "expire ") == 0) {
            end = moment_of(line.substr(begin));
        }
    }
    return end;
}

}  // namespace lbcheck

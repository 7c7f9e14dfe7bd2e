#include "lbwatch/dumps.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <span>
#include <utility>

namespace lbwatch {

namespace {

/// A thousand uplinks fill a fifth of it.
constexpr std::size_t largest_dump = std::size_t{32} << 20;

Look refused(std::string problem) {
    return {.outcome = Look::Outcome::refused, .problem = std::move(problem), .written_ms = 0};
}

Look torn() {
    return {.outcome = Look::Outcome::torn, .problem = "", .written_ms = 0};
}

/// Takes the items of a whole dump.
template <class Item>
Look take(dumps::Read<Item> read, std::vector<Item>& items, bool may_be_empty) {
    if (read.is_truncated || (read.items.empty() && read.problem.empty() && !may_be_empty)) {
        return torn();
    }
    if (!read.problem.empty()) {
        return refused(read.problem);
    }
    items = std::move(read.items);
    return {.outcome = Look::Outcome::whole, .problem = "", .written_ms = 0};
}

}  // namespace

Look Dumps::look(DumpFile file) {
    using Problem = shared::DumpBytes::Problem;
    shared::DumpBytes read = shared::read_dump(path_of(file), largest_dump, std::move(bytes_));
    switch (read.problem) {
        case Problem::none:
            break;
        case Problem::error:
            return read.error == ENOENT || read.error == ENOTDIR
                       ? Look{}
                       : refused(std::string("cannot be read: ") + strerror(read.error));
        case Problem::no_regular:
            return refused("is no file");
        case Problem::too_large:
            return refused("is too large for a dump");
    }
    bytes_ = std::move(read.bytes);
    if (read.is_rewritten) {
        return torn();
    }
    const std::span<const std::uint8_t> dump(bytes_);
    Look look;
    switch (file) {
        case DumpFile::outbounds4:
            look = take(dumps::read_interfaces(dump, 4, false), interfaces4_, false);
            break;
        case DumpFile::outbounds6:
            look = take(dumps::read_interfaces(dump, 6, false), interfaces6_, false);
            break;
        case DumpFile::rules:
            look = take(dumps::read_rules(dump, false), rules_, false);
            break;
        case DumpFile::routes:
            look = take(dumps::read_routes(dump, false), routes_, true);
            break;
    }
    look.written_ms = std::int64_t{read.written.tv_sec} * 1000 + read.written.tv_nsec / 1'000'000;
    return look;
}

std::int64_t patience_ms(const std::vector<dumps::Interface>& interfaces4,
                         const std::vector<dumps::Interface>& interfaces6) {
    constexpr std::int64_t usual_ms = 30'000;
    constexpr std::int64_t per_ping_ms = 60'000;
    constexpr std::int64_t most_ms = 600'000;
    std::map<std::pair<std::string, int>, std::int64_t> pings;
    for (const auto* interfaces : {&interfaces4, &interfaces6}) {
        for (const dumps::Interface& item : *interfaces) {
            pings[{item.namespace_name, item.family}] +=
                std::count_if(item.probes.begin(), item.probes.end(),
                              [](const dumps::Probe& probe) { return probe.quality.has_value(); });
        }
    }
    std::int64_t most_pings = 0;
    for (const auto& [worker, count] : pings) {
        most_pings = std::max(most_pings, count);
    }
    return std::min(most_ms, usual_ms + most_pings * per_ping_ms);
}

}  // namespace lbwatch

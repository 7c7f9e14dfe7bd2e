#include "lbwatch/dumps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "base/fd.h"

namespace lbwatch {

namespace {

/// A thousand uplinks fill a fifth of it.
constexpr std::int64_t largest_dump = std::int64_t{32} << 20;

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

bool is_same(const struct stat& one, const struct stat& other) {
    return one.st_size == other.st_size && one.st_ino == other.st_ino &&
           nanoseconds(one.st_mtim) == nanoseconds(other.st_mtim);
}

Look refused(std::string problem) {
    return {.outcome = Look::Outcome::refused, .problem = std::move(problem), .written_ms = 0};
}

Look torn() {
    return {.outcome = Look::Outcome::torn, .problem = "", .written_ms = 0};
}

/// Takes the items of a whole dump.
template <class Item>
Look take(lbshow::Read<Item> read, std::vector<Item>& items, bool may_be_empty) {
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

const char* name_of(DumpFile file) {
    switch (file) {
        case DumpFile::outbounds4:
            return "wlb_ipv4_outbounds.bin";
        case DumpFile::outbounds6:
            return "wlb_ipv6_outbounds.bin";
        case DumpFile::rules:
            return "wlb_rules.bin";
        case DumpFile::routes:
            return "wlb_routes.bin";
    }
    return "";
}

Look Dumps::look(DumpFile file) {
    const Fd opened(open(path_of(file).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened.is_open()) {
        return errno == ENOENT || errno == ENOTDIR
                   ? Look{}
                   : refused(std::string("cannot be read: ") + strerror(errno));
    }
    struct stat before {};
    struct stat after {};
    if (fstat(opened.get(), &before) != 0 || !S_ISREG(before.st_mode)) {
        return refused("is no file");
    }
    if (before.st_size > largest_dump) {
        return refused("is too large for a dump");
    }
    // One byte more shows a file that grows meanwhile.
    bytes_.resize(static_cast<std::size_t>(before.st_size) + 1);
    std::size_t filled = 0;
    ssize_t got = 0;
    while (filled < bytes_.size() &&
           (got = ::read(opened.get(), bytes_.data() + filled, bytes_.size() - filled)) > 0) {
        filled += static_cast<std::size_t>(got);
    }
    if (got < 0 || fstat(opened.get(), &after) != 0) {
        return refused(std::string("cannot be read: ") + strerror(errno));
    }
    if (filled != static_cast<std::size_t>(before.st_size) || !is_same(before, after)) {
        return torn();
    }
    const std::span<const std::uint8_t> dump(bytes_.data(), filled);
    Look look;
    switch (file) {
        case DumpFile::outbounds4:
            look = take(lbshow::read_interfaces(dump, 4, false), interfaces4_, false);
            break;
        case DumpFile::outbounds6:
            look = take(lbshow::read_interfaces(dump, 6, false), interfaces6_, false);
            break;
        case DumpFile::rules:
            look = take(lbshow::read_rules(dump, false), rules_, false);
            break;
        case DumpFile::routes:
            look = take(lbshow::read_routes(dump, false), routes_, true);
            break;
    }
    look.written_ms = nanoseconds(after.st_mtim) / 1'000'000;
    return look;
}

std::int64_t patience_ms(const std::vector<lbshow::Interface>& interfaces4,
                         const std::vector<lbshow::Interface>& interfaces6) {
    constexpr std::int64_t usual_ms = 30'000;
    constexpr std::int64_t per_ping_ms = 60'000;
    constexpr std::int64_t most_ms = 600'000;
    std::map<std::pair<std::string, int>, std::int64_t> pings;
    for (const auto* interfaces : {&interfaces4, &interfaces6}) {
        for (const lbshow::Interface& item : *interfaces) {
            pings[{item.namespace_name, item.family}] +=
                std::count_if(item.probes.begin(), item.probes.end(),
                              [](const lbshow::Probe& probe) { return probe.quality.has_value(); });
        }
    }
    std::int64_t most_pings = 0;
    for (const auto& [worker, count] : pings) {
        most_pings = std::max(most_pings, count);
    }
    return std::min(most_ms, usual_ms + most_pings * per_ping_ms);
}

}  // namespace lbwatch

#include "dumps/dump_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iterator>
#include <span>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/fd.h"
#include "shared/dump_file.h"

namespace dumps {

namespace {

/// What a dump's place holds at this moment.
struct Content {
    std::vector<std::uint8_t> bytes{};
    Time written{};
    std::string problem{};  ///< why it cannot be read; empty: it was
    bool is_missing = false;
    bool is_rewritten = false;  ///< meanwhile
};

/// Some file systems carry times beyond what milliseconds can count.
Time written_at(const timespec& time) {
    constexpr time_t most_s = 1'000'000'000'000;
    return Time(std::chrono::seconds(std::clamp(time.tv_sec, -most_s, most_s)) +
                std::chrono::milliseconds(time.tv_nsec / 1'000'000));
}

std::string problem_of(const shared::DumpBytes& read) {
    using Problem = shared::DumpBytes::Problem;
    const std::string begin = "cannot be read: ";
    switch (read.problem) {
        case Problem::none:
            return "";
        case Problem::error:
            return begin + strerror(read.error);
        case Problem::no_regular:
            return begin + (read.is_folder ? strerror(EISDIR) : "it is no regular file");
        case Problem::too_large:
            return begin + strerror(EFBIG);
    }
    return "";
}

Content content_of(const std::string& path) {
    // Far more than any router's dumps hold.
    constexpr std::size_t most_bytes = std::size_t{256} << 20;
    shared::DumpBytes read = shared::read_dump(path, most_bytes);
    const bool is_missing =
        read.problem == shared::DumpBytes::Problem::error && read.error == ENOENT;
    return {.bytes = std::move(read.bytes),
            .written = written_at(read.written),
            .problem = problem_of(read),
            .is_missing = is_missing,
            .is_rewritten = read.is_rewritten};
}

/// Whether the dump may be missing: a family's own.
enum class Presence { required, optional };

/// Appends a dump's items. An empty or cut one is being rewritten; one that stays so was left by a
/// full disk or a killed daemon. Only the routes may stay empty, of rules without destinations.
template <class Item>
std::string append_dump(shared::DumpFile file, Presence presence, State& state,
                        std::vector<Item>& items,
                        const std::function<Read<Item>(std::span<const std::uint8_t>)>& read) {
    constexpr int tries = 20;
    constexpr std::chrono::milliseconds pause(25);
    const std::string name = name_of(file);
    const std::string path = state.dump_directory + "/" + name;
    for (int attempt = 1;; ++attempt) {
        const Content content = content_of(path);
        if (content.is_missing && presence == Presence::optional) {
            return "";
        }
        if (!content.problem.empty() && !content.is_missing) {
            return path + " " + content.problem;
        }
        Read<Item> answer = read(content.bytes);
        const bool may_be_empty = std::is_same_v<Item, Route> && !content.is_missing;
        // One that was cut between two records shows only by its having changed meanwhile.
        const bool is_whole =
            !answer.is_truncated && !content.bytes.empty() && !content.is_rewritten;
        if (!is_whole && attempt < tries) {
            std::this_thread::sleep_for(pause);
            continue;
        }
        if (content.is_missing) {
            return path + " " + content.problem;
        }
        if (!answer.problem.empty()) {
            return path + " " + answer.problem;
        }
        if (content.bytes.empty() && !may_be_empty) {
            return path + " is empty: is the disk full? (df " + state.dump_directory + ")";
        }
        state.files.push_back({.name = name, .written = content.written});
        std::move(answer.items.begin(), answer.items.end(), std::back_inserter(items));
        return "";
    }
}

std::string no_dumps(const std::string& directory) {
    return "no dumps below " + directory + ": is the daemon running with this directory?";
}

/// Why there is no folder to look into; empty where there is one.
std::string folder_problem(const std::string& directory, const std::string& dumps) {
    const Fd folder(open(dumps.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY));
    if (folder.is_open()) {
        return "";
    }
    return errno == ENOENT ? no_dumps(directory) : dumps + " cannot be read: " + strerror(errno);
}

}  // namespace

std::string read_state(const std::string& directory, bool is_swapped, State& state) {
    state.dump_directory = shared::dump_folder(directory);
    std::string problem = folder_problem(directory, state.dump_directory);
    for (const int family : {4, 6}) {
        if (problem.empty()) {
            problem = append_dump<Interface>(
                shared::outbounds_of(family), Presence::optional, state, state.interfaces,
                [=](auto dump) { return read_interfaces(dump, family, is_swapped); });
        }
    }
    if (problem.empty() && state.files.empty()) {
        return no_dumps(directory);
    }
    if (problem.empty()) {
        problem = append_dump<Rule>(shared::DumpFile::rules, Presence::required, state, state.rules,
                                    [=](auto dump) { return read_rules(dump, is_swapped); });
    }
    if (problem.empty()) {
        problem =
            append_dump<Route>(shared::DumpFile::routes, Presence::required, state, state.routes,
                               [=](auto dump) { return read_routes(dump, is_swapped); });
    }
    return problem;
}

}  // namespace dumps

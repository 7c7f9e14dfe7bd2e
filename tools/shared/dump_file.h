#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/// The daemon's dumps as files: their names, and their bytes at one moment. What the records in
/// them mean is dumps/state.h's.
namespace shared {

enum class DumpFile { outbounds4, outbounds6, rules, routes };
inline constexpr std::array<DumpFile, 4> dump_files{DumpFile::outbounds4, DumpFile::outbounds6,
                                                    DumpFile::rules, DumpFile::routes};

/// Its name below the folder of the dumps.
const char* name_of(DumpFile file);
/// The dump of a family's interfaces.
DumpFile outbounds_of(int family);
/// Below the output directory of the daemon.
std::string dump_folder(const std::string& output_directory);

/// One look at a file that the daemon rewrites in place. It holds no problem where it was read.
struct DumpBytes {
    enum class Problem {
        none,
        error,       ///< `error` says which
        no_regular,  ///< a folder, a named pipe, a device
        too_large,
    };
    Problem problem = Problem::none;
    int error = 0;           ///< errno, of `Problem::error`
    bool is_folder = false;  ///< of `Problem::no_regular`
    std::vector<std::uint8_t> bytes{};
    timespec written{};  ///< asked before the bytes were read: never later than what they tell
    bool is_rewritten = false;  ///< it changed while it was read
};

/// Reads so many bytes at most, of a file that is no larger. Never waits: a named pipe in a dump's
/// place has no writer. `bytes` lends its memory.
DumpBytes read_dump(const std::string& path, std::size_t most,
                    std::vector<std::uint8_t> bytes = {});

}  // namespace shared

#include "shared/dump_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <span>
#include <utility>

#include "base/fd.h"
#include "shared/file_text.h"

namespace shared {

namespace {

bool is_same(const struct stat& one, const struct stat& other) {
    return one.st_size == other.st_size && one.st_ino == other.st_ino &&
           one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

DumpBytes failed(int error) {
    return {.problem = DumpBytes::Problem::error, .error = error};
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

DumpFile outbounds_of(int family) {
    return family == 6 ? DumpFile::outbounds6 : DumpFile::outbounds4;
}

std::string dump_folder(const std::string& output_directory) {
    return output_directory + "/wlb_dump";
}

DumpBytes read_dump(const std::string& path, std::size_t most, std::vector<std::uint8_t> bytes) {
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat before {};
    if (!file.is_open() || fstat(file.get(), &before) != 0) {
        return failed(errno);
    }
    if (!S_ISREG(before.st_mode)) {
        return {.problem = DumpBytes::Problem::no_regular,
                .is_folder = S_ISDIR(before.st_mode) != 0};
    }
    const auto size = static_cast<std::size_t>(before.st_size);
    if (size > most) {
        return {.problem = DumpBytes::Problem::too_large};
    }
    // One byte more shows a file that grows meanwhile.
    bytes.resize(size + 1);
    int error = 0;
    const auto filled = fill(file, std::as_writable_bytes(std::span(bytes)), error);
    if (!filled) {
        return failed(error);
    }
    bytes.resize(*filled);
    struct stat after {};
    if (fstat(file.get(), &after) != 0) {
        return failed(errno);
    }
    DumpBytes read{.bytes = std::move(bytes), .written = before.st_mtim};
    read.is_rewritten = read.bytes.size() != size || !is_same(before, after);
    return read;
}

}  // namespace shared

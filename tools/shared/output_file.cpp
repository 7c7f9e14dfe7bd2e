#include "shared/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/fd.h"

namespace shared {

namespace {

bool is_link_of_others(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 && S_ISLNK(found.st_mode) && found.st_uid != 0 &&
           found.st_uid != geteuid();
}

}  // namespace

std::string write_output(const std::string& path, std::string_view text) {
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    constexpr mode_t all_read_and_write = 0666;
    Fd file(open(path.c_str(), flags | O_NOFOLLOW, all_read_and_write));
    if (!file.is_open() && errno == ELOOP) {
        if (is_link_of_others(path)) {
            return path +
                   " cannot be written: it is a symbolic link of another user; remove it: rm " +
                   path;
        }
        file = Fd(open(path.c_str(), flags, all_read_and_write));
    }
    if (!file.is_open()) {
        return path + " cannot be written: " +
               (errno == ENXIO ? "it is a pipe that nobody reads" : strerror(errno));
    }
    fcntl(file.get(), F_SETFL, 0);  // whoever reads a pipe may take its time
    while (!text.empty()) {
        const ssize_t written = write(file.get(), text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return path + " cannot be written: " + strerror(errno);
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<std::size_t>(written));
    }
    return "";
}

}  // namespace shared

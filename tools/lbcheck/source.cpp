#include "lbcheck/source.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/fd.h"

namespace lbcheck {

Source read_source(const std::string& path, std::size_t most_bytes) {
    // Without waiting for a writer, who may never come.
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file.is_open() || fstat(file.get(), &status) != 0) {
        return {.bytes = "", .problem = strerror(errno)};
    }
    if (S_ISDIR(status.st_mode)) {
        return {.bytes = "", .problem = std::string(strerror(EISDIR)) + ": name a file in it"};
    }
    fcntl(file.get(), F_SETFL, 0);  // but for what a writer has to say yet
    Source source;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = read(file.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return {.bytes = "", .problem = strerror(errno)};
        }
        if (count == 0 && source.bytes.empty() && S_ISFIFO(status.st_mode)) {
            return {.bytes = "", .problem = "it is a pipe, and nobody writes into it"};
        }
        if (count == 0) {
            return source;
        }
        source.bytes.append(buffer.data(), static_cast<std::size_t>(count));
        if (source.bytes.size() > most_bytes) {
            return {.bytes = "",
                    .problem = "it is longer than " + std::to_string(most_bytes) + " bytes"};
        }
    }
}

LoadableText::LoadableText(const std::string& text)
    : file_(memfd_create("configuration", MFD_CLOEXEC)),
      path_("/proc/self/fd/" + std::to_string(file_)) {
    for (std::size_t written = 0; written < text.size();) {
        const ssize_t count = write(file_, text.data() + written, text.size() - written);
        if (count <= 0) {
            return;  // what is missing is told by the loader
        }
        written += static_cast<std::size_t>(count);
    }
}

LoadableText::~LoadableText() {
    if (file_ >= 0) {
        close(file_);
    }
}

}  // namespace lbcheck

#include "shared/file_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/fd.h"

namespace shared {

std::optional<std::string> text_of_file(const std::string& path, int& error) {
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.is_open()) {
        error = errno;
        return std::nullopt;
    }
    std::string text;
    std::array<char, 16384> block{};
    while (true) {
        const ssize_t got = read(file.get(), block.data(), block.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = errno;
            return std::nullopt;
        }
        if (got == 0) {
            return text;
        }
        text.append(block.data(), static_cast<std::size_t>(got));
    }
}

std::string text_of_file(const std::string& path) {
    int ignored = 0;
    return text_of_file(path, ignored).value_or("");
}

}  // namespace shared

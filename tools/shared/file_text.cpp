#include "shared/file_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

namespace shared {

namespace {

Fd opened(const std::string& path, int& error) {
    Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    error = file.is_open() ? 0 : errno;
    return file;
}

}  // namespace

std::optional<std::size_t> fill(const Fd& file, std::span<std::byte> memory, int& error) {
    std::size_t filled = 0;
    while (filled < memory.size()) {
        const ssize_t got = read(file.get(), memory.data() + filled, memory.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = errno;
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    return filled;
}

std::optional<std::string> rest_of(const Fd& file, std::size_t most, int& error) {
    std::string text;
    std::array<char, 16384> block{};
    while (true) {
        const auto got = fill(file, std::as_writable_bytes(std::span(block)), error);
        if (!got) {
            return std::nullopt;
        }
        text.append(block.data(), *got);
        if (text.size() > most) {
            error = EFBIG;
            return std::nullopt;
        }
        if (*got < block.size()) {
            return text;
        }
    }
}

std::optional<std::string> text_of_file(const std::string& path, int& error) {
    const Fd file = opened(path, error);
    return file.is_open() ? rest_of(file, std::numeric_limits<std::size_t>::max(), error)
                          : std::nullopt;
}

std::string text_of_file(const std::string& path) {
    int ignored = 0;
    return text_of_file(path, ignored).value_or("");
}

std::optional<std::string> text_of_regular_file(const std::string& path, std::size_t most,
                                                int& error) {
    const Fd file = opened(path, error);
    if (!file.is_open()) {
        return std::nullopt;
    }
    struct stat found {};
    if (fstat(file.get(), &found) != 0) {
        error = errno;
        return std::nullopt;
    }
    if (!S_ISREG(found.st_mode)) {
        error = S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
        return std::nullopt;
    }
    return rest_of(file, most, error);
}

}  // namespace shared

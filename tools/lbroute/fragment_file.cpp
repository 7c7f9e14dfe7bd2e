#include "lbroute/fragment_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "base/fd.h"

namespace lbroute {

namespace {

/// Far more than any router's destinations take.
constexpr std::size_t longest_fragment = 64 * 1024 * 1024;

/// The file's text, or an errno.
int read_text(const std::string& path, std::string& text) {
    // Not blocking, so that a pipe laid in the file's place does not hold the program.
    const Fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat found {};
    if (!file.is_open() || fstat(file.get(), &found) != 0) {
        return errno;
    }
    if (!S_ISREG(found.st_mode)) {
        return S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
    }
    std::array<char, 65536> buffer{};
    while (true) {
        const ssize_t length = read(file.get(), buffer.data(), buffer.size());
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return errno;
        }
        if (length == 0) {
            return 0;
        }
        text.append(buffer.data(), static_cast<std::size_t>(length));
        if (text.size() > longest_fragment) {
            return EFBIG;
        }
    }
}

}  // namespace

void FragmentFile::read(std::int64_t now_ms) {
    problems_.clear();
    is_current_ = false;
    is_missing_ = false;
    read_again_at_ms_.reset();
    std::string text;
    const int error = read_text(path_, text);
    if (error != 0) {
        empty_since_ms_.reset();
        was_read_again_ = false;
        is_missing_ = error == ENOENT;
        if (!is_missing_) {
            problems_[path_ + " cannot be read: " + strerror(error) +
                      "; its routes stay as they are"] = Level::error;
        }
        return;
    }
    take(parse_fragment(text, family_), now_ms);
}

void FragmentFile::take(const FragmentReading& reading, std::int64_t now_ms) {
    switch (reading.wholeness) {
        case Wholeness::empty:
            was_read_again_ = false;
            if (!empty_since_ms_) {
                empty_since_ms_ = now_ms;
            }
            if (now_ms - *empty_since_ms_ < fragment_patience_ms) {
                read_again_at_ms_ = *empty_since_ms_ + fragment_patience_ms;
                return;
            }
            in_force_ = Fragment{};
            is_current_ = true;
            return;
        case Wholeness::incomplete:
            empty_since_ms_.reset();
            for (const FragmentFault& fault : reading.faults) {
                problems_[path_ + " line " + std::to_string(fault.line) + ": " + fault.reason +
                          "; its routes stay as they are"] = Level::warning;
            }
            // Once: whoever goes on writing it later is noticed.
            if (!was_read_again_) {
                read_again_at_ms_ = now_ms + fragment_patience_ms;
            }
            was_read_again_ = !was_read_again_;
            return;
        case Wholeness::whole:
            empty_since_ms_.reset();
            was_read_again_ = false;
            in_force_ = reading.fragment;
            is_current_ = true;
            for (const FragmentFault& fault : reading.faults) {
                problems_[path_ + " line " + std::to_string(fault.line) + ": " + fault.reason] =
                    Level::warning;
            }
            return;
    }
}

}  // namespace lbroute

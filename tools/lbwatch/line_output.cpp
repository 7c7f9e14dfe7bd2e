#include "lbwatch/line_output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lbwatch {

void LineOutput::add(const std::string& line) {
    waiting_ += line;
    waiting_ += '\n';
}

void LineOutput::flush() {
    while (!waiting_.empty() && !is_gone_) {
        const ssize_t written = write(descriptor_, waiting_.data(), waiting_.size());
        if (written >= 0) {
            waiting_.erase(0, static_cast<std::size_t>(written));
            continue;
        }
        if (errno == EINTR) {
            continue;
        }
        error_ = errno;
        is_gone_ = error_ == EPIPE || error_ == EBADF;
        break;
    }
    is_gone_ = is_gone_ || waiting_.size() > most_bytes;
}

std::string LineOutput::problem() const {
    if (waiting_.empty() || error_ == EPIPE) {
        return "";
    }
    const auto lines = std::count(waiting_.begin(), waiting_.end(), '\n');
    return "standard output cannot be written: " +
           std::string(error_ == EAGAIN ? "its reader does not read" : strerror(error_)) + "; " +
           std::to_string(lines) + (lines == 1 ? " event was" : " events were") + " not told there";
}

}  // namespace lbwatch

#include "lbwatch/line_output.h"

#include <unistd.h>

#include <cerrno>

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
        } else if (errno == EPIPE || errno == EBADF) {
            is_gone_ = true;
        } else if (errno != EINTR) {
            break;
        }
    }
    is_gone_ = is_gone_ || waiting_.size() > most_bytes;
}

}  // namespace lbwatch

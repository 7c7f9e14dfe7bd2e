#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

/// A file descriptor that is closed when its owner goes out of scope.
///
/// Whoever opens one opens it close-on-exec: the daemon runs shell commands, and none of them may
/// inherit a socket. A negative number means "none", as the kernel returns it.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int number) : number_(number) {}
    Fd(Fd&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (number_ >= 0) {
            close(number_);
        }
    }

    int get() const { return number_; }
    bool is_open() const { return number_ >= 0; }
    /// Gives the descriptor up: the caller closes it.
    int release() { return std::exchange(number_, -1); }

  private:
    int number_ = -1;
};

/// A descriptor, or why there is none.
struct OpenedFd {
    Fd fd;
    int error = 0;  ///< as in errno(3)

    bool is_open() const { return fd.is_open(); }
};
/// Takes over what a system call that opens a descriptor has just returned.
inline OpenedFd just_opened(int number) {
    return {.fd = Fd(number), .error = number < 0 ? errno : 0};
}

#include "lbroute/state_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "shared/file_text.h"

namespace lbroute {

namespace {

constexpr std::size_t largest_file = 1U << 20U;
constexpr mode_t owner_writes_all_enter = 0755;
constexpr mode_t owner_writes_all_read = 0644;
constexpr mode_t owner_alone = 0600;
constexpr int longest_wait_s = 10;

std::string failure(const std::string& what, int error) {
    const char* const hint = error == EACCES || error == EPERM ? "; run it as root" : "";
    return "cannot " + what + ": " + strerror(error) + hint;
}

bool can_others_change(const struct stat& found) {
    const bool is_owners = found.st_uid == 0 || found.st_uid == geteuid();
    return !is_owners || (found.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

/// What keeps the folder from being trusted.
std::string distrust(const std::string& path, int folder) {
    struct stat found {};
    if (fstat(folder, &found) != 0) {
        return failure("look at " + path, errno);
    }
    if (can_others_change(found)) {
        return path +
               " can be changed by other users than root and is not used; remove it: rm -r " + path;
    }
    return "";
}

}  // namespace

StateFolder StateFolder::open(const std::string& path, IfMissing if_missing, std::string& problem) {
    StateFolder folder;
    folder.path_ = path;
    problem.clear();
    constexpr int flags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    Fd opened(::open(path.c_str(), flags));
    if (!opened.is_open() && errno == ENOENT) {
        if (if_missing == IfMissing::leave) {
            return folder;
        }
        if (mkdir(path.c_str(), owner_writes_all_enter) != 0 && errno != EEXIST) {
            problem = failure("make " + path, errno);
            return folder;
        }
        opened = Fd(::open(path.c_str(), flags));
        // Whatever the umask of the caller takes away.
        if (opened.is_open()) {
            fchmod(opened.get(), owner_writes_all_enter);
        }
    }
    if (!opened.is_open()) {
        const int error = errno;
        const bool is_other = error == ENOTDIR || error == ELOOP;
        problem = is_other ? path + " is no folder and is not used; remove it: rm " + path
                           : failure("open " + path, error);
        return folder;
    }
    problem = distrust(path, opened.get());
    if (problem.empty()) {
        folder.folder_ = std::move(opened);
    }
    return folder;
}

StateFolder::Content StateFolder::read(const std::string& name) const {
    const std::string shown = path_ + "/" + name;
    // Not waiting: a pipe put in the file's place must not stop the program.
    const Fd file(
        openat(folder_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!file.is_open()) {
        const int error = errno;
        return {.text = {}, .problem = error == ENOENT ? "" : failure("read " + shown, error)};
    }
    struct stat found {};
    if (fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return {.text = {}, .problem = shown + " is no regular file"};
    }
    // Who may write in the folder could have let others write one of its files.
    if (can_others_change(found)) {
        return {.text = {},
                .problem = shown +
                           " can be changed by other users than root and is not used; remove it: "
                           "rm " +
                           shown};
    }
    int error = 0;
    const auto text = shared::rest_of(file, largest_file, error);
    if (!text) {
        return {.text = {},
                .problem = error == EFBIG ? shown + " is larger than a megabyte"
                                          : failure("read " + shown, error)};
    }
    return {.text = *text, .problem = ""};
}

std::string StateFolder::write(const std::string& name, std::string_view text) const {
    const std::string shown = path_ + "/" + name;
    const std::string temporary = "." + name + "." + std::to_string(getpid());
    // A leftover of a killed process that had our number.
    unlinkat(folder_.get(), temporary.c_str(), 0);
    const Fd file(openat(folder_.get(), temporary.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                         owner_writes_all_read));
    if (!file.is_open()) {
        return failure("write " + shown, errno);
    }
    fchmod(file.get(), owner_writes_all_read);
    while (!text.empty()) {
        const ssize_t written = ::write(file.get(), text.data(), text.size());
        if (written < 0) {
            const int error = errno;
            unlinkat(folder_.get(), temporary.c_str(), 0);
            return failure("write " + shown, error);
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    if (renameat(folder_.get(), temporary.c_str(), folder_.get(), name.c_str()) != 0) {
        const int error = errno;
        unlinkat(folder_.get(), temporary.c_str(), 0);
        return failure("write " + shown, error);
    }
    return "";
}

void StateFolder::remove(const std::string& name) const {
    unlinkat(folder_.get(), name.c_str(), 0);
}

Fd StateFolder::lock(const std::string& name, Wait wait, std::string& problem) const {
    problem.clear();
    Fd file(openat(folder_.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                   owner_alone));
    if (!file.is_open()) {
        problem = failure("open " + path_ + "/" + name, errno);
        return {};
    }
    fchmod(file.get(), owner_alone);  // earlier versions made it for all to read
    constexpr auto pause = std::chrono::milliseconds(20);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(longest_wait_s);
    while (flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            problem = failure("lock " + path_ + "/" + name, errno);
            return {};
        }
        if (wait == Wait::not_at_all) {
            return {};
        }
        if (std::chrono::steady_clock::now() > deadline) {
            problem = path_ + "/" + name + " has been locked by another program for " +
                      std::to_string(longest_wait_s) + " seconds, see: lslocks";
            return {};
        }
        std::this_thread::sleep_for(pause);
    }
    return file;
}

}  // namespace lbroute

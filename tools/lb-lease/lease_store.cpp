#include "lb-lease/lease_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>

#include "base/fd.h"
#include "decision/lease_file.h"
#include "lb-lease/lease_text.h"

namespace lblease {

namespace {

// One name is enough under the lock, and what a killed call left there is replaced by the next.
constexpr const char* temporary_name = ".lb-lease.new";
// Whoever can open a file can lock it: neither the folder nor a lease will do, which all may read.
constexpr const char* lock_name = ".lb-lease.lock";
// Far more than the files of this program have; what is longer is not one of them.
constexpr std::size_t most_read = 4096;
// A call takes milliseconds; one that was stopped must not hold up the DHCP client for ever.
constexpr std::chrono::seconds longest_wait{10};
constexpr std::chrono::milliseconds pause_between_tries{20};

std::string path_of(const std::string& name) {
    return std::string(lease_folder) + "/" + name;
}

/// What the operator can do about a failed call.
std::string advice(int error) {
    switch (error) {
        case ENOSPC:
        case EDQUOT:
            return "; make room there, see: df -h -i " + std::string(lease_folder);
        case EROFS:
            return "; make it writable, for a service by ReadWritePaths=" +
                   std::string(lease_folder) + ", see: findmnt -T " + lease_folder;
        case EACCES:
        case EPERM:
            return "; run it as root";
        case ENOTDIR:
            return "; it must be a folder, see: ls -ld " + std::string(lease_folder);
        default:
            return "";
    }
}

std::string failure(const std::string& path, const char* what, int error) {
    return path + " " + what + ": " + std::strerror(error) + advice(error);
}

/// The directory, locked while it lives.
struct Opened {
    Fd folder;
    Fd lock;
    std::string problem;
};

Opened not_opened(const std::string& problem) {
    return {Fd(), Fd(), problem};
}

/// Empty where nobody else can have it open.
std::string make_private(const Fd& lock) {
    struct stat status {};
    if (fstat(lock.get(), &status) != 0) {
        return failure(path_of(lock_name), "cannot be looked at", errno);
    }
    if (!S_ISREG(status.st_mode) || status.st_uid != geteuid()) {
        return path_of(lock_name) + " is not a plain file of the caller's; remove it: rm " +
               path_of(lock_name);
    }
    if ((status.st_mode & 07777U) != 0600 && fchmod(lock.get(), 0600) != 0) {
        return failure(path_of(lock_name), "cannot be kept from others", errno);
    }
    return "";
}

/// Empty once the file is locked.
std::string take(const Fd& lock) {
    const auto deadline = std::chrono::steady_clock::now() + longest_wait;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return failure(path_of(lock_name), "cannot be locked", errno);
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return path_of(lock_name) +
                   " has been locked for 10 seconds, by another lb-lease or some program of root's,"
                   " see: lslocks";
        }
        std::this_thread::sleep_for(pause_between_tries);
    }
    return "";
}

Opened open_locked() {
    Fd folder(open(lease_folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.is_open()) {
        return not_opened(failure(lease_folder, "cannot be opened", errno));
    }
    Fd lock(openat(folder.get(), lock_name,
                   O_RDONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!lock.is_open()) {
        return not_opened(failure(path_of(lock_name), "cannot be opened", errno));
    }
    std::string problem = make_private(lock);
    if (problem.empty()) {
        problem = take(lock);
    }
    return {std::move(folder), std::move(lock), problem};
}

/// Whether nothing can stand under this name. What another call is about to put there comes later.
bool is_absent(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) != 0 && errno == ENOENT;
}

/// The start of a plain file, long enough for every file of ours.
std::optional<std::string> read_start(int file) {
    std::array<char, most_read> buffer;
    std::string text;
    while (text.size() < most_read) {
        const ssize_t count = read(file, buffer.data(), most_read - text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

enum class Owner { nobody, self, other };

struct Present {
    Owner owner = Owner::other;
    std::string text;
};

/// What stands under the name now. Neither follows a link nor waits for the writer of a pipe.
Present look(const Fd& folder, const std::string& name) {
    const Fd file(
        openat(folder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open()) {
        return {errno == ENOENT ? Owner::nobody : Owner::other, ""};
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    const std::optional<std::string> text = read_start(file.get());
    return text && is_own_text(*text) ? Present{Owner::self, *text} : Present{};
}

std::string told_of_other(const std::string& name) {
    const std::string path = path_of(name);
    return path +
           " was not written by lb-lease and stays as it is; unless a DHCP client keeps its"
           " own leases there: rm " +
           path;
}

/// 0, or the error.
int write_all(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(file, text.data(), text.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return errno;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

/// The text in a file of its own, safe on the disk. 0, or the error.
int write_temporary(const Fd& folder, const std::string& text) {
    // Away with what a killed call left, and with anything else: what is opened next is new.
    unlinkat(folder.get(), temporary_name, 0);
    const Fd file(openat(folder.get(), temporary_name,
                         O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.is_open()) {
        return errno;
    }
    if (const int error = write_all(file.get(), text); error != 0) {
        return error;
    }
    // The daemon runs without the right to pass by the modes of files.
    return fchmod(file.get(), 0644) == 0 && fsync(file.get()) == 0 ? 0 : errno;
}

}  // namespace

std::string write_lease(const std::string& name, const std::string& text) {
    if (mkdir(lease_folder, 0755) != 0 && errno != EEXIST) {
        return failure(lease_folder, "cannot be made", errno);
    }
    const auto [folder, lock, problem] = open_locked();
    if (!problem.empty()) {
        return problem;
    }
    const Present present = look(folder, name);
    if (present.owner == Owner::other) {
        return told_of_other(name);
    }
    if (present.text == text) {
        return "";
    }
    int error = write_temporary(folder, text);
    if (error == 0 && renameat(folder.get(), temporary_name, folder.get(), name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlinkat(folder.get(), temporary_name, 0);
        return failure(path_of(name), "stays as it was", error);
    }
    fsync(folder.get());  // where it fails, a power cut may bring the old file back, but whole
    return "";
}

std::string remove_lease(const std::string& name) {
    if (is_absent(path_of(name))) {
        return "";
    }
    const auto [folder, lock, problem] = open_locked();
    if (!problem.empty()) {
        return problem;
    }
    const Present present = look(folder, name);
    if (present.owner == Owner::other) {
        return told_of_other(name);
    }
    if (present.owner == Owner::self && unlinkat(folder.get(), name.c_str(), 0) != 0) {
        return failure(path_of(name), "stays as it was", errno);
    }
    fsync(folder.get());
    return "";
}

std::string remove_leases_of_other_boots(const std::string& boot) {
    if (is_absent(lease_folder)) {
        return "";
    }
    const auto [folder, lock, problem] = open_locked();
    if (!problem.empty()) {
        return problem;
    }
    std::error_code error;
    std::string first_problem;
    for (std::filesystem::directory_iterator entry(lease_folder, error), end;
         !error && entry != end; entry.increment(error)) {
        const std::string name = entry->path().filename();
        const Present present = look(folder, name);
        if (present.owner == Owner::self && is_of_other_boot(present.text, boot) &&
            unlinkat(folder.get(), name.c_str(), 0) != 0 && first_problem.empty()) {
            first_problem = failure(path_of(name), "stays as it was", errno);
        }
    }
    if (error) {
        return failure(lease_folder, "cannot be read", error.value());
    }
    fsync(folder.get());
    return first_problem;
}

}  // namespace lblease

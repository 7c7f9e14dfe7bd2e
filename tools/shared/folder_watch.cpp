#include "shared/folder_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <set>

namespace shared {

namespace {

constexpr std::uint32_t of_files = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;
constexpr std::uint32_t of_folder = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;

std::string reason_of(const std::string& folder, int error) {
    if (error == ENOSPC || error == ENOMEM || error == EBADF) {
        return "the kernel's limits are reached (sysctl fs.inotify tells them; raise "
               "max_user_watches or max_user_instances)";
    }
    return folder + ": " + strerror(error);
}

}  // namespace

FolderWatch::FolderWatch() : inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

void FolderWatch::watch(const std::set<std::string>& folders) {
    if (!inotify_.is_open()) {
        inotify_ = Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    }
    if (folders != folders_ || is_blind()) {
        folders_ = folders;
        refresh();
    }
}

bool FolderWatch::sees(const std::string& folder) const {
    return std::any_of(watched_.begin(), watched_.end(),
                       [&folder](const auto& entry) { return entry.second.contains(folder); });
}

void FolderWatch::refresh() {
    std::map<int, std::set<std::string>> before;
    before.swap(watched_);
    blindness_.clear();
    for (const std::string& folder : folders_) {
        add(folder, true);
    }
    for (const auto& [number, watched] : before) {
        if (!watched_.contains(number)) {
            inotify_rm_watch(inotify_.get(), number);
        }
    }
}

void FolderWatch::add(const std::string& folder, bool is_own) {
    std::string at = folder;
    bool is_itself = is_own;
    while (true) {
        const std::uint32_t mask =
            IN_ONLYDIR | IN_MASK_ADD | of_folder | (is_itself ? of_files : 0);
        const int number = inotify_add_watch(inotify_.get(), at.c_str(), mask);
        if (number >= 0) {
            std::set<std::string>& names = watched_[number];
            if (is_itself) {
                names.insert(at);
            }
            return;
        }
        if (errno != ENOENT && errno != ENOTDIR && !is_blind()) {
            blindness_ = reason_of(at, errno);
        }
        const std::string above = std::filesystem::path(at).parent_path();
        if (above == at || above.empty()) {
            return;
        }
        at = above;
        is_itself = false;
    }
}

FolderWatch::Changes FolderWatch::drain() {
    Changes changes;
    bool is_to_refresh = false;
    alignas(inotify_event) std::array<char, 16384> buffer{};
    while (true) {
        const ssize_t length = read(inotify_.get(), buffer.data(), buffer.size());
        if (length <= 0) {
            if (length < 0 && errno == EINTR) {
                continue;
            }
            break;
        }
        for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof event);
            const char* const name = buffer.data() + at + sizeof event;
            at += sizeof event + event.len;
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                changes.is_all = is_to_refresh = true;
                continue;
            }
            const auto watched = watched_.find(event.wd);
            if (watched == watched_.end()) {
                continue;
            }
            if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
                inotify_rm_watch(inotify_.get(), event.wd);
                changes.is_all = is_to_refresh = true;
                continue;
            }
            const bool is_of_file = (event.mask & of_files) != 0 && event.len > 0;
            if (watched->second.empty() || (!is_of_file && (event.mask & IN_ISDIR) != 0)) {
                is_to_refresh = true;  // perhaps a folder that is missing came into being
            } else if (event.len > 0) {
                for (const std::string& folder : watched->second) {
                    changes.paths.insert(folder + "/" + name);
                }
            }
        }
    }
    if (is_to_refresh) {
        const auto owned = [this] {
            std::set<std::string> found;
            for (const auto& [number, names] : watched_) {
                found.insert(names.begin(), names.end());
            }
            return found;
        };
        const auto before = owned();
        refresh();
        changes.is_all |= owned() != before;
    }
    return changes;
}

}  // namespace shared

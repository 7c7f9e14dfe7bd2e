#include "lbwatch/folder_watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace lbwatch {

namespace {

constexpr std::uint32_t wanted = IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR;

std::optional<DumpFile> dump_called(const char* name) {
    for (const DumpFile file : dump_files) {
        if (strcmp(name, name_of(file)) == 0) {
            return file;
        }
    }
    return std::nullopt;
}

}  // namespace

FolderWatch::FolderWatch(std::string dump_folder, Notice notice)
    : folder_(std::move(dump_folder)),
      notice_(std::move(notice)),
      inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    tend();
}

std::set<DumpFile> FolderWatch::drain() {
    std::set<DumpFile> rewritten;
    alignas(inotify_event) std::array<char, 8192> buffer{};
    ssize_t got = 0;
    while (inotify_.is_open() && (got = read(inotify_.get(), buffer.data(), buffer.size())) > 0) {
        for (std::size_t at = 0; at < static_cast<std::size_t>(got);) {
            inotify_event event{};
            memcpy(&event, buffer.data() + at, sizeof event);
            const auto file =
                event.len == 0 ? std::nullopt : dump_called(buffer.data() + at + sizeof event);
            if (file && event.wd == watch_) {
                rewritten.insert(*file);
            }
            if ((event.mask & IN_Q_OVERFLOW) != 0) {
                rewritten.insert(dump_files.begin(), dump_files.end());
            }
            at += sizeof event + event.len;
        }
    }
    return rewritten;
}

/// The watch sticks to the folder's inode: a folder that was put in its place gets one of its own.
void FolderWatch::follow_folder() {
    struct stat found {};
    const bool is_there = stat(folder_.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
    if (is_there && found.st_ino == watched_inode_) {
        return;
    }
    if (watch_ >= 0) {
        inotify_rm_watch(inotify_.get(), watch_);
        watch_ = -1;
    }
    watched_inode_ = 0;
    if (!is_there) {
        if (!has_told_missing_) {
            notice_("no dumps below " + folder_ + "; waiting for the daemon to make them");
        }
        has_told_missing_ = true;
        return;
    }
    has_told_missing_ = false;
    watched_inode_ = found.st_ino;
    watch_ = inotify_.is_open() ? inotify_add_watch(inotify_.get(), folder_.c_str(), wanted) : -1;
    if (watch_ < 0 && !has_told_blind_) {
        has_told_blind_ = true;
        notice_(folder_ + " cannot be watched (" + strerror(errno) +
                "); the dates of its files are looked at every second instead");
    }
}

std::set<DumpFile> FolderWatch::tend() {
    follow_folder();
    std::set<DumpFile> rewritten;
    for (const DumpFile file : dump_files) {
        struct stat found {};
        const std::string path = folder_ + "/" + name_of(file);
        std::optional<std::int64_t> written;
        if (stat(path.c_str(), &found) == 0) {
            written = std::int64_t{found.st_mtim.tv_sec} * 1'000'000'000 + found.st_mtim.tv_nsec;
        }
        auto& before = written_ns_[static_cast<std::size_t>(file)];
        // What lies there at the start was not seen to be written.
        if (written && written != before && !is_first_ && watch_ < 0) {
            rewritten.insert(file);
        }
        before = written;
    }
    is_first_ = false;
    return rewritten;
}

}  // namespace lbwatch

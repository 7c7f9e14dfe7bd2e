#include "lbwatch/dump_watch.h"

#include <sys/stat.h>

#include <utility>

namespace lbwatch {

DumpWatch::DumpWatch(std::string dump_folder, Notice notice)
    : folder_(std::move(dump_folder)), notice_(std::move(notice)) {
    tend();
}

std::set<DumpFile> DumpWatch::drain() {
    const shared::FolderWatch::Changes changes = watch_.drain();
    std::set<DumpFile> rewritten;
    for (const DumpFile file : dump_files) {
        if (changes.paths.contains(folder_ + "/" + name_of(file))) {
            rewritten.insert(file);
        }
    }
    if (changes.is_all) {
        follow_folder();
        rewritten.merge(look_at_dates());
    }
    return rewritten;
}

/// False where the dates of the files must be looked at, for want of a watch.
bool DumpWatch::follow_folder() {
    struct stat found {};
    const bool is_there = stat(folder_.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
    const ino_t inode = is_there ? found.st_ino : 0;
    const bool is_another = inode != inode_;
    if (is_another) {
        inode_ = inode;
        written_ns_.clear();
    }
    // Another folder may also have been mounted over it, which the watch does not notice.
    if (is_another || !watch_.sees(folder_)) {
        watch_.watch({});
        watch_.watch({folder_});
    }
    if (!is_there) {
        if (!std::exchange(has_told_missing_, true)) {
            notice_("no dumps below " + folder_ + "; waiting for the daemon to make them");
        }
        return true;
    }
    has_told_missing_ = false;
    if (watch_.sees(folder_)) {
        return true;
    }
    if (!std::exchange(has_told_blind_, true)) {
        notice_(folder_ +
                " cannot be watched; the dates of its files are looked at every second instead "
                "(sysctl fs.inotify tells the limits)");
    }
    return false;
}

/// The dumps that have another date than at the last look.
std::set<DumpFile> DumpWatch::look_at_dates() {
    std::set<DumpFile> rewritten;
    std::map<DumpFile, std::int64_t> written_ns;
    for (const DumpFile file : dump_files) {
        struct stat found {};
        if (stat((folder_ + "/" + name_of(file)).c_str(), &found) != 0) {
            continue;
        }
        written_ns[file] =
            std::int64_t{found.st_mtim.tv_sec} * 1'000'000'000 + found.st_mtim.tv_nsec;
        const auto before = written_ns_.find(file);
        if (before != written_ns_.end() && before->second != written_ns[file]) {
            rewritten.insert(file);
        }
    }
    written_ns_ = std::move(written_ns);
    return rewritten;
}

std::set<DumpFile> DumpWatch::tend() {
    const bool is_watched = follow_folder();
    std::set<DumpFile> rewritten = look_at_dates();
    return is_watched ? std::set<DumpFile>() : rewritten;
}

}  // namespace lbwatch

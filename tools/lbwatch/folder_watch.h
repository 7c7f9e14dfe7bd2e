#pragma once

#include <array>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "lbwatch/dumps.h"
#include "net/fd.h"

namespace lbwatch {

/// Notices which dumps are rewritten below an output directory, which may come, go and be replaced
/// at any time. By inotify(7), and where that cannot be had by the files' dates at every tend().
/// One thread.
class FolderWatch {
  public:
    using Notice = std::function<void(const std::string& line)>;

    FolderWatch(std::string dump_folder, Notice notice);

    /// Readable when something was rewritten; -1 where the kernel gives no inotify.
    int fd() const { return inotify_.get(); }

    /// What was rewritten since the last call.
    std::set<DumpFile> drain();

    /// Once a second: follows the folder, and gives what was rewritten unnoticed.
    std::set<DumpFile> tend();

    bool has_folder() const { return watched_inode_ != 0; }

  private:
    void follow_folder();

    std::string folder_;
    Notice notice_;
    Fd inotify_;
    int watch_ = -1;
    unsigned long watched_inode_ = 0;
    bool has_told_missing_ = false;
    bool has_told_blind_ = false;
    bool is_first_ = true;
    std::array<std::optional<std::int64_t>, dump_files.size()> written_ns_;
};

}  // namespace lbwatch

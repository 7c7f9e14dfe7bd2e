#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>

#include "lbwatch/dumps.h"
#include "shared/folder_watch.h"

namespace lbwatch {

/// Notices which dumps are rewritten below an output directory, which may come, go and be replaced
/// at any time. By inotify(7), and where that cannot be had by the files' dates at every tend().
/// A dump that is merely found there, since its folder came, was not seen to be written. One
/// thread.
class DumpWatch {
  public:
    using Notice = std::function<void(const std::string& line)>;

    DumpWatch(std::string dump_folder, Notice notice);

    /// Readable when something was rewritten; -1 where the kernel gives no inotify.
    int fd() const { return watch_.descriptor(); }

    /// What was rewritten since the last call.
    std::set<DumpFile> drain();

    /// Once a second: follows the folder, and gives what was rewritten unnoticed.
    std::set<DumpFile> tend();

  private:
    bool follow_folder();
    std::set<DumpFile> look_at_dates();

    std::string folder_;
    Notice notice_;
    shared::FolderWatch watch_;
    ino_t inode_ = 0;  ///< of the folder; 0: there is none
    bool has_told_missing_ = false;
    bool has_told_blind_ = false;
    std::map<DumpFile, std::int64_t> written_ns_;  ///< of those that are there
};

}  // namespace lbwatch

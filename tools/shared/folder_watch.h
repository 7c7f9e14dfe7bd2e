#pragma once

#include <map>
#include <set>
#include <string>

#include "base/fd.h"

/// Tells which files of some folders may have changed, by inotify(7). A folder that is not there is
/// noticed when it is made, also with the folders above it; one that is removed and made again is
/// followed. One thread's own.
namespace shared {

class FolderWatch {
  public:
    FolderWatch();

    /// -1 where the kernel gives none.
    int descriptor() const { return inotify_.get(); }

    /// From now on exactly these folders.
    void watch(const std::set<std::string>& folders);

    /// Whether changes in this folder are noticed: it is there, and the kernel gave a watch.
    bool sees(const std::string& folder) const;

    /// Whether some folder, or the one above it that is there, has no watch. Each `watch` tries
    /// again, and may have another descriptor then.
    bool is_blind() const { return !blindness_.empty(); }
    /// Why, with what mends it: the kernel's limits are reached, or a folder may not be read.
    const std::string& blindness() const { return blindness_; }

    struct Changes {
        std::set<std::string> paths;  ///< files that were written, renamed or removed
        bool is_all = false;          ///< more than can be told
    };
    /// What happened since the last call. Never blocks. A folder that comes into being tells
    /// `is_all`.
    Changes drain();

  private:
    void refresh();
    void add(const std::string& folder, bool is_own);

    Fd inotify_;
    std::set<std::string> folders_;
    std::string blindness_;
    /// Watch descriptor -> the folders that were asked for, by all the names they have (/run and
    /// /var/run); none where it is only above one that is missing.
    std::map<int, std::set<std::string>> watched_;
};

}  // namespace shared

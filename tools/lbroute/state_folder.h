#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/fd.h"

namespace lbroute {

/// The folder of what must outlive the process, but not the machine's run: /run/lbroute.
///
/// It belongs to root (or to the user of this process), nobody else may write in it, and it is no
/// symbolic link; nothing in it is reached through a symbolic link either. So nobody can turn what
/// is written there against another file. Errors are texts for the operator, empty when all is
/// well.
class StateFolder {
  public:
    static constexpr const char* usual_path = "/run/lbroute";

    enum class IfMissing { make, leave };

    /// What a file holds; none where it is missing or cannot be read (then with a problem).
    struct Content {
        std::optional<std::string> text;
        std::string problem;
    };

    /// Not open, with a problem: it cannot be made or must not be trusted. Not open, without one:
    /// it is missing and was to be left so.
    static StateFolder open(const std::string& path, IfMissing if_missing, std::string& problem);

    bool is_open() const { return folder_.is_open(); }
    const std::string& path() const { return path_; }

    /// Reads a regular file of at most a megabyte that nobody else may change.
    Content read(const std::string& name) const;
    /// Writes a file whole, readable by all, and puts it in its place by renaming.
    std::string write(const std::string& name, std::string_view text) const;
    void remove(const std::string& name) const;

    enum class Wait { some_seconds, not_at_all };

    /// Takes the lock file `name` (flock(2)) for as long as the descriptor lives, or a copy of it
    /// in a child. Not open, without a problem: somebody else has it, and was not waited for. Its
    /// owner alone may open the file: whoever can open one can keep it locked.
    Fd lock(const std::string& name, Wait wait, std::string& problem) const;

  private:
    std::string path_;
    Fd folder_;
};

}  // namespace lbroute

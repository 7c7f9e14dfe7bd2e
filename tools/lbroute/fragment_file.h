#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lbroute/fragment.h"
#include "lbroute/journal.h"

/// One fragment on disk, which `lb` rewrites in place: what counts of it, and when to look again.
namespace lbroute {

/// How long the writer of a file that is empty or not whole is given to end it.
inline constexpr std::int64_t fragment_patience_ms = 200;

class FragmentFile {
  public:
    FragmentFile(std::string path, Family family) : path_(std::move(path)), family_(family) {}

    const std::string& path() const { return path_; }
    Family family() const { return family_; }

    /// Reads the file. A whole one counts at once; an empty one once it was found empty for the
    /// patience above; one that is not whole, missing or unreadable leaves what counted before.
    void read(std::int64_t now_ms);

    /// What counts; none while nothing ever did.
    const std::optional<Fragment>& in_force() const { return in_force_; }
    /// When to read again, though nobody tells that the file changed.
    std::optional<std::int64_t> read_again_at_ms() const { return read_again_at_ms_; }
    /// What is wrong with it now.
    const Journal::Problems& problems() const { return problems_; }
    /// What counts is what the file holds.
    bool is_current() const { return is_current_; }
    bool is_missing() const { return is_missing_; }

  private:
    void take(const FragmentReading& reading, std::int64_t now_ms);

    std::string path_;
    Family family_;
    std::optional<Fragment> in_force_;
    std::optional<std::int64_t> read_again_at_ms_;
    std::optional<std::int64_t> empty_since_ms_;
    Journal::Problems problems_;
    bool is_current_ = false;
    bool is_missing_ = false;
    bool was_read_again_ = false;  // after it was found not whole
};

}  // namespace lbroute

#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>

/// What the program tells its operator: lines on the standard error stream, which systemd keeps in
/// the journal.
namespace lbroute {

enum class Level { error = 3, warning = 4, notice = 5, information = 6 };

class Journal {
  public:
    /// `with_levels`: a line begins with its level as sd-daemon(3) has it.
    explicit Journal(bool with_levels) : with_levels_(with_levels) {}

    void say(Level level, const std::string& text) const;

    /// The problems that a subject has now. Each is told when it arises, and not again before it
    /// was gone; of very many at once the rest is told as a number.
    static constexpr std::size_t most_at_once = 20;
    using Problems = std::map<std::string, Level>;
    void tell(const std::string& subject, const Problems& problems);

    /// The subject is looked at no more: its problems are told again if they are found again.
    void forget(const std::string& subject) { told_.erase(subject); }

  private:
    bool with_levels_;
    std::map<std::string, std::set<std::string>> told_;
};

}  // namespace lbroute

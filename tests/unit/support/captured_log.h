#pragma once

#include <initializer_list>
#include <string>
#include <vector>

struct LogLine {
    int severity;  ///< of syslog(3)
    std::string text;
    bool operator==(const LogLine&) const = default;
};

/// What an error's line begins with.
inline const std::string err = "%WAN-W-ERR: ";
/// The lines of errors with these texts.
std::vector<LogLine> errors(std::initializer_list<const char*> texts);

/// The daemon's log while it lives: every finished line, of any thread, instead of syslog(3). One
/// at a time. Works while mutexes are made to fail.
class CapturedLog {
  public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    /// What was logged so far, oldest first.
    std::vector<LogLine> lines() const;
};

#pragma once

#include <string>
#include <vector>

struct LogLine {
    int severity;  ///< of syslog(3)
    std::string text;
    bool operator==(const LogLine&) const = default;
};

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

#pragma once

#include "host/log.h"

namespace shared {

/// While it lives, what the daemon's code would log is forgotten: for programs that run that code
/// and tell its failures in their own words, or leave them to the daemon. One at a time.
class QuietLog {
  public:
    QuietLog() : before_(set_log_sink([](int, const char*) {})) {}
    ~QuietLog() { set_log_sink(before_); }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;

  private:
    LogSink before_;
};

}  // namespace shared

#include "unit/support/captured_log.h"

#include <atomic>

#include "host/log.h"

namespace {

/// Not a mutex: those are among the calls that tests let fail.
class SpinLock {
  public:
    void lock() {
        while (taken_.test_and_set()) {
            taken_.wait(true);
        }
    }
    void unlock() {
        taken_.clear();
        taken_.notify_one();
    }

  private:
    std::atomic_flag taken_;
};

SpinLock captured_lock;
std::vector<LogLine> captured;  // guarded by captured_lock

void capture(int severity, const char* line) {
    captured_lock.lock();
    captured.push_back({severity, line});
    captured_lock.unlock();
}

}  // namespace

std::vector<LogLine> errors(std::initializer_list<const char*> texts) {
    std::vector<LogLine> lines;
    for (const char* text : texts) {
        lines.push_back({4, err + text});
    }
    return lines;
}

CapturedLog::CapturedLog() {
    set_log_sink(capture);
}

CapturedLog::~CapturedLog() {
    set_log_sink(nullptr);
    captured_lock.lock();
    captured.clear();
    captured_lock.unlock();
}

std::vector<LogLine> CapturedLog::lines() const {
    captured_lock.lock();
    std::vector<LogLine> copy = captured;
    captured_lock.unlock();
    return copy;
}

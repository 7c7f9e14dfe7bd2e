#include "host/watchdog.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <string>

#include "base/keep_alive_quorum.h"
#include "host/linux/notify_socket.h"

namespace {

struct Service {
    const NotifySocket socket{std::getenv("NOTIFY_SOCKET")};
    std::mutex lock;
    KeepAliveQuorum quorum;  // guarded by lock
};

/// Never destroyed: the workers still report while the process exits.
Service& service() {
    static Service* const only = new Service;
    return *only;
}

/// A number of the calling thread that, unlike a thread id, no later thread gets again.
KeepAliveQuorum::Worker this_worker() {
    static std::atomic<KeepAliveQuorum::Worker> last{0};
    thread_local const KeepAliveQuorum::Worker own = ++last;
    return own;
}

bool goes_on(KeepAliveQuorum::Worker worker) {
    const std::lock_guard guard(service().lock);
    return service().quorum.report(worker);
}

int tell(const std::string& text) {
    return service().socket.send(text) ? 0 : -1;
}

}  // namespace

int send_signal_live(int pid, int /*kind*/) {
    if (pid <= 0) {
        return 0;
    }
    if (pid > 1) {
        return tell("MAINPID=" + std::to_string(pid));
    }
    return tell("READY=1\nMAINPID=" + std::to_string(getpid()));
}

int set_timeout(wd_record* /*timeout*/) {
    return 0;  // the service manager's unit file holds the time-out
}

int send_and_shift_timeout(wd_record* /*timeout*/, wd_record* /*shift*/, int /*kind*/) {
    return goes_on(this_worker()) ? tell("WATCHDOG=1") : 0;
}

void report_progress() {
    send_and_shift_timeout(nullptr, nullptr, 0);
}

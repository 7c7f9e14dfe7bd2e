#include "host/log.h"

#include <syslog.h>

// Facility daemon, identity `wan_lb`.
void host::write_to_system_log(int severity, const char* line) {
    static const bool opened = [] {
        openlog("wan_lb", LOG_PID, LOG_DAEMON);
        return true;
    }();
    static_cast<void>(opened);
    syslog(LOG_DAEMON | severity, "%s", line);
}

#pragma once

#include <cstdint>

/// The router's watchdog service, here the service manager's notification socket (sd_notify(3)):
/// ready, main pid, keep-alive. Silent where there is none. No call blocks. Each returns 0, or -1
/// where there is a service manager and it could not be told. `kind` is the service's own business
/// too, and means nothing here.

/// A record of the service; its contents are the service's own business.
struct wd_record {
    std::uint8_t opaque[8];
};
static_assert(sizeof(wd_record) == 8);

/// Tells the service that the process lives. `pid` 1 is the process itself (ready); a larger number
/// is the child that goes on in its place (main pid); a negative one is a fork that failed, which
/// the service learns from the exit. Called first on the main thread, before any namespace is
/// entered: the notification socket is opened then and belongs to the namespace of that moment.
int send_signal_live(int pid, int kind);

/// Registers the time-out record.
int set_timeout(wd_record* timeout);

/// One worker's keep-alive, once per cycle. It goes on to the service only when every worker
/// (thread) that ever reported has reported again since the last one that went on, so a stuck
/// worker is not hidden by its siblings (B20). Any thread may call.
int send_and_shift_timeout(wd_record* timeout, wd_record* shift, int kind);

/// One worker's word that it goes on within a long step of its cycle (a burst of echoes, say).
/// Counts like its keep-alive, so that the step does not hold the service up. Any thread may call.
void report_progress();

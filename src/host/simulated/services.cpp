// Clocks, log, watchdog and crash report of the simulated machine.

#include <cstdint>

#include "host/clock.h"
#include "host/crash_report.h"
#include "host/log.h"
#include "host/simulated/simulation.h"
#include "host/watchdog.h"

namespace {

timespec at_us(std::int64_t moment_us) {
    return {.tv_sec = moment_us / 1'000'000,
            .tv_nsec = static_cast<long>(moment_us % 1'000'000 * 1000)};
}

}  // namespace

timespec monotonic_now() {
    return at_us(Simulation::current().now_us());
}

timespec wall_now() {
    return at_us(Simulation::current().wall_us());
}

void sleep_ms(std::int64_t duration_ms) {
    Simulation::current().pass_us(duration_ms * 1000);
}

void host::write_to_system_log(int severity, const char* line) {
    Simulation& simulation = Simulation::current();
    simulation.log.push_back({simulation.now_us() / 1000, severity, line});
}

int send_signal_live(int /*pid*/, int /*kind*/) {
    return 0;
}

int set_timeout(wd_record* /*timeout*/) {
    return 0;
}

// The one thread is the one worker that the quorum knows.
int send_and_shift_timeout(wd_record* /*timeout*/, wd_record* /*shift*/, int /*kind*/) {
    Simulation& simulation = Simulation::current();
    simulation.keep_alives += simulation.quorum.report(1) ? 1 : 0;
    return 0;
}

void report_progress() {
    send_and_shift_timeout(nullptr, nullptr, 0);
}

// A crash of a simulated daemon is the simulator's own.
void backtrace_set_program_name(const char* /*name*/) {}
void backtrace_open_console() {}
void backtrace_install_signal_handlers() {}

#include <set>
#include <string>

#include "config/probe_maker.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/lb_test_ping.h"

namespace {

/// Every probe in use. Neither the list nor the probes are ever freed: workers and copies of the
/// records use them until the process is gone.
template <class Probe>
std::set<Probe*>& probes_in_use() {
    static auto* const probes = new std::set<Probe*>;
    return *probes;
}

template <class Probe>
Probe* keep(Probe* made) {
    probes_in_use<Probe>().insert(made);
    return made;
}

template <class Probe>
void discard(Probe* probe) {
    probes_in_use<Probe>().erase(probe);
    delete probe;
}

}  // namespace

LBTest* make_probe(const std::string& type) {
    if (type == "ping") {
        return keep<LBTest>(new LBTestICMP);
    }
    if (type == "ping_ext") {
        return keep<LBTest>(new LBTestPING);
    }
    return nullptr;
}

LBTest6* make_probe6(const std::string& type) {
    return type == "ping" ? keep<LBTest6>(new LBTestICMP6) : nullptr;
}

void discard_probe(LBTest* probe) {
    discard(probe);
}
void discard_probe(LBTest6* probe) {
    discard(probe);
}

void set_probe_target(LBTest& probe, const std::string& target) {
    probe.target = target;
}
void set_probe_target(LBTest6& probe, const std::string& target) {
    probe.target = target;
}
void set_probe_timeout(LBTest& probe, int timeout_ms) {
    probe.timeout = timeout_ms;
}
void set_probe_timeout(LBTest6& probe, int timeout_ms) {
    probe.timeout = timeout_ms;
}

bool set_ping(LBTest& probe, PingSetting setting, int value) {
    auto* ping = dynamic_cast<LBTestPING*>(&probe);
    if (ping == nullptr) {
        return false;
    }
    switch (setting) {
        case PingSetting::period_s:
            ping->period = value;
            break;
        case PingSetting::wait_ms:
            ping->ping_timeout = {.tv_sec = value / 1000, .tv_nsec = value % 1000 * 1'000'000};
            break;
        case PingSetting::count:
            ping->count = value;
            break;
        case PingSetting::loss_percent:
            ping->loss = value;
            break;
        case PingSetting::rtt_ms:
            ping->rtt = value;
            break;
        case PingSetting::jitter_ms:
            ping->jitter = value;
            break;
    }
    return true;
}

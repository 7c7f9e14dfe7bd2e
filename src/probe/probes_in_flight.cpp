#include "probe/probes_in_flight.h"

#include <cerrno>
#include <cstring>
#include <functional>

#include "host/clock.h"
#include "host/log.h"

std::size_t PendingProbes::HashPath::operator()(const Path& path) const {
    const std::hash<std::string_view> hash;
    // An odd factor, so that a pair and its reverse have different hashes.
    return hash(path.interface) * 31 + hash(path.target);
}

std::optional<int> PendingProbes::find(const std::string& interface,
                                       const std::string& target) const {
    const auto found = by_path_.find(Path{interface, target});
    return found == by_path_.end() ? std::nullopt : std::make_optional(found->second);
}

const PktData* PendingProbes::find(int packet_id) const {
    const auto found = by_id_.find(packet_id);
    return found == by_id_.end() ? nullptr : &found->second;
}

void PendingProbes::insert(int packet_id, const PktData& probe) {
    const auto [place, is_new] = by_id_.try_emplace(packet_id, probe);
    if (is_new) {
        const PktData& kept = place->second;
        // Erased first: the key of an older probe would be of a text that goes with it.
        const Path path{kept.interface, kept.target};
        by_path_.erase(path);
        by_path_.emplace(path, packet_id);
    }
}

void PendingProbes::erase(int packet_id) {
    const auto found = by_id_.find(packet_id);
    if (found == by_id_.end()) {
        return;
    }
    by_path_.erase(Path{found->second.interface, found->second.target});
    by_id_.erase(found);
}

void PendingProbes::clear() {
    by_id_.clear();
    by_path_.clear();
}

void PendingProbes::mark_answered(int packet_id) {
    const auto found = by_id_.find(packet_id);
    if (found != by_id_.end()) {
        found->second.status = PktData::answered;
    }
}

ResultsLock::ResultsLock(const ProbeFamily& family, const char* function)
    : family_(family), function_(function) {
    const int rc = pthread_mutex_lock(&family_.result_mutex);
    is_locked_ = rc == 0;
    if (!is_locked_) {
        LOG_ERROR("<%s> pthread_mutex_lock for %s failed!!!!! rc = %d, errno = %d (%s)", function_,
                  family_.word, rc, errno, strerror(errno));
    }
}

bool ResultsLock::release() {
    if (is_released_) {
        return true;
    }
    is_released_ = true;
    const int rc = pthread_mutex_unlock(&family_.result_mutex);
    if (rc != 0) {
        LOG_ERROR("<%s> pthread_mutex_unlock for %s failed!!!!! rc = %d, errno = %d (%s)",
                  function_, family_.word, rc, errno, strerror(errno));
    }
    return rc == 0;
}

int next_packet_id(const ProbeFamily& family) {
    int before = family.packet_id.load();
    int next = (before + 1) % packet_id_count;
    while (!family.packet_id.compare_exchange_weak(before, next)) {
        next = (before + 1) % packet_id_count;
    }
    return next;
}

std::optional<int> register_probe(const ProbeFamily& family, const std::string& interface,
                                  const std::string& target, timespec& last_sent) {
    ResultsLock lock(family, "send");
    if (!lock.is_held()) {
        lock.give_up();
        return std::nullopt;
    }
    std::optional<int> registered;
    if (!family.results.find(interface, target)) {
        last_sent = monotonic_now();
        registered = next_packet_id(family);
        family.results.insert(*registered, {.interface = interface,
                                            .status = PktData::sent,
                                            .send_time = last_sent,
                                            .target = target});
    }
    if (!lock.release()) {
        if (registered) {
            family.results.erase(*registered);
        }
        return std::nullopt;
    }
    return registered;
}

namespace {

ProbeOutcome judge(const PktData& probe, int timeout_ms, const timespec& now) {
    if (probe.status == PktData::answered) {
        return ProbeOutcome::answered;
    }
    const bool is_late = elapsed_ms(probe.send_time, now) > timeout_ms;
    return probe.status == PktData::sent && is_late ? ProbeOutcome::timed_out
                                                    : ProbeOutcome::nothing;
}

}  // namespace

ProbeOutcome collect_probe(const ProbeFamily& family, const std::string& interface,
                           const std::string& target, int timeout_ms, const timespec& now) {
    // A lock that fails costs its message; the step is carried out all the same, or the target
    // would keep its verdict for ever.
    const ResultsLock lock(family, "recv");
    const auto packet_id = family.results.find(interface, target);
    if (!packet_id) {
        return ProbeOutcome::nothing;
    }
    const ProbeOutcome outcome = judge(*family.results.find(*packet_id), timeout_ms, now);
    if (outcome != ProbeOutcome::nothing) {
        family.results.erase(*packet_id);
    }
    return outcome;
}

#include "probe/pending_probes.h"

namespace {

/// No interface name holds a slash, so two different pairs never give one key.
std::string path_key(const std::string& interface, const std::string& target) {
    return interface + '/' + target;
}

}  // namespace

std::optional<int> PendingProbes::find(const std::string& interface,
                                       const std::string& target) const {
    const auto found = by_path_.find(path_key(interface, target));
    return found == by_path_.end() ? std::nullopt : std::make_optional(found->second);
}

const PktData* PendingProbes::find(int packet_id) const {
    const auto found = by_id_.find(packet_id);
    return found == by_id_.end() ? nullptr : &found->second;
}

void PendingProbes::insert(int packet_id, const PktData& probe) {
    if (by_id_.try_emplace(packet_id, probe).second) {
        by_path_.insert_or_assign(path_key(probe.interface, probe.target), packet_id);
    }
}

void PendingProbes::erase(int packet_id) {
    const auto found = by_id_.find(packet_id);
    if (found == by_id_.end()) {
        return;
    }
    by_path_.erase(path_key(found->second.interface, found->second.target));
    by_id_.erase(found);
}

void PendingProbes::mark_answered(int packet_id) {
    const auto found = by_id_.find(packet_id);
    if (found != by_id_.end()) {
        found->second.status = PktData::answered;
    }
}

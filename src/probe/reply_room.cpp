#include "probe/reply_room.h"

#include <algorithm>
#include <utility>

#include "host/clock.h"
#include "host/log.h"

namespace {

constexpr std::int64_t between_reports_ms = 3'600'000;

}  // namespace

void ReplyRoom::make(const ProbeFamily& family, const std::string& ns_name, int probes) {
    if (probes_ == 0 && family.is_ipv6) {
        seen_damaged_ = host::damaged_messages6();
    }
    if (probes != probes_) {
        probes_ = probes;
        room_ = host::make_room(family.recv_sock.get(ns_name), probes);
    }
}

void ReplyRoom::report_drops(const ProbeFamily& family, const std::string& ns_name) {
    const std::uint32_t drops = host::dropped_packets(family.recv_sock.get(ns_name));
    if (drops == seen_drops_) {
        return;
    }
    // Damaged ones that the socket's filter kept from it are taken for its own: better a loss
    // untold than one told that was none.
    const std::uint32_t damaged = family.is_ipv6 ? host::damaged_messages6() : 0;
    const std::uint32_t fresh = drops - seen_drops_;
    unreported_ += fresh - std::min(fresh, damaged - seen_damaged_);
    seen_drops_ = drops;
    seen_damaged_ = damaged;
    const timespec now = monotonic_now();
    if (unreported_ == 0 || (last_report_ && elapsed_ms(*last_report_, now) < between_reports_ms)) {
        return;
    }
    const std::uint32_t unreported = std::exchange(unreported_, 0);
    last_report_ = now;
    if (room_.granted < room_.wanted) {
        LOG_WARNING(
            "wan_lb: %u %s replies dropped unread, for their room is %d of %d bytes; run: "
            "sysctl -w net.core.rmem_max=%d, then restart",
            unreported, family.word, room_.granted, room_.wanted, room_.wanted / 2);
    } else {
        LOG_WARNING(
            "wan_lb: %u %s replies dropped unread, more at once than %d bytes hold; who sends them "
            "shows: tcpdump -n %s",
            unreported, family.word, room_.granted, family.protocol_word);
    }
}

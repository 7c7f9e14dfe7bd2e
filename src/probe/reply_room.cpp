#include "probe/reply_room.h"

#include "host/clock.h"
#include "host/log.h"

namespace {

constexpr std::int64_t between_reports_ms = 3'600'000;

}  // namespace

void ReplyRoom::make(const ProbeFamily& family, const std::string& ns_name, int probes) {
    if (probes != probes_) {
        probes_ = probes;
        room_ = host::make_room(family.recv_sock.get(ns_name), probes);
    }
}

void ReplyRoom::report_drops(const ProbeFamily& family, const std::string& ns_name) {
    const std::uint32_t drops = host::dropped_packets(family.recv_sock.get(ns_name));
    if (drops == reported_drops_) {
        return;
    }
    const timespec now = monotonic_now();
    if (last_report_ && elapsed_ms(*last_report_, now) < between_reports_ms) {
        return;
    }
    const std::uint32_t unreported = drops - reported_drops_;
    reported_drops_ = drops;
    last_report_ = now;
    if (room_.granted < room_.wanted) {
        LOG_WARNING(
            "wan_lb: %u %s replies dropped unread, for their room is %d of %d bytes; run: "
            "sysctl -w net.core.rmem_max=%d, then restart",
            unreported, family.word, room_.granted, room_.wanted, room_.wanted / 2);
    } else {
        LOG_WARNING(
            "wan_lb: %u %s replies dropped unread, damaged or more at once than %d bytes "
            "hold; who sends them shows: tcpdump -n %s",
            unreported, family.word, room_.granted, family.protocol_word);
    }
}

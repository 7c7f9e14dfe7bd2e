#include "probe/outbox.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "base/address_text.h"
#include "host/log.h"

namespace {

/// Enough to spread the cost of a call; few enough that the first echo waits well below a
/// millisecond for the last.
constexpr std::size_t most_waiting = 64;

std::span<const std::uint8_t> content(const OutgoingEcho& echo) {
    return std::span(echo.frame).first(echo.frame_size);
}

std::string text_of(const host::TrackedEcho& record, const Ipv6Bytes& address) {
    if (record.is_ipv6) {
        return to_text(address).text;
    }
    Ipv4Bytes ipv4{};
    std::copy_n(address.begin(), ipv4.size(), ipv4.begin());
    return to_text(ipv4);
}

}  // namespace

OutgoingEcho outgoing_echo(const ProbeFamily& family, int socket, const host::Link& link,
                           std::span<const std::uint8_t> source,
                           std::span<const std::uint8_t> target,
                           std::span<const std::uint8_t> frame) {
    OutgoingEcho echo;
    echo.family = &family;
    echo.socket = socket;
    echo.link = link;
    echo.record.is_ipv6 = family.is_ipv6;
    std::copy(source.begin(), source.end(), echo.record.source.begin());
    std::copy(target.begin(), target.end(), echo.record.destination.begin());
    std::copy(frame.begin(), frame.end(), echo.frame.begin());
    echo.frame_size = frame.size();
    return echo;
}

Outbox::Collecting::~Collecting() {
    outbox_.send_waiting();
    outbox_.is_collecting_ = false;
}

host::Transfer Outbox::take(const OutgoingEcho& echo) {
    if (!is_collecting_) {
        return send(echo);
    }
    waiting_.push_back(echo);
    if (waiting_.size() == most_waiting) {
        send_waiting();
    }
    return {.count = static_cast<int>(echo.frame_size), .error = 0};
}

/// One alone: its record, unless that was entered, and the frame, whatever became of the record.
host::Transfer Outbox::send(const OutgoingEcho& echo) {
    if (!echo.record.is_entered) {
        tracking_.enter_echo(text_of(echo.record, echo.record.source),
                             text_of(echo.record, echo.record.destination), echo.record.is_ipv6,
                             host::echo_identifier());
    }
    return host::send_frame(echo.socket, echo.link.index, echo.link.mac, content(echo));
}

void Outbox::send_waiting() {
    if (waiting_.empty()) {
        return;
    }
    std::vector<host::TrackedEcho> records;
    records.reserve(waiting_.size());
    for (const OutgoingEcho& echo : waiting_) {
        records.push_back(echo.record);
    }
    tracking_.enter_echoes(records, host::echo_identifier());
    for (std::size_t i = 0; i < records.size(); ++i) {
        waiting_[i].record = records[i];
    }
    const bool is_all_entered = std::all_of(records.begin(), records.end(),
                                            [](const auto& record) { return record.is_entered; });
    if (is_all_entered) {
        send_together();
    } else {
        for (const OutgoingEcho& echo : waiting_) {
            report_failed_send(*echo.family, send(echo));
        }
    }
    waiting_.clear();
}

/// All through the socket of the first: a worker has one for its frames.
void Outbox::send_together() {
    std::vector<host::OutgoingFrame> frames;
    frames.reserve(waiting_.size());
    for (const OutgoingEcho& echo : waiting_) {
        frames.push_back(
            {.interface_index = echo.link.index, .own_mac = echo.link.mac, .frame = content(echo)});
    }
    std::span<const host::OutgoingFrame> left(frames);
    while (!left.empty()) {
        const host::Transfer sent = host::send_frames(waiting_.front().socket, left);
        left = left.subspan(static_cast<std::size_t>(sent.count));
        if (!left.empty()) {
            report_failed_send(*waiting_.front().family, {.count = -1, .error = sent.error});
            left = left.subspan(1);
        }
    }
}

void report_failed_send(const ProbeFamily& family, const host::Transfer& sent) {
    if (sent.count < 0 && sent.error != ENETUNREACH) {
        plain_syslog(7, "wan_lb: error on sending %s packet: %d", family.protocol_word, sent.error);
    }
}

// The daemon's sockets on the simulated network. Every reply there is one to an echo of the daemon,
// so no filter is needed for identifiers.

#include "host/packets.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>

#include "base/address_text.h"
#include "host/simulated/simulation.h"

namespace host {

namespace {

using Kind = Simulation::Socket::Kind;

OpenedSocket open(Kind kind, bool is_ipv6) {
    if (Simulation::current().fails(Simulation::Call::open_socket)) {
        return {.number = -1, .error = ENFILE};
    }
    const int number = Simulation::current().open({.kind = kind, .is_ipv6 = is_ipv6});
    return {.number = number, .error = 0};
}

/// Hands a packet to the network by `take`, which gives its error.
template <class Take>
Transfer send(Simulation::Call call, int number, std::span<const std::uint8_t> packet, Take take) {
    if (Simulation::current().fails(call)) {
        return {.count = -1, .error = ENOBUFS};
    }
    const Simulation::Socket* socket = Simulation::current().find(number);
    const int error = socket == nullptr ? EBADF : take(*socket);
    return {.count = error == 0 ? static_cast<int>(packet.size()) : -1, .error = error};
}

std::set<int>& rung_bells() {
    static std::set<int> rung;
    return rung;
}

}  // namespace

OpenedSocket open_frame_sender() {
    return open(Kind::frame_sender, false);
}
OpenedSocket open_echo_sender(bool is_ipv6) {
    return open(Kind::echo_sender, is_ipv6);
}
OpenedSocket open_reply_receiver(bool is_ipv6, std::uint32_t /*identifiers*/) {
    return open(Kind::reply_receiver, is_ipv6);
}
OpenedSocket open_arp_receiver() {
    return open(Kind::arp_receiver, false);
}
OpenedSocket open_advertisement_receiver() {
    return open(Kind::na_receiver, true);
}

void close_socket(int number) {
    Simulation::current().close(number);
}

Transfer send_frame(int frame_sender, int interface_index, const MacAddress& /*own_mac*/,
                    std::span<const std::uint8_t> frame) {
    return send(Simulation::Call::send_frame, frame_sender, frame,
                [&](const Simulation::Socket& socket) {
                    return Simulation::current().take_frame(socket, interface_index, frame);
                });
}

Transfer send_frames(int frame_sender, std::span<const OutgoingFrame> frames) {
    int sent = 0;
    for (const OutgoingFrame& one : frames) {
        const Transfer transfer =
            send_frame(frame_sender, one.interface_index, one.own_mac, one.frame);
        if (transfer.count < 0) {
            return {.count = sent, .error = transfer.error};
        }
        ++sent;
    }
    return {.count = sent, .error = 0};
}

Transfer send_echo(int echo_sender, const Ipv4Bytes& to, std::span<const std::uint8_t> message) {
    return send(Simulation::Call::send_echo, echo_sender, message,
                [&](const Simulation::Socket& socket) {
                    return Simulation::current().take_echo(socket, to_text(to), message);
                });
}

Transfer send_echo6(int echo_sender, const Ipv6Bytes& to, std::uint32_t /*scope*/,
                    std::span<const std::uint8_t> message) {
    return send(Simulation::Call::send_echo, echo_sender, message,
                [&](const Simulation::Socket& socket) {
                    return Simulation::current().take_echo(socket, to_text(to).text, message);
                });
}

int bind_to_interface(int number, const std::string& ifname) {
    Simulation::Socket* socket = Simulation::current().find(number);
    if (socket == nullptr) {
        return EBADF;
    }
    if (Simulation::current().fails(Simulation::Call::bind) ||
        Simulation::current().find_link(ifname) == nullptr) {
        return ENODEV;
    }
    socket->bound_to = ifname;
    return 0;
}

std::uint16_t echo_identifier() {
    return 1;
}

Transfer receive(int receiver, std::span<std::uint8_t> buffer) {
    Simulation::Socket* socket = Simulation::current().find(receiver);
    if (socket == nullptr) {
        return {.count = -1, .error = EBADF};
    }
    if (socket->waiting.empty()) {
        return {.count = -1, .error = EAGAIN};
    }
    const bool is_reply = socket->kind == Kind::reply_receiver;
    if (Simulation::current().fails(is_reply ? Simulation::Call::receive_reply
                                             : Simulation::Call::receive_answer)) {
        return {.count = -1, .error = ENOMEM};
    }
    const auto packet = std::move(socket->waiting.front());
    socket->waiting.pop_front();
    const std::size_t taken = std::min(packet.size(), buffer.size());
    std::copy_n(packet.begin(), taken, buffer.begin());
    return {.count = static_cast<int>(taken), .error = 0};
}

Transfer receive_many(int receiver, std::span<PacketFront> places) {
    int count = 0;
    for (PacketFront& place : places) {
        const Transfer taken = receive(receiver, place.bytes);
        if (taken.count < 0) {
            return count == 0 ? taken : Transfer{.count = count, .error = 0};
        }
        place.size = static_cast<std::size_t>(taken.count);
        ++count;
    }
    return {.count = count, .error = 0};
}

// A simulated receiver holds whatever comes.
ReceiverRoom make_room(int /*receiver*/, int packets) {
    return {.wanted = packets, .granted = packets};
}

int most_packets_in(const ReceiverRoom& /*room*/) {
    return std::numeric_limits<int>::max();
}

std::uint32_t dropped_packets(int /*receiver*/) {
    return 0;
}

std::uint32_t damaged_messages6() {
    return 0;
}

Bell::Bell() {
    static int last = 0;
    number_ = ++last;
}

Bell::~Bell() {
    silence();
}

void Bell::ring() {
    rung_bells().insert(number_);
}

void Bell::silence() {
    rung_bells().erase(number_);
}

// The wait is where a burst's virtual time passes: event by event, so that it ends at the very
// moment of the one it waits for.
Woken wait_for_packet(int receiver, const Bell& bell, std::int64_t patience_us) {
    Simulation& simulation = Simulation::current();
    const std::int64_t end_us = simulation.now_us() + patience_us;
    while (true) {
        if (rung_bells().contains(bell.number())) {
            return Woken::by_bell;
        }
        const Simulation::Socket* socket = simulation.find(receiver);
        if (socket == nullptr) {
            return Woken::failed;
        }
        if (!socket->waiting.empty()) {
            return Woken::by_packet;
        }
        if (simulation.now_us() >= end_us) {
            return Woken::by_time;
        }
        simulation.go_to(end_us);
    }
}

// Without threads a receiver's body runs at once: it notes its watch and returns.
DetachedStart start_receiver_thread(ThreadBody body, void* argument) {
    body(argument);
    return DetachedStart::started;
}

void watch_receiver(int receiver, const ReceiverWatch& watch) {
    Simulation::Socket* socket = Simulation::current().find(receiver);
    if (socket == nullptr) {
        watch.on_wait_failed();
        return;
    }
    socket->watch = watch;
    while (!socket->waiting.empty() && watch.on_readable()) {
    }
}

}  // namespace host

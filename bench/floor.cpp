// What a probe costs at the least on a machine: the echoes of all targets leave by as few calls as
// the kernel lets them, ready-made, and the replies are taken off by as few; no verdict, no record
// of the connection, no file. One round every two seconds, as the daemon asks a healthy target.
//
//     floor < TARGETS          a line each: interface, MAC of the next hop, source, target
//     floor COUNT < TARGETS    each second so many echoes to each, every one after the reply to the
//                              one before, as an extended ping asks

#include <poll.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "base/address_text.h"
#include "host/links.h"
#include "host/packets.h"
#include "wire/frame_builder.h"

namespace {

constexpr std::uint32_t identifiers = 32767;

/// All that a round needs, made once.
struct Ready {
    std::vector<EchoFrame4> frames;
    std::vector<host::OutgoingFrame> outgoing;
};

MacAddress read_mac(const std::string& text) {
    MacAddress mac{};
    std::array<unsigned, 6> parts{};
    sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &parts[0], &parts[1], &parts[2], &parts[3], &parts[4],
           &parts[5]);
    std::transform(parts.begin(), parts.end(), mac.begin(),
                   [](unsigned part) { return static_cast<std::uint8_t>(part); });
    return mac;
}

Ready read_targets() {
    Ready ready;
    std::vector<host::Link> links;
    std::string ifname;
    std::string mac;
    std::string source;
    std::string target;
    while (std::cin >> ifname >> mac >> source >> target) {
        links.push_back(host::ask_link(ifname));
        ready.frames.push_back(
            echo_frame4(read_mac(mac), links.back().mac, parse_ipv4(source).value(),
                        parse_ipv4(target).value(), host::echo_identifier(),
                        static_cast<std::uint32_t>(ready.frames.size() % identifiers)));
    }
    for (std::size_t i = 0; i < links.size(); ++i) {
        ready.outgoing.push_back({.interface_index = links[i].index,
                                  .own_mac = links[i].mac,
                                  .frame = bytes_of(ready.frames[i])});
    }
    return ready;
}

/// All at once, every two seconds.
void ask_together(int sender, int receiver, const Ready& ready) {
    std::array<host::PacketFront, 64> replies;
    while (true) {
        host::send_frames(sender, ready.outgoing);
        std::this_thread::sleep_for(std::chrono::seconds(2));
        while (host::receive_many(receiver, replies).count == static_cast<int>(replies.size())) {
        }
    }
}

/// One after the other's reply, every second.
void ask_in_turn(int sender, int receiver, const Ready& ready, int count) {
    constexpr int patience_ms = 1000;
    std::array<std::uint8_t, 64> reply;
    pollfd wait{.fd = receiver, .events = POLLIN, .revents = 0};
    while (true) {
        for (const host::OutgoingFrame& frame : ready.outgoing) {
            for (int i = 0; i < count; ++i) {
                host::send_frames(sender, std::span(&frame, 1));
                poll(&wait, 1, patience_ms);
                host::receive(receiver, reply);
            }
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    const Ready ready = read_targets();
    const host::OpenedSocket sender = host::open_frame_sender();
    const host::OpenedSocket receiver = host::open_reply_receiver(false, identifiers);
    if (!sender.is_open() || !receiver.is_open() || ready.outgoing.empty()) {
        fprintf(stderr, "floor: needs targets and the right to open raw sockets\n");
        return 1;
    }
    host::make_room(receiver.number, static_cast<int>(ready.outgoing.size()));
    if (argc == 2) {
        ask_in_turn(sender.number, receiver.number, ready, atoi(argv[1]));
    } else {
        ask_together(sender.number, receiver.number, ready);
    }
}

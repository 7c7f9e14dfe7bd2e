#include "host/packets.h"

#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/fd.h"
#include "host/clock.h"
#include "host/linux/filters.h"
#include "host/linux/frame_receiver.h"

namespace {

/// 0, or the error.
int attach_filter(const Fd& to, std::span<const sock_filter> filter) {
    const sock_fprog program{static_cast<unsigned short>(filter.size()),
                             const_cast<sock_filter*>(filter.data())};
    return setsockopt(to.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0
               ? 0
               : errno;
}

/// Without a protocol the kernel hands a packet socket (packet(7)) no frame.
OpenedFd open_packet_socket() {
    return just_opened(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
}

}  // namespace

// Binding to the protocol comes after the filter.
OpenedFd open_frame_receiver(std::uint16_t protocol, std::span<const sock_filter> filter) {
    OpenedFd receiver = open_packet_socket();
    if (!receiver.is_open()) {
        return receiver;
    }
    if (const int error = attach_filter(receiver.fd, filter); error != 0) {
        return {.fd = Fd(), .error = error};
    }
    sockaddr_ll any_interface{};
    any_interface.sll_family = AF_PACKET;
    any_interface.sll_protocol = htons(protocol);
    if (bind(receiver.fd.get(), reinterpret_cast<const sockaddr*>(&any_interface),
             sizeof any_interface) != 0) {
        return {.fd = Fd(), .error = errno};
    }
    return receiver;
}

namespace host {

namespace {

/// Hands a socket over to the daemon's tables.
OpenedSocket hand_over(OpenedFd opened) {
    return {.number = opened.fd.release(), .error = opened.error};
}

/// How long a sender waits for room: far longer than a link that sends needs for what it has.
constexpr timeval longest_wait{.tv_sec = 0, .tv_usec = 100'000};

OpenedFd as_sender(OpenedFd opened) {
    const int on = 1;
    if (opened.is_open()) {
        setsockopt(opened.fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        setsockopt(opened.fd.get(), SOL_SOCKET, SO_SNDTIMEO, &longest_wait, sizeof longest_wait);
    }
    return opened;
}

/// A raw socket (raw(7)) receives from its first moment on, so what slipped in before the filter
/// is thrown away.
OpenedFd open_raw_socket(bool is_ipv6, std::span<const sock_filter> filter) {
    OpenedFd raw = just_opened(socket(is_ipv6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_CLOEXEC,
                                      is_ipv6 ? int{protocol_icmp6} : int{protocol_icmp}));
    if (!raw.is_open()) {
        return raw;
    }
    if (const int error = attach_filter(raw.fd, filter); error != 0) {
        return {.fd = Fd(), .error = error};
    }
    std::array<char, 1> byte;
    while (recv(raw.fd.get(), byte.data(), byte.size(), MSG_DONTWAIT | MSG_TRUNC) >= 0) {
    }
    return raw;
}

/// A sender as that one is, in the same namespace and bound to the same interface.
OpenedFd open_sender_like(int number) {
    int domain = 0;
    socklen_t size = sizeof domain;
    getsockopt(number, SOL_SOCKET, SO_DOMAIN, &domain, &size);
    if (domain == AF_PACKET) {
        return as_sender(open_packet_socket());
    }
    OpenedFd fresh = as_sender(open_raw_socket(domain == AF_INET6, filters::pass_nothing));
    std::array<char, IFNAMSIZ> ifname{};
    size = ifname.size();
    if (fresh.is_open() &&
        getsockopt(number, SOL_SOCKET, SO_BINDTODEVICE, ifname.data(), &size) == 0 && size > 0) {
        setsockopt(fresh.fd.get(), SOL_SOCKET, SO_BINDTODEVICE, ifname.data(), size);
    }
    return fresh;
}

/// What a link has not sent yet counts as its sender's, which all links share: one link that stands
/// still would in time keep the others' packets back. A sender that is full is left to the kernel,
/// which drops it with the last of its packets, and a fresh one gets its number. 0, or the error.
int replace_full_sender(int number) {
    const OpenedFd fresh = open_sender_like(number);
    if (!fresh.is_open()) {
        return fresh.error;
    }
    return dup3(fresh.fd.get(), number, O_CLOEXEC) >= 0 ? 0 : errno;
}

template <class Address>
Transfer send_to(int number, const Address& destination, std::span<const std::uint8_t> message) {
    const auto send_once = [&] {
        return sendto(number, message.data(), message.size(), 0,
                      reinterpret_cast<const sockaddr*>(&destination), sizeof destination);
    };
    auto sent = send_once();
    if (sent < 0 && errno == EAGAIN && replace_full_sender(number) == 0) {
        sent = send_once();
    }
    return {.count = static_cast<int>(sent), .error = sent < 0 ? errno : 0};
}

}  // namespace

OpenedSocket open_frame_sender() {
    return hand_over(as_sender(open_packet_socket()));
}

OpenedSocket open_echo_sender(bool is_ipv6) {
    return hand_over(as_sender(open_raw_socket(is_ipv6, filters::pass_nothing)));
}

OpenedSocket open_reply_receiver(bool is_ipv6, std::uint32_t identifiers) {
    return hand_over(open_raw_socket(is_ipv6, filters::pass_identifiers(is_ipv6, identifiers)));
}

OpenedSocket open_arp_receiver() {
    return hand_over(open_frame_receiver(ETH_P_ARP, filters::pass_arp_replies));
}

// Bound to IPv6 rather than to all protocols: a tap on all protocols would run its filter for every
// packet that enters or leaves the router. What it does not see that way is what the router itself
// sends, and its own advertisements tell of no next hop.
OpenedSocket open_advertisement_receiver() {
    return hand_over(open_frame_receiver(ETH_P_IPV6, filters::pass_advertisements));
}

void close_socket(int number) {
    close(number);
}

namespace {

sockaddr_ll link_address(int interface_index, const MacAddress& own_mac) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = interface_index;
    address.sll_halen = static_cast<unsigned char>(own_mac.size());
    std::copy(own_mac.begin(), own_mac.end(), address.sll_addr);
    return address;
}

}  // namespace

Transfer send_frame(int frame_sender, int interface_index, const MacAddress& own_mac,
                    std::span<const std::uint8_t> frame) {
    return send_to(frame_sender, link_address(interface_index, own_mac), frame);
}

Transfer send_frames(int frame_sender, std::span<const OutgoingFrame> frames) {
    std::vector<sockaddr_ll> addresses;
    std::vector<iovec> contents;
    std::vector<mmsghdr> messages(frames.size());
    addresses.reserve(frames.size());
    contents.reserve(frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        addresses.push_back(link_address(frames[i].interface_index, frames[i].own_mac));
        contents.push_back(
            {const_cast<std::uint8_t*>(frames[i].frame.data()), frames[i].frame.size()});
        msghdr& message = messages[i].msg_hdr;
        message.msg_name = &addresses[i];
        message.msg_namelen = sizeof addresses[i];
        message.msg_iov = &contents[i];
        message.msg_iovlen = 1;
    }
    // The kernel tells an error only of the first message that it is given.
    std::size_t sent = 0;
    bool is_replaced = false;
    while (sent < messages.size()) {
        const int more = sendmmsg(frame_sender, &messages[sent],
                                  static_cast<unsigned>(messages.size() - sent), 0);
        if (more > 0) {
            sent += static_cast<std::size_t>(more);
            continue;
        }
        const int error = errno;
        if (error != EAGAIN || is_replaced || replace_full_sender(frame_sender) != 0) {
            return {.count = static_cast<int>(sent), .error = error};
        }
        is_replaced = true;
    }
    return {.count = static_cast<int>(sent), .error = 0};
}

Transfer send_echo(int echo_sender, const Ipv4Bytes& to, std::span<const std::uint8_t> message) {
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_addr = std::bit_cast<in_addr>(to);
    return send_to(echo_sender, destination, message);
}

Transfer send_echo6(int echo_sender, const Ipv6Bytes& to, std::uint32_t scope,
                    std::span<const std::uint8_t> message) {
    sockaddr_in6 destination{};
    destination.sin6_family = AF_INET6;
    destination.sin6_addr = std::bit_cast<in6_addr>(to);
    destination.sin6_scope_id = scope;
    return send_to(echo_sender, destination, message);
}

int bind_to_interface(int number, const std::string& ifname) {
    const auto length = static_cast<socklen_t>(ifname.size());
    return setsockopt(number, SOL_SOCKET, SO_BINDTODEVICE, ifname.c_str(), length) == 0 ? 0 : errno;
}

std::uint16_t echo_identifier() {
    // Asked once: the daemon forks before its first probe only.
    static const auto identifier = static_cast<std::uint16_t>(getpid());
    return identifier;
}

Transfer receive(int receiver, std::span<std::uint8_t> buffer) {
    const auto length = recv(receiver, buffer.data(), buffer.size(), MSG_DONTWAIT);
    return {.count = static_cast<int>(length), .error = length < 0 ? errno : 0};
}

Transfer receive_many(int receiver, std::span<PacketFront> places) {
    constexpr std::size_t most_at_once = 64;
    std::array<mmsghdr, most_at_once> messages{};
    std::array<iovec, most_at_once> fronts;
    const std::size_t count = std::min(places.size(), most_at_once);
    for (std::size_t i = 0; i < count; ++i) {
        fronts[i] = {places[i].bytes.data(), places[i].bytes.size()};
        messages[i].msg_hdr.msg_iov = &fronts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int taken =
        recvmmsg(receiver, messages.data(), static_cast<unsigned>(count), MSG_DONTWAIT, nullptr);
    for (std::size_t i = 0; std::cmp_less(i, taken); ++i) {
        places[i].size = messages[i].msg_len;
    }
    return {.count = taken, .error = taken < 0 ? errno : 0};
}

// The kernel counts the buffer that a packet lies in (socket(7), SO_RCVBUF): a page for those of
// some network drivers, and never less than the two structures that describe one.
namespace {

constexpr int largest_packet = 4096;
constexpr int smallest_packet = 512;
constexpr int least_room = 16 << 20;  // what comes unasked must not take the place of replies
constexpr int most_room = 256 << 20;

}  // namespace

ReceiverRoom make_room(int receiver, int packets) {
    const std::int64_t asked = std::int64_t{packets} * largest_packet;
    const auto wanted = static_cast<int>(std::clamp<std::int64_t>(asked, least_room, most_room));
    const int half = wanted / 2;  // the kernel doubles what it is given
    if (setsockopt(receiver, SOL_SOCKET, SO_RCVBUFFORCE, &half, sizeof half) != 0) {
        setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &half, sizeof half);
    }
    ReceiverRoom room{.wanted = wanted, .granted = 0};
    socklen_t size = sizeof room.granted;
    getsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &room.granted, &size);
    return room;
}

int most_packets_in(const ReceiverRoom& room) {
    return room.granted / smallest_packet;
}

std::uint32_t dropped_packets(int receiver) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> counts{};
    socklen_t size = sizeof counts;
    getsockopt(receiver, SOL_SOCKET, SO_MEMINFO, counts.data(), &size);
    return counts[SK_MEMINFO_DROPS];
}

// RFC 4293's counters, a name and a number a line.
std::uint32_t damaged_messages6() {
    std::ifstream counters("/proc/thread-self/net/snmp6");
    std::string name;
    for (std::uint64_t count = 0; counters >> name >> count;) {
        if (name == "Icmp6InCsumErrors") {
            return static_cast<std::uint32_t>(count);
        }
    }
    return 0;
}

Bell::Bell() : number_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Bell::~Bell() {
    if (number_ >= 0) {
        close(number_);
    }
}

void Bell::ring() {
    eventfd_write(number_, 1);
}

void Bell::silence() {
    eventfd_t forgotten = 0;
    eventfd_read(number_, &forgotten);
}

Woken wait_for_packet(int receiver, const Bell& bell, std::int64_t patience_us) {
    std::array<pollfd, 2> waited{
        pollfd{.fd = bell.number(), .events = POLLIN, .revents = 0},
        pollfd{.fd = receiver, .events = POLLIN, .revents = 0},
    };
    const timespec patience{.tv_sec = patience_us / 1'000'000,
                            .tv_nsec = static_cast<long>(patience_us % 1'000'000 * 1000)};
    const int ready = ppoll(waited.data(), waited.size(), &patience, nullptr);
    if (ready < 0) {
        return errno == EINTR ? Woken::interrupted : Woken::failed;
    }
    if ((waited[0].revents & POLLIN) != 0) {
        return Woken::by_bell;
    }
    return ready > 0 ? Woken::by_packet : Woken::by_time;
}

DetachedStart start_receiver_thread(ThreadBody body, void* argument) {
    return start_detached(body, argument);
}

namespace {

constexpr std::int64_t rest_ms = 1000;
constexpr unsigned long rest_slack_ns = 1'000'000'000;
constexpr std::int64_t longest_rest_ms = 2000;
constexpr std::int64_t rest_ms_in_a_flood = 50;
/// Whoever else reads, no packet is left for longer.
constexpr std::int64_t leave_at_most_ms = 10'000;

/// A second, or up to two where the processor's next waking for something else is as near, which
/// halves what the look costs.
void rest_in_calm() {
    prctl(PR_SET_TIMERSLACK, rest_slack_ns);
    sleep_ms(rest_ms);
    prctl(PR_SET_TIMERSLACK, 0UL);  // the thread's own again
}

/// Whether the receiver's room might be gone before its other reader comes. Never a rest where the
/// room is smaller than asked for, or the kernel does not tell (before Linux 4.12).
bool is_flooded(int receiver, std::int64_t since_call_ms) {
    std::array<std::uint32_t, SK_MEMINFO_VARS> memory{};
    socklen_t size = sizeof memory;
    if (getsockopt(receiver, SOL_SOCKET, SO_MEMINFO, memory.data(), &size) != 0 ||
        memory[SK_MEMINFO_RCVBUF] < static_cast<std::uint32_t>(least_room)) {
        return true;
    }
    // Right behind a call what waits tells the rate: one that takes half of the room in the longest
    // rest. Later the other reader may have just been there.
    constexpr std::uint32_t half_in_a_rest = 2 * longest_rest_ms / rest_ms_in_a_flood;
    const std::uint32_t share = since_call_ms < rest_ms ? half_in_a_rest : 4;
    return memory[SK_MEMINFO_RMEM_ALLOC] >= memory[SK_MEMINFO_RCVBUF] / share;
}

}  // namespace

void watch_receiver(int receiver, const ReceiverWatch& watch) {
    pollfd readable{.fd = receiver, .events = POLLIN, .revents = 0};
    std::optional<timespec> last_call;
    while (true) {
        if (poll(&readable, 1, -1) <= 0 || (readable.revents & POLLNVAL) != 0) {
            watch.on_wait_failed();
            return;
        }
        if (watch.is_left_to_others && readable.revents == POLLIN && last_call) {
            const std::int64_t since_call_ms = elapsed_ms(*last_call, monotonic_now());
            if (since_call_ms < leave_at_most_ms && watch.is_left_to_others() &&
                !is_flooded(receiver, since_call_ms)) {
                rest_in_calm();
                continue;
            }
        }
        if (!watch.on_readable()) {
            return;
        }
        if (watch.is_left_to_others) {
            last_call = monotonic_now();
            sleep_ms(rest_ms_in_a_flood);
        }
    }
}

}  // namespace host

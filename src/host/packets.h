#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "base/thread.h"
#include "wire/bytes.h"

/// Sending and receiving packets in the network namespace of the calling thread, to which a socket
/// belongs from its opening on. Sockets are numbers above 0; tables of the daemon keep them, with 0
/// for one that could not be had. Errors are as in errno(3). Nothing here logs.
namespace host {

struct OpenedSocket {
    int number = -1;  ///< negative: none
    int error = 0;

    bool is_open() const { return number >= 0; }
};

/// Sends whole frames; nothing ever waits in it unread. Sending waits for a link's queue a moment
/// only: one that stands still holds up neither the caller nor the packets of other links.
OpenedSocket open_frame_sender();
/// Sends ICMP or ICMPv6 messages, for which the host makes the IP header, likewise; takes nothing
/// in.
OpenedSocket open_echo_sender(bool is_ipv6);
/// Receives ICMP datagrams from their IP header on, or ICMPv6 messages, whose word at the place of
/// a packet identifier is below `identifiers`, whatever their type.
OpenedSocket open_reply_receiver(bool is_ipv6, std::uint32_t identifiers);
/// Receives ARP replies of every interface.
OpenedSocket open_arp_receiver();
/// Receives neighbour advertisements that stand directly behind their IPv6 header and have room for
/// a link-layer address, of every interface; they are cut there.
OpenedSocket open_advertisement_receiver();
void close_socket(int number);

/// How many bytes went, or a negative number and the error.
struct Transfer {
    int count = -1;
    int error = 0;
};
/// Sends a frame through the interface of that index, whose own MAC address is `own_mac`.
Transfer send_frame(int frame_sender, int interface_index, const MacAddress& own_mac,
                    std::span<const std::uint8_t> frame);

/// One of several frames that leave in their order.
struct OutgoingFrame {
    int interface_index = 0;
    MacAddress own_mac{};
    std::span<const std::uint8_t> frame;
};
/// Sends frames until one fails. How many went, from the first on; where these are not all, the
/// error of the one behind them.
Transfer send_frames(int frame_sender, std::span<const OutgoingFrame> frames);

Transfer send_echo(int echo_sender, const Ipv4Bytes& to, std::span<const std::uint8_t> message);
Transfer send_echo6(int echo_sender, const Ipv6Bytes& to, std::uint32_t scope,
                    std::span<const std::uint8_t> message);
/// From now on the socket sends through this interface only. 0, or the error.
int bind_to_interface(int number, const std::string& ifname);
/// The identifier of this process's echo requests.
std::uint16_t echo_identifier();

/// Takes one packet off a receiver; what the buffer does not hold is cut. Never waits: EAGAIN where
/// nothing is in.
Transfer receive(int receiver, std::span<std::uint8_t> buffer);

/// The front of a packet: all that tells whose it is.
struct PacketFront {
    std::array<std::uint8_t, 64> bytes;
    std::size_t size = 0;  ///< of the packet, as far as the bytes hold it

    std::span<const std::uint8_t> content() const { return std::span(bytes).first(size); }
};
/// Takes as many packets as are in, up to the number of places, and fills these from the first on.
/// The count is that of packets. Never waits: EAGAIN where nothing is in.
Transfer receive_many(int receiver, std::span<PacketFront> places);

/// How much a receiver holds unread, in the host's own count of bytes: far more than the packets'.
struct ReceiverRoom {
    int wanted = 0;
    int granted = 0;  ///< less than wanted where the host's limit stands before it
};
/// Makes room for so many packets at least, whatever driver they come from.
ReceiverRoom make_room(int receiver, int packets);
/// The most packets that fit in so much room: those that are all header.
int most_packets_in(const ReceiverRoom& room);
/// How many packets the host dropped since the receiver was opened because it was full, or damaged
/// ones of ICMPv6; wraps round. 0 where the host cannot tell.
std::uint32_t dropped_packets(int receiver);
/// How many ICMPv6 messages with a wrong checksum came to the calling thread's namespace, as every
/// ICMPv6 receiver there counts them among its dropped packets; wraps round.
std::uint32_t damaged_messages6();

/// Wakes a thread that waits in `wait_for_packet`. One thread waits, any may ring.
class Bell {
  public:
    Bell();
    ~Bell();
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    void ring();
    /// Forgets that it was rung.
    void silence();
    /// The host's own name for it.
    int number() const { return number_; }

  private:
    int number_;
};

/// Waits until a packet is in, the bell rings or the time is up; the bell counts first.
enum class Woken { by_bell, by_packet, by_time, interrupted, failed };
Woken wait_for_packet(int receiver, const Bell& bell, std::int64_t patience_us);

/// Runs the body of a receiver beside the caller, for ever. Only after `not_created` does
/// `argument` stay the caller's.
DetachedStart start_receiver_thread(ThreadBody body, void* argument);

/// How `watch_receiver` handles its socket.
struct ReceiverWatch {
    /// Something is in. False ends the watch.
    std::function<bool()> on_readable;
    /// The wait itself failed, which ends the watch too.
    std::function<void()> on_wait_failed;
    /// For receivers that another reads about once a second: while it gives true, a host with
    /// threads leaves the packets to that one for up to ten seconds, unless they come as a flood
    /// that the receiver's room might not hold. The first packet has the call at once.
    std::function<bool()> is_left_to_others = nullptr;
};
/// The work of a receiver's body: calls `on_readable` each time that packets are in. A host without
/// threads notes the watch, returns at once and calls it as packets come.
void watch_receiver(int receiver, const ReceiverWatch& watch);

}  // namespace host

#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

/// The reply socket of a namespace has two readers: the receiver thread, and the extended ping that
/// waits for the answer to an echo. Whoever reads a datagram that the other waits for passes it on
/// at once: the ping through `take_reply`, the receiver thread through the mailbox here.

/// What a waiting extended ping accepts: the source, the packet identifier and the sequence number;
/// the ICMP type is not looked at.
struct ExpectedEcho {
    in_addr source{};
    std::uint32_t packet_id = 0;
    std::uint16_t sequence = 0;

    /// True when a datagram, from its IP header on, is the awaited answer. The IP header is taken
    /// to be 20 bytes long.
    bool matches(std::span<const std::uint8_t> datagram) const;
};

/// The mailbox of one namespace for the length of one extended ping run. The worker's own; `wake`
/// is readable from the moment the awaited answer is in.
class ReplyMailbox {
  public:
    explicit ReplyMailbox(const std::string& ns_name);
    ~ReplyMailbox();
    ReplyMailbox(const ReplyMailbox&) = delete;
    ReplyMailbox& operator=(const ReplyMailbox&) = delete;

    /// From now on this echo is awaited; forgets what came for the one before.
    void expect(const ExpectedEcho& echo);
    /// An eventfd(2), or -1 where none could be had.
    int wake() const;

  private:
    std::string ns_name_;
};

/// Called by the receiver thread with every datagram it reads: wakes the namespace's waiting
/// extended ping if it is the answer.
void hand_to_waiting_ping(const std::string& ns_name, std::span<const std::uint8_t> datagram);

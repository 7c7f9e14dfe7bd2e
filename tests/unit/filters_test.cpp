// The socket filters, run by the kernel on a pair of sockets.

#include "host/linux/filters.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <vector>

#include "base/fd.h"
#include "unit/support/echo_replies.h"

namespace {

/// The sizes of what is left of frames after a filter; those that it drops have none.
std::vector<std::size_t> filtered(std::span<const sock_filter> filter,
                                  const std::vector<Bytes>& frames) {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()), 0);
    const Fd sender(ends[0]);
    const Fd receiver(ends[1]);
    const sock_fprog program{static_cast<unsigned short>(filter.size()),
                             const_cast<sock_filter*>(filter.data())};
    EXPECT_EQ(setsockopt(ends[1], SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), 0);
    for (const Bytes& frame : frames) {
        send(ends[0], frame.data(), frame.size(), 0);
    }
    std::vector<std::size_t> sizes;
    Bytes taken(2000);
    for (ssize_t size = 0; (size = recv(ends[1], taken.data(), taken.size(), 0)) >= 0;) {
        sizes.push_back(static_cast<std::size_t>(size));
    }
    return sizes;
}

TEST(AdvertisementFilter, wakes_for_whole_advertisements_only) {
    Bytes longer = advertisement();
    longer.resize(1500);
    Bytes shorter = advertisement();
    shorter.pop_back();
    Bytes solicitation = advertisement();
    solicitation[54] = 135;
    Bytes ipv4 = advertisement();
    ipv4[12] = 0x08;
    Bytes udp_from_port_34816 = advertisement();
    udp_from_port_34816[20] = 17;
    EXPECT_EQ(filtered(filters::pass_advertisements,
                       {shorter, solicitation, ipv4, udp_from_port_34816, Bytes(14)}),
              std::vector<std::size_t>{});
    EXPECT_EQ(filtered(filters::pass_advertisements, {advertisement(), longer}),
              (std::vector<std::size_t>{86, 86}));
}

TEST(ArpFilter, wakes_for_replies_only) {
    Bytes reply(42);
    reply[21] = 2;
    Bytes request(42);
    request[21] = 1;
    EXPECT_EQ(filtered(filters::pass_arp_replies, {request, Bytes(21)}),
              std::vector<std::size_t>{});
    EXPECT_EQ(filtered(filters::pass_arp_replies, {reply}), std::vector<std::size_t>{42});
}

/// A datagram with this word at the place of a packet identifier.
Bytes with_identifier(std::size_t place, std::uint16_t identifier) {
    Bytes datagram(place + 4);
    datagram[place + 2] = static_cast<std::uint8_t>(identifier >> 8U);
    datagram[place + 3] = static_cast<std::uint8_t>(identifier);
    return datagram;
}

TEST(IdentifierFilter, wakes_for_words_below_the_bound_only) {
    for (const auto& [is_ipv6, place] : {std::pair{false, 28}, std::pair{true, 8}}) {
        const auto filter = filters::pass_identifiers(is_ipv6, 32767);
        const auto at = static_cast<std::size_t>(place);
        EXPECT_EQ(filtered(filter, {with_identifier(at, 0), with_identifier(at, 32766)}).size(),
                  2U);
        EXPECT_EQ(filtered(filter, {with_identifier(at, 32767), Bytes(at + 3)}),
                  std::vector<std::size_t>{});
    }
}

}  // namespace

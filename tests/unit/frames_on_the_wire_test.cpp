// Probes from their call to the frame that leaves: what the kernel is asked on the way, and what
// the frame then carries.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/lb_test_ping.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/given_kernel.h"
#include "unit/support/hex.h"
#include "unit/support/loaded.h"

namespace {

constexpr std::uint16_t new_conntrack_record = 0x0100;

/// eth0 with 192.0.2.10, whose next hop 192.0.2.1 the kernel knows, and 2001:db8::1 for IPv6.
struct OnTheWire : testing::Test {
    OnTheWire() {
        kernel.on_ioctl = [this](unsigned long request, void* argument) {
            return answer(request, argument);
        };
        kernel.on_request = [this](const Bytes& request) {
            const NetlinkRequest asked = messages_of(request, 4).at(0);
            if (asked.type == new_conntrack_record) {
                record = asked.attributes;
                kernel.answers.push_back(netlink_answer(asked.sequence, 0));
            } else {
                kernel.answers.push_back(neighbour());
                kernel.answers.push_back(netlink_message(NLMSG_DONE, 0, Bytes(4)));
            }
        };
        ctx.ctx.arp = &arp;
        ctx6.ctx.neighbor = &neighbor;
        ctx6.ctx.view = &neighbor.view;
        address.sin_family = AF_INET;
        inet_pton(AF_INET, "192.0.2.10", &address.sin_addr);
        listed.ifa_name = ifname.data();
        listed.ifa_addr = reinterpret_cast<sockaddr*>(&address);
    }

    int answer(unsigned long request, void* argument) {
        auto& interface = *static_cast<ifreq*>(argument);
        if (request == SIOCGARP) {
            auto& entry = *static_cast<arpreq*>(argument);
            sockaddr_in next_hop{};
            std::memcpy(&next_hop, &entry.arp_pa, sizeof next_hop);
            if (ntohl(next_hop.sin_addr.s_addr) != 0xc0000201U || ifname != entry.arp_dev) {
                return ENXIO;
            }
            entry.arp_flags = ATF_COM;
            std::copy(next_hop_mac.begin(), next_hop_mac.end(), entry.arp_ha.sa_data);
            return 0;
        }
        if (ifname != interface.ifr_name) {
            return ENODEV;
        }
        if (request == SIOCGIFHWADDR) {
            std::copy(own_mac.begin(), own_mac.end(), interface.ifr_hwaddr.sa_data);
        } else if (request == SIOCGIFINDEX) {
            interface.ifr_ifindex = 7;
        } else if (request == SIOCGIFADDR) {
            std::memcpy(&interface.ifr_addr, &address, sizeof address);
            return address_error;
        }
        return 0;
    }

    /// 2001:db8::1 in the table of neighbours.
    Bytes neighbour() const {
        Bytes body(sizeof(ndmsg));
        const auto append = [&body](std::uint16_t type, const auto& value) {
            const std::uint16_t head[2] = {static_cast<std::uint16_t>(4 + value.size()), type};
            const auto* first = reinterpret_cast<const std::uint8_t*>(head);
            body.insert(body.end(), first, first + sizeof head);
            body.insert(body.end(), value.begin(), value.end());
        };
        append(NDA_DST, Bytes{0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
        append(NDA_LLADDR, next_hop_mac);
        return netlink_message(RTM_NEWNEIGH, 0, body);
    }

    Bytes sent() const {
        Bytes frame(128);
        const ssize_t length = recv(wire.far.get(), frame.data(), frame.size(), MSG_DONTWAIT);
        frame.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
        return frame;
    }
    static std::string hex_of(const Bytes& frame, std::size_t from, std::size_t size) {
        return frame.size() < from + size
                   ? "too short"
                   : to_hex(Bytes(frame.begin() + static_cast<long>(from),
                                  frame.begin() + static_cast<long>(from + size)));
    }
    /// An IPv4 echo from the interface to 198.51.100.1 by the next hop, with that packet
    /// identifier.
    void expect_echo4(const Bytes& frame) const {
        EXPECT_EQ(frame.size(), 46U);
        EXPECT_EQ(hex_of(frame, 0, 14),
                  "020000000001"
                  "02000000000a"
                  "0800");
        EXPECT_EQ(hex_of(frame, 26, 8),
                  "c000020a"
                  "c6336401");
        EXPECT_EQ(hex_of(frame, 34, 2), "0800");
        EXPECT_EQ(hex_of(frame, 42, 4), "00001234");
        EXPECT_EQ(record.at("1.1.1"), "c000020a");
        EXPECT_EQ(record.at("1.1.2"), "c6336401");
    }

    std::string ifname = "eth0";
    const MacAddress own_mac{2, 0, 0, 0, 0, 10};
    const MacAddress next_hop_mac{2, 0, 0, 0, 0, 1};
    int address_error = 0;
    sockaddr_in address{};
    ifaddrs listed{};
    faults::GivenAddresses addresses{&listed};
    std::map<std::string, std::string> record{{"1.1.1", "none"}, {"1.1.2", "none"}};
    DatagramPair wire;
    GivenKernel kernel;
    CapturedLog log;
    TestContext ctx{false, "frame test"};
    TestContext ctx6{true, "frame test"};
    LBArp arp;
    LBNeighbor neighbor;
    LBTestICMP probe;
};

TEST_F(OnTheWire, echo_leaves_to_the_next_hops_mac_and_the_targets_address) {
    EXPECT_EQ(probe.send_for_interfaces(wire.near.get(), "eth0", "198.51.100.1", "192.0.2.10",
                                        "192.0.2.1", 0x1234, ctx),
              46);
    expect_echo4(sent());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(OnTheWire, without_a_configured_source_it_has_the_interfaces_address) {
    EXPECT_EQ(probe.send_for_interfaces(wire.near.get(), "eth0", "198.51.100.1", "", "192.0.2.1",
                                        0x1234, ctx),
              46);
    expect_echo4(sent());
}

TEST_F(OnTheWire, without_any_source_nothing_leaves) {
    address_error = EADDRNOTAVAIL;
    EXPECT_EQ(probe.send_for_interfaces(wire.near.get(), "eth0", "198.51.100.1", "", "192.0.2.1",
                                        0x1234, ctx),
              -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(sent(), Bytes{});
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(OnTheWire, source_that_no_interface_has_is_told) {
    EXPECT_EQ(probe.send_for_interfaces(wire.near.get(), "eth0", "198.51.100.1", "192.0.2.77",
                                        "192.0.2.1", 0x1234, ctx),
              -1);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(sent(), Bytes{});
    EXPECT_EQ(log.lines(), errors({"address '192.0.2.77' not present on any interface"}));
}

TEST_F(OnTheWire, target_that_is_no_address_is_told) {
    EXPECT_EQ(probe.send_for_interfaces(wire.near.get(), "eth0", "example.invalid", "192.0.2.10",
                                        "192.0.2.1", 0x1234, ctx),
              -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(sent(), Bytes{});
    EXPECT_EQ(log.lines(), errors({"inet_pton() failed.\nError message: Invalid argument"}));
}

TEST_F(OnTheWire, extended_ping_sends_the_same_frame) {
    const DatagramPair replies;
    LBTest::_recv_icmp_sock.set("frame test", replies.near.get());
    LBTestPING ping;
    ping.ns_name = "frame test";
    ping.ping_timeout = {.tv_sec = 0, .tv_nsec = 1'000'000};
    LBHealth health("eth0", false);
    health.source_address = "192.0.2.10";
    EXPECT_EQ(
        ping.send_for_interfaces(wire.near.get(), health, "198.51.100.1", "192.0.2.1", 0x1234, ctx),
        -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    expect_echo4(sent());
    EXPECT_EQ(sent(), Bytes{});
    EXPECT_EQ(ping.last_result, 2);
    LBTest::_recv_icmp_sock.set("frame test", 0);
}

TEST_F(OnTheWire, extended_ping_without_its_source_warns_and_judges_nothing) {
    LBTestPING ping;
    LBHealth health("eth0", false);
    health.source_address = "192.0.2.77";
    EXPECT_EQ(
        ping.send_for_interfaces(wire.near.get(), health, "198.51.100.1", "192.0.2.1", 0x1234, ctx),
        -1);
    EXPECT_EQ(ping.last_result, 0);
    EXPECT_EQ(sent(), Bytes{});
    EXPECT_EQ(log.lines(),
              (std::vector<LogLine>{
                  {4, "%WAN-W-WARN: Address '192.0.2.77' not present on any interface"}}));
}

TEST_F(OnTheWire, ipv6_echo_leaves_to_the_next_hops_mac_and_the_targets_address) {
    LBTestICMP6 probe6;
    EXPECT_EQ(probe6.send_for_interfaces(wire.near.get(), "eth0", "2001:db8:1::1", "2001:db8::10",
                                         "2001:db8::1", 0x1234, ctx6),
              66);
    const Bytes frame = sent();
    EXPECT_EQ(hex_of(frame, 0, 14),
              "020000000001"
              "02000000000a"
              "86dd");
    EXPECT_EQ(hex_of(frame, 22, 16), "20010db8000000000000000000000010");
    EXPECT_EQ(hex_of(frame, 38, 16), "20010db8000100000000000000000001");
    EXPECT_EQ(hex_of(frame, 62, 4), "00001234");
    EXPECT_EQ(record.at("1.1.3"), "20010db8000000000000000000000010");
    EXPECT_EQ(record.at("1.1.4"), "20010db8000100000000000000000001");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(OnTheWire, ipv6_target_that_is_no_address_is_told) {
    LBTestICMP6 probe6;
    EXPECT_EQ(probe6.send_for_interfaces(wire.near.get(), "eth0", "example.invalid", "2001:db8::10",
                                         "2001:db8::1", 0x1234, ctx6),
              -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(log.lines(), errors({"inet_pton() failed.\nError message: Success"}));
}

}  // namespace

// What the kernel is asked and told of its tables, held against the formats of its own headers:
// connection tracking (linux/netfilter/nfnetlink_conntrack.h), IPv6 neighbours (rtnetlink(7)), ARP
// (arp(7)), links (netdevice(7)).

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "host/connection_tracking.h"
#include "host/links.h"
#include "host/linux/neighbor_netlink.h"
#include "host/neighbours.h"
#include "probe/host_view.h"
#include "probe/lb_arp.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/given_kernel.h"

namespace {

using Bytes = GivenKernel::Bytes;
using Attributes = std::map<std::string, std::string>;
using faults::Call;
using faults::FailCall;

// Connection tracking

constexpr std::size_t netfilter_header = 4;   // nfgenmsg
constexpr std::uint16_t new_record = 0x0100;  // subsystem 1, message 0
constexpr std::uint16_t acknowledged_or_replaced = 0x505;

struct ConntrackRecord : testing::Test {
    ConntrackRecord() { answer_all(0); }
    void answer_all(int error) {
        kernel.on_request = [this, error](const Bytes& request) {
            for (const NetlinkRequest& message : messages_of(request, netfilter_header)) {
                kernel.answers.push_back(netlink_answer(message.sequence, error));
            }
        };
    }
    bool enter() { return tracking.enter_echo("192.0.2.1", "198.51.100.2", false, 0x1234); }
    static host::TrackedEcho echo4() {
        return {.source = {192, 0, 2, 1}, .destination = {198, 51, 100, 2}};
    }
    static host::TrackedEcho echo6() {
        return {.is_ipv6 = true,
                .source = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
                .destination = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}};
    }
    void expect_record4(const NetlinkRequest& message) {
        EXPECT_EQ(message.type, new_record);
        EXPECT_EQ(message.flags, acknowledged_or_replaced);
        EXPECT_EQ(message.family_header, (Bytes{AF_INET, 0, 0, 0}));
        EXPECT_EQ(message.attributes, record4);
    }
    void expect_record6(const NetlinkRequest& message) {
        EXPECT_EQ(message.type, new_record);
        EXPECT_EQ(message.flags, acknowledged_or_replaced);
        EXPECT_EQ(message.family_header, (Bytes{AF_INET6, 0, 0, 0}));
        EXPECT_EQ(message.attributes, record6);
    }

    // Original direction (1) and reply (2): addresses in 1, in 2 the protocol (1) with identifier
    // (4), type (5), code (6); seconds to live (7).
    const Attributes record4{{"1.1.1", "c0000201"}, {"1.1.2", "c6336402"}, {"1.2.1", "01"},
                             {"1.2.4", "1234"},     {"1.2.5", "08"},       {"1.2.6", "00"},
                             {"2.1.1", "c6336402"}, {"2.1.2", "c0000201"}, {"2.2.1", "01"},
                             {"2.2.4", "1234"},     {"2.2.5", "00"},       {"2.2.6", "00"},
                             {"7", "00000020"}};
    // The same with addresses as 3 and 4, identifier, type and code as 7, 8 and 9.
    const Attributes record6{{"1.1.3", "20010db8000000000000000000000001"},
                             {"1.1.4", "20010db8000000000000000000000002"},
                             {"1.2.1", "3a"},
                             {"1.2.7", "1234"},
                             {"1.2.8", "80"},
                             {"1.2.9", "00"},
                             {"2.1.3", "20010db8000000000000000000000002"},
                             {"2.1.4", "20010db8000000000000000000000001"},
                             {"2.2.1", "3a"},
                             {"2.2.7", "1234"},
                             {"2.2.8", "81"},
                             {"2.2.9", "00"},
                             {"7", "00000020"}};
    GivenKernel kernel;
    CapturedLog log;
    host::ConnectionTracking tracking;
};

TEST_F(ConntrackRecord, of_an_ipv4_echo_has_both_directions_and_32_seconds) {
    EXPECT_TRUE(enter());
    ASSERT_EQ(kernel.requests.size(), 1U);
    expect_record4(messages_of(kernel.requests[0], netfilter_header).at(0));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ConntrackRecord, of_an_ipv6_echo_has_both_directions_and_32_seconds) {
    EXPECT_TRUE(tracking.enter_echo("2001:db8::1", "2001:db8::2", true, 0x1234));
    ASSERT_EQ(kernel.requests.size(), 1U);
    expect_record6(messages_of(kernel.requests[0], netfilter_header).at(0));
}

TEST_F(ConntrackRecord, socket_is_opened_once_and_anew_after_a_failure) {
    const FailCall opened(Call::mnl_socket_open, 0, 99);
    enter();
    enter();
    EXPECT_EQ(opened.calls(), 1);
    answer_all(EPERM);
    EXPECT_FALSE(enter());
    answer_all(0);
    EXPECT_TRUE(enter());
    EXPECT_EQ(opened.calls(), 2);
}

TEST_F(ConntrackRecord, answer_is_waited_for_behind_other_messages) {
    kernel.on_request = [this](const Bytes& request) {
        const std::uint32_t sequence = messages_of(request, netfilter_header).at(0).sequence;
        kernel.answers.push_back(netlink_message(NLMSG_NOOP, sequence, {}));
        kernel.answers.push_back(netlink_answer(sequence, EEXIST));
    };
    EXPECT_FALSE(enter());
    EXPECT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines().at(0).text.ends_with("ip version 4: File exists"));
}

TEST_F(ConntrackRecord, answer_to_another_request_is_none) {
    kernel.on_request = [this](const Bytes& request) {
        const std::uint32_t sequence = messages_of(request, netfilter_header).at(0).sequence;
        kernel.answers.push_back(netlink_answer(sequence + 1, 0));
    };
    EXPECT_FALSE(enter());
}

TEST_F(ConntrackRecord, several_go_in_one_request_once_the_socket_is_open) {
    std::array echoes{echo4(), echo6()};
    tracking.enter_echoes(echoes, 0x1234);
    EXPECT_TRUE(kernel.requests.empty());
    enter();
    tracking.enter_echoes(echoes, 0x1234);
    ASSERT_EQ(kernel.requests.size(), 2U);
    const auto messages = messages_of(kernel.requests[1], netfilter_header);
    ASSERT_EQ(messages.size(), 2U);
    expect_record4(messages[0]);
    expect_record6(messages[1]);
    EXPECT_EQ(messages[1].sequence, messages[0].sequence + 1);
    EXPECT_TRUE(echoes[0].is_entered && echoes[1].is_entered);
}

TEST_F(ConntrackRecord, of_a_crowd_are_asked_for_64_at_once) {
    enter();
    std::vector<host::TrackedEcho> echoes(65, echo4());
    tracking.enter_echoes(echoes, 1);
    ASSERT_EQ(kernel.requests.size(), 3U);
    EXPECT_EQ(messages_of(kernel.requests[1], netfilter_header).size(), 64U);
    EXPECT_EQ(messages_of(kernel.requests[2], netfilter_header).size(), 1U);
    for (const host::TrackedEcho& echo : echoes) {
        EXPECT_TRUE(echo.is_entered);
    }
}

/// The answers to three echoes that are entered at once.
struct ConntrackAnswers : ConntrackRecord {
    ConntrackAnswers() { enter(); }
    void enter_three(const std::function<void(std::uint32_t first_sequence)>& answer) {
        kernel.requests.clear();
        kernel.on_request = [answer](const Bytes& request) {
            answer(messages_of(request, netfilter_header).at(0).sequence);
        };
        tracking.enter_echoes(echoes, 1);
    }
    void give(const Bytes& answer) { kernel.answers.push_back(answer); }
    std::string entered() const {
        std::string marks;
        for (const host::TrackedEcho& echo : echoes) {
            marks += echo.is_entered ? '+' : '-';
        }
        return marks;
    }
    /// A socket that is given up is not used for what follows.
    bool is_socket_kept() {
        kernel.requests.clear();
        std::array more{echo4()};
        tracking.enter_echoes(more, 1);
        return !kernel.requests.empty();
    }
    std::array<host::TrackedEcho, 3> echoes{echo4(), echo4(), echo4()};
};

TEST_F(ConntrackAnswers, in_any_order_mark_their_own) {
    enter_three([this](std::uint32_t first) {
        give(netlink_answer(first + 2, 0));
        give(netlink_answer(first, 0));
        give(netlink_answer(first + 1, 0));
    });
    EXPECT_EQ(entered(), "+++");
    EXPECT_TRUE(is_socket_kept());
}

TEST_F(ConntrackAnswers, refusal_leaves_one_out_and_the_socket_is_given_up) {
    enter_three([this](std::uint32_t first) {
        give(netlink_answer(first, 0));
        give(netlink_answer(first + 1, EPERM));
        give(netlink_answer(first + 2, 0));
    });
    EXPECT_EQ(entered(), "+-+");
    EXPECT_FALSE(is_socket_kept());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ConntrackAnswers, of_strangers_and_pieces_count_for_nothing) {
    enter_three([this](std::uint32_t first) {
        give(netlink_answer(first + 3, 0));
        give(netlink_message(NLMSG_DONE, first + 1, Bytes(4)));
        give(netlink_message(NLMSG_ERROR, first + 2, Bytes(3)));
    });
    EXPECT_EQ(entered(), "---");
    EXPECT_FALSE(is_socket_kept());
}

TEST_F(ConntrackAnswers, that_do_not_come_leave_all_out) {
    enter_three([](std::uint32_t) {});
    EXPECT_EQ(entered(), "---");
    EXPECT_FALSE(is_socket_kept());
}

TEST_F(ConntrackAnswers, are_not_read_where_nothing_could_be_sent) {
    const FailCall unsent(Call::mnl_socket_sendto, ENOBUFS);
    const FailCall read(Call::recvmmsg, 0, 99);
    enter_three([](std::uint32_t) {});
    EXPECT_EQ(read.calls(), 0);
    EXPECT_EQ(entered(), "---");
}

TEST_F(ConntrackAnswers, without_memory_for_a_record_nothing_is_asked_and_the_socket_stays) {
    {
        const FailCall no_memory(Call::nfct_new, ENOMEM, 2);
        enter_three([](std::uint32_t) {});
    }
    EXPECT_TRUE(kernel.requests.empty());
    EXPECT_TRUE(is_socket_kept());
}

// IPv6 neighbours

constexpr std::size_t neighbour_header = sizeof(ndmsg);
const MacAddress some_mac{2, 0, 0, 0, 0, 9};

/// An entry of the table, as a dump tells it.
Bytes neighbour_entry(const Bytes& address, const Bytes& mac, int interface_index = 0) {
    const ndmsg header{.ndm_family = AF_INET6,
                       .ndm_pad1 = 0,
                       .ndm_pad2 = 0,
                       .ndm_ifindex = interface_index,
                       .ndm_state = 0,
                       .ndm_flags = 0,
                       .ndm_type = 0};
    Bytes body(neighbour_header);
    std::memcpy(body.data(), &header, sizeof header);
    const auto attribute = [&body](std::uint16_t type, const Bytes& value) {
        const std::array<std::uint16_t, 2> head{static_cast<std::uint16_t>(4 + value.size()), type};
        const auto* first = reinterpret_cast<const std::uint8_t*>(head.data());
        body.insert(body.end(), first, first + sizeof head);
        body.insert(body.end(), value.begin(), value.end());
        body.resize((body.size() + 3) / 4 * 4);
    };
    attribute(NDA_DST, address);
    attribute(NDA_LLADDR, mac);
    return netlink_message(RTM_NEWNEIGH, 0, body);
}

struct NeighbourTable : testing::Test {
    /// As if the neighbour were looked for by a request of given form.
    int talk(unsigned char* mac, const std::string& address) {
        std::array<std::uint8_t, 4> request{1, 2, 3, 4};
        iovec whole{request.data(), request.size()};
        return neighbor_netlink_talk(&whole, 1, mac, address);
    }
    const Bytes entry1 = neighbour_entry({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1},
                                         {2, 0, 0, 0, 0, 1});
    const Bytes entry2 = neighbour_entry({0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2},
                                         {2, 0, 0, 0, 0, 2});
    const Bytes end = netlink_message(NLMSG_DONE, 0, Bytes(4));
    GivenKernel kernel;
    CapturedLog log;
};

TEST_F(NeighbourTable, is_asked_for_all_ipv6_entries) {
    kernel.answers = {entry1, entry2, end};
    const auto neighbours = host::dump_neighbors();
    ASSERT_TRUE(neighbours);
    ASSERT_EQ(neighbours->size(), 2U);
    EXPECT_EQ(neighbours->at(1).address, "2001:db8::2");
    EXPECT_EQ(neighbours->at(1).mac, (MacAddress{2, 0, 0, 0, 0, 2}));
    ASSERT_EQ(kernel.requests.size(), 1U);
    const auto message = messages_of(kernel.requests[0], neighbour_header).at(0);
    EXPECT_EQ(kernel.requests[0].size(), 28U);
    EXPECT_EQ(message.type, RTM_GETNEIGH);
    EXPECT_EQ(message.flags, NLM_F_REQUEST | NLM_F_DUMP);
    EXPECT_EQ(message.family_header, (Bytes{AF_INET6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(NeighbourTable, address_on_two_links_has_the_hardware_address_of_the_first) {
    const Bytes link_local{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    kernel.answers = {neighbour_entry(link_local, {2, 0, 0, 0, 0, 1}, 7),
                      neighbour_entry(link_local, {2, 0, 0, 0, 0, 2}, 8), end};
    HostView view;
    MacAddress mac{};
    EXPECT_EQ(view.find_neighbor("fe80::1", mac.data()), 1);
    EXPECT_EQ(mac, (MacAddress{2, 0, 0, 0, 0, 1}));
}

TEST_F(NeighbourTable, entries_in_one_answer_are_all_read) {
    Bytes both = entry1;
    both.insert(both.end(), entry2.begin(), entry2.end());
    kernel.answers = {both, end};
    EXPECT_EQ(host::dump_neighbors().value().size(), 2U);
}

TEST_F(NeighbourTable, interrupted_reading_goes_on) {
    kernel.answers = {entry1, end};
    for (const int error : {EINTR, EAGAIN}) {
        const FailCall interrupted(Call::mnl_socket_recvfrom, error, 1);
        EXPECT_TRUE(host::dump_neighbors());
        kernel.answers = {entry1, end};
    }
}

TEST_F(NeighbourTable, that_cannot_be_read_is_none) {
    kernel.answers = {entry1};  // and then the reading fails
    EXPECT_FALSE(host::dump_neighbors());
    kernel.answers = {Bytes{}};  // nothing more
    EXPECT_FALSE(host::dump_neighbors());
    kernel.answers = {netlink_answer(0, EPERM)};
    EXPECT_FALSE(host::dump_neighbors());
}

TEST_F(NeighbourTable, entry_of_the_address_is_looked_for_to_the_end) {
    MacAddress mac{};
    kernel.answers = {entry1, entry2, end};
    EXPECT_EQ(talk(mac.data(), "2001:db8::2"), 1);
    EXPECT_EQ(mac, (MacAddress{2, 0, 0, 0, 0, 2}));
    EXPECT_EQ(kernel.requests.at(0), (Bytes{1, 2, 3, 4}));
    kernel.answers = {entry1, entry2, end};
    EXPECT_EQ(talk(mac.data(), "2001:db8::3"), 0);
    kernel.answers = {entry1, end};
    EXPECT_EQ(talk(nullptr, "2001:db8::1"), -1);
}

TEST_F(NeighbourTable, entry_is_written_as_reachable) {
    kernel.answers = {netlink_answer(0, 0)};
    EXPECT_TRUE(host::write_neighbor("2001:db8::1", "lo", some_mac));
    ASSERT_EQ(kernel.requests.size(), 1U);
    const auto message = messages_of(kernel.requests[0], neighbour_header).at(0);
    EXPECT_EQ(message.type, RTM_NEWNEIGH);
    EXPECT_EQ(message.flags, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE);
    ndmsg body{};
    ASSERT_EQ(message.family_header.size(), sizeof body);
    std::memcpy(&body, message.family_header.data(), sizeof body);
    EXPECT_EQ(body.ndm_family, AF_INET6);
    EXPECT_EQ(body.ndm_state, NUD_REACHABLE);
    EXPECT_EQ(body.ndm_ifindex, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(message.attributes,
              (Attributes{{"1", "20010db8000000000000000000000001"}, {"2", "020000000009"}}));
}

TEST_F(NeighbourTable, entry_that_the_kernel_refuses_is_not_written) {
    kernel.answers = {netlink_answer(0, EPERM)};
    EXPECT_FALSE(host::write_neighbor("2001:db8::1", "lo", some_mac));
    EXPECT_EQ(log.lines(), errors({"RTNETLINK answers: Operation not permitted\n"}));
}

// ARP

struct ArpTable : testing::Test {
    ArpTable() {
        kernel.on_ioctl = [this](unsigned long request, void* argument) {
            asked = request;
            auto& entry = *static_cast<arpreq*>(argument);
            taken = entry;
            entry.arp_flags = flags;
            std::copy(some_mac.begin(), some_mac.end(), entry.arp_ha.sa_data);
            return error;
        };
    }
    void expect_asked_of_192_0_2_1() const {
        sockaddr_in asked_for{};
        std::memcpy(&asked_for, &taken.arp_pa, sizeof asked_for);
        EXPECT_EQ(asked_for.sin_family, AF_INET);
        EXPECT_EQ(ntohl(asked_for.sin_addr.s_addr), 0xc0000201U);
        EXPECT_STREQ(taken.arp_dev, "eth0");
    }
    /// The prober's two questions of given form, and the error that they leave.
    struct Answered {
        int known, known_error, got, got_error;
        bool operator==(const Answered&) const = default;
    };
    Answered ask_prober() {
        LBArp arp;
        arp.set_data("192.0.2.1", "192.0.2.9", "eth0");
        Answered answered{};
        answered.known = arp.check_arp_exist();
        answered.known_error = errno;
        answered.got = arp.get_mac(mac.data());
        answered.got_error = answered.got == 1 ? 0 : errno;
        return answered;
    }

    int flags = ATF_COM;
    int error = 0;
    unsigned long asked = 0;
    arpreq taken{};
    MacAddress mac{};
    const Ipv4Bytes address{192, 0, 2, 1};
    GivenKernel kernel;
    CapturedLog log;
};

TEST_F(ArpTable, is_asked_for_the_address_on_the_interface) {
    const host::ArpEntry entry = host::ask_arp_entry(address, "eth0");
    EXPECT_EQ(asked, static_cast<unsigned long>(SIOCGARP));
    expect_asked_of_192_0_2_1();
    EXPECT_EQ(taken.arp_ha.sa_family, ARPHRD_ETHER);
    EXPECT_EQ(entry.state, host::ArpEntry::State::complete);
    EXPECT_EQ(entry.mac, some_mac);
}

TEST_F(ArpTable, name_longer_than_the_kernel_takes_is_cut) {
    host::ask_arp_entry(address, "a-name-of-more-than-15-letters");
    EXPECT_STREQ(taken.arp_dev, "a-name-of-more-");
}

TEST_F(ArpTable, complete_entry_is_known_with_its_mac) {
    EXPECT_EQ(ask_prober(), (Answered{1, 0, 1, 0}));
    EXPECT_EQ(mac, some_mac);
}

TEST_F(ArpTable, incomplete_entry_is_not_known_and_its_host_not_reachable) {
    flags = ATF_PERM;
    EXPECT_EQ(ask_prober(), (Answered{0, 0, 0, EHOSTUNREACH}));
    EXPECT_EQ(mac, MacAddress{});
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ArpTable, missing_entry_is_not_known_and_its_error_tells_so) {
    error = ENXIO;
    EXPECT_EQ(ask_prober(), (Answered{0, 0, -1, ENXIO}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(ArpTable, refusal_is_told_with_its_error) {
    error = EPERM;
    EXPECT_EQ(ask_prober(), (Answered{-1, EPERM, -1, EPERM}));
    EXPECT_EQ(log.lines(), errors({"<check_arp_exist> Ioctl Operation not permitted(1)"}));
}

TEST_F(ArpTable, entry_is_written_complete_with_what_follows_the_mac) {
    const Bytes hardware{2, 0, 0, 0, 0, 9, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(host::write_arp_entry(address, hardware, "eth0"), host::ArpWritten::written);
    EXPECT_EQ(asked, static_cast<unsigned long>(SIOCSARP));
    expect_asked_of_192_0_2_1();
    EXPECT_EQ(taken.arp_flags, ATF_COM);
    EXPECT_EQ(taken.arp_ha.sa_family, 0);
    EXPECT_EQ(Bytes(taken.arp_ha.sa_data, taken.arp_ha.sa_data + 14),
              Bytes(hardware.begin(), hardware.begin() + 14));
    error = EINVAL;
    EXPECT_EQ(host::write_arp_entry(address, hardware, "eth0"), host::ArpWritten::refused);
}

// Links

/// An interface by its address: what one of its questions gets.
struct LinkQuestions : testing::Test {
    void answer(const sockaddr_in& given, int error = 0) {
        kernel.on_ioctl = [this, given, error](unsigned long request, void* argument) {
            asked = request;
            auto& passed = *static_cast<ifreq*>(argument);
            taken = passed;
            std::memcpy(&passed.ifr_addr, &given, sizeof given);
            return error;
        };
    }
    static sockaddr_in address_192_0_2_1() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(0xc0000201U);
        return address;
    }
    unsigned long asked = 0;
    ifreq taken{};
    GivenKernel kernel;
};

TEST_F(LinkQuestions, primary_address_is_the_interfaces) {
    answer(address_192_0_2_1());
    const host::PrimaryAddress answered = host::primary_address("eth0");
    EXPECT_EQ(asked, static_cast<unsigned long>(SIOCGIFADDR));
    EXPECT_STREQ(taken.ifr_name, "eth0");
    EXPECT_EQ(answered.error, 0);
    EXPECT_EQ(answered.address, (Ipv4Bytes{192, 0, 2, 1}));
}

TEST_F(LinkQuestions, peer_is_asked_for_in_a_family_and_answered_in_the_kernels) {
    answer(address_192_0_2_1());
    host::PeerRequest request(true);
    EXPECT_EQ(host::ask_peer("tun0", request), 0);
    EXPECT_EQ(asked, static_cast<unsigned long>(SIOCGIFDSTADDR));
    EXPECT_STREQ(taken.ifr_name, "tun0");
    EXPECT_EQ(taken.ifr_dstaddr.sa_family, AF_INET6);
    EXPECT_EQ(request.family, AF_INET);
    EXPECT_EQ(request.address, (Ipv4Bytes{192, 0, 2, 1}));
}

TEST_F(LinkQuestions, refused_peer_leaves_the_request_as_it_was) {
    answer(address_192_0_2_1(), ENODEV);
    host::PeerRequest request(false);
    EXPECT_EQ(host::ask_peer("tun0", request), ENODEV);
    EXPECT_EQ(request.address, Ipv4Bytes{});
}

TEST_F(LinkQuestions, mac_address_and_index_are_the_interfaces) {
    kernel.on_ioctl = [](unsigned long request, void* argument) {
        auto& passed = *static_cast<ifreq*>(argument);
        if (std::string(passed.ifr_name) != "eth0") {
            return ENODEV;
        }
        if (request == SIOCGIFHWADDR) {
            std::copy(some_mac.begin(), some_mac.end(), passed.ifr_hwaddr.sa_data);
        } else if (request == SIOCGIFINDEX) {
            passed.ifr_ifindex = 7;
        }
        return 0;
    };
    const host::Link link = host::ask_link("eth0");
    EXPECT_EQ(link.failed, host::Link::Step::none);
    EXPECT_EQ(link.mac, some_mac);
    EXPECT_EQ(link.index, 7);
}

}  // namespace

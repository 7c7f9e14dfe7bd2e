// ARP and neighbour probers, source check and connection tracking up to the edge of the kernel.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <span>
#include <thread>

#include "host/arp_receiver.h"
#include "host/asked_addresses.h"
#include "host/conntrack_record.h"
#include "host/lb_arp.h"
#include "host/lb_neighbor.h"
#include "host/neighbor_netlink.h"
#include "host/neighbor_receiver.h"
#include "host/source_address.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<LogLine>;
using faults::Call;
using faults::FailCall;

const std::string err = "%WAN-W-ERR: ";

Lines errors(std::initializer_list<const char*> texts) {
    Lines lines;
    for (const char* text : texts) {
        lines.push_back({4, err + text});
    }
    return lines;
}

TEST(SourceAddress, of_the_loopback_is_found_by_a_prefix_of_its_name) {
    forget_interface_addresses();
    EXPECT_TRUE(check_src_addr_on_interface("lo", "127.0.0.1"));
    EXPECT_TRUE(check_src_addr_on_interface("l", "127.0.0.1"));
    EXPECT_FALSE(check_src_addr_on_interface("lox", "127.0.0.1"));
    EXPECT_FALSE(check_src_addr_on_interface("lo", "127.0.0.01"));
    EXPECT_FALSE(check_src_addr_on_interface("lo", "192.0.2.77"));
}

/// Starts a pass after a change of addresses: one so large that its announcements were lost.
void start_pass_after_a_change() {
    const FailCall overrun(Call::recv, ENOBUFS, 1);
    forget_interface_addresses();
}

TEST(SourceAddress, list_is_asked_again_only_after_a_change) {
    forget_interface_addresses();  // the first pass subscribes to the announcements
    start_pass_after_a_change();
    const FailCall counted(Call::getifaddrs, 0, 99);
    check_src_addr_on_interface("lo", "127.0.0.1");
    check_src_addr_on_interface("lo", "127.0.0.2");
    forget_interface_addresses();
    check_src_addr_on_interface("lo", "127.0.0.1");
    EXPECT_EQ(counted.calls(), 1);
    start_pass_after_a_change();
    check_src_addr_on_interface("lo", "127.0.0.1");
    EXPECT_EQ(counted.calls(), 2);
}

TEST(SourceAddress, without_announcements_every_pass_asks) {
    std::thread([] {
        const FailCall no_subscription(Call::bind, EPERM, 0);
        const FailCall counted(Call::getifaddrs, 0, 99);
        for (int pass = 0; pass < 3; ++pass) {
            forget_interface_addresses();
            check_src_addr_on_interface("lo", "127.0.0.1");
        }
        EXPECT_EQ(counted.calls(), 3);
    }).join();
}

TEST(SourceAddress, unreadable_list_is_reported) {
    const CapturedLog log;
    start_pass_after_a_change();
    const FailCall no_list(Call::getifaddrs, ENOMEM);
    EXPECT_FALSE(check_src_addr_on_interface("lo", "127.0.0.1"));
    EXPECT_EQ(log.lines(), errors({"getifaddrs failed"}));
}

TEST(AskedAddresses, unknown_sender_leaves_an_empty_entry) {
    AskedAddresses asked;
    asked.set("192.0.2.1", "eth0");
    EXPECT_EQ(asked.find_or_enter("192.0.2.1"), "eth0");
    EXPECT_EQ(asked.find_or_enter("192.0.2.9"), "");
    EXPECT_EQ(asked.size(), 2U);
}

/// Stands for a receiver's socket where no thread will read it.
Fd some_socket() {
    return Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

struct Arp : testing::Test {
    void ask(const std::string& address, const std::string& source = "127.0.0.1",
             const std::string& ifname = "lo") {
        arp.nsname = "arp test";
        arp.targets = std::make_shared<AskedAddresses>();
        arp.set_data(address, source, ifname);
    }
    LBArp arp;
    CapturedLog log;
    unsigned char mac[6] = {};
};

TEST_F(Arp, unknown_next_hop_is_silently_missing) {
    ask("192.0.2.1");
    EXPECT_EQ(arp.check_arp_exist(), 0);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Arp, address_that_is_not_dotted_is_reported) {
    ask("dhcp");
    EXPECT_EQ(arp.check_arp_exist(), -1);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_EQ(log.lines(), errors({"<check_arp_exist> Inet_aton() failed Invalid argument(22)",
                                   "<get_mac> Inet_aton"}));
}

TEST_F(Arp, refused_table_query_is_reported_by_the_check_only) {
    ask("192.0.2.1", "127.0.0.1", "no such");
    EXPECT_EQ(arp.check_arp_exist(), -1);
    EXPECT_EQ(arp.get_mac(mac), -1);
    EXPECT_EQ(log.lines(), errors({"<check_arp_exist> Ioctl No such device(19)"}));
}

TEST_F(Arp, init_without_a_socket_is_reported_and_leaves_no_table) {
    const FailCall no_socket(Call::socket, EMFILE);
    arp.init("arp init");
    EXPECT_EQ(log.lines(), errors({"<init> socket() fo _send_sock in arp init failed "}));
    EXPECT_EQ(arp.targets, nullptr);
    arp.set_data("192.0.2.1", "127.0.0.1", "lo");
    arp.received_arp();
}

TEST_F(Arp, request_reports_what_it_lacks) {
    LBArp::is_start_recv.set("arp test", true);
    ask("192.0.2.1", "127.0.0.1", "no such");
    EXPECT_EQ(arp.send_arp(), -1);
    ask("192.0.2.1", "nonsense");
    EXPECT_EQ(arp.send_arp(), -1);
    ask("no such.invalid");
    EXPECT_EQ(arp.send_arp(), -1);
    ask("192.0.2.1");
    EXPECT_LE(arp.send_arp(), 0);  // descriptor 0 is no socket
    {
        const FailCall no_index(Call::ioctl, ENODEV, 2);
        EXPECT_EQ(arp.send_arp(), -1);
    }
    ASSERT_EQ(log.lines().size(), 5U);
    EXPECT_EQ(log.lines()[0].text, err + "<send_arp> ioctl() failed to get source MAC address");
    EXPECT_EQ(log.lines()[1].text,
              err + "<send_arp> inet_pton() failed for source IP address.Error message: Success");
    EXPECT_TRUE(log.lines()[2].text.starts_with(err + "<send_arp> getaddrinfo() failed: "));
    EXPECT_EQ(log.lines()[3].text, err + "<send_arp> sendto() failed");
    EXPECT_EQ(log.lines()[4].text,
              err + "<send_arp> if_nametoindex() failed to obtain interface index");
}

TEST_F(Arp, receiver_that_cannot_start_is_reported_once) {
    LBArp::is_start_recv.set("arp test", false);
    ask("192.0.2.1");
    arp.targets->receiver = some_socket();
    const FailCall no_thread(Call::pthread_create, EAGAIN);
    arp.received_arp();
    arp.received_arp();
    EXPECT_EQ(log.lines(), errors({"Can't create new thread for arp recv"}));
}

TEST_F(Arp, receiver_without_a_socket_is_tried_again_and_started_with_one) {
    constexpr const char* no_socket = "<recv_arp> socket() for _recv_sock failed ";
    LBArp::is_start_recv.set("arp test", false);
    ask("192.0.2.1");
    arp.received_arp();
    arp.received_arp();
    EXPECT_FALSE(LBArp::is_start_recv.get("arp test"));
    arp.targets->receiver = some_socket();
    const FailCall no_thread(Call::pthread_create, EAGAIN);
    arp.received_arp();
    EXPECT_EQ(log.lines(), errors({no_socket, no_socket, "Can't create new thread for arp recv"}));
}

TEST_F(Arp, receiver_without_a_socket_ends_with_a_message) {
    auto* const argument = new AskedAddressesRef(std::make_shared<AskedAddresses>());
    EXPECT_EQ(recv_arp(argument), nullptr);
    EXPECT_EQ(log.lines(), errors({"<recv_arp> socket() for _recv_sock failed "}));
}

TEST_F(Arp, receiver_reports_a_failed_wait_and_a_failed_receive) {
    for (const bool is_wait : {true, false}) {
        auto asked = std::make_shared<AskedAddresses>();
        asked->receiver = Fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const FailCall failed(is_wait ? Call::poll : Call::recv, ENETDOWN);
        if (!is_wait) {
            const sockaddr_in own{.sin_family = AF_INET,
                                  .sin_port = 0,
                                  .sin_addr = {htonl(INADDR_LOOPBACK)},
                                  .sin_zero = {}};
            ASSERT_EQ(
                bind(asked->receiver.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own),
                0);
            sockaddr_in bound{};
            socklen_t length = sizeof bound;
            getsockname(asked->receiver.get(), reinterpret_cast<sockaddr*>(&bound), &length);
            sendto(asked->receiver.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&bound),
                   sizeof bound);
        }
        recv_arp(new AskedAddressesRef(asked));
    }
    EXPECT_EQ(log.lines(), errors({"<recv_arp> select() failed", "<recv_arp> recv() failed"}));
}

/// An ARP frame from 192.0.2.1 with this operation.
Bytes arp_frame(std::uint8_t operation) {
    return {0x02, 0, 0,    0, 0,    1, 0x02, 0,         0,    0, 0,   2, 0x08, 0x06,
            0,    1, 0x08, 0, 6,    4, 0,    operation, 0x02, 0, 0,   0, 0,    2,
            192,  0, 2,    1, 0x02, 0, 0,    0,         0,    1, 192, 0, 2,    10};
}

TEST_F(Arp, answer_of_an_address_never_asked_for_is_entered_but_not_written) {
    AskedAddresses asked;
    EXPECT_TRUE(take_arp_frame(arp_frame(2), asked));
    EXPECT_EQ(asked.size(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Arp, requests_and_short_frames_are_ignored) {
    AskedAddresses asked;
    take_arp_frame(arp_frame(1), asked);
    const Bytes reply = arp_frame(2);
    for (std::size_t length = 0; length < reply.size(); ++length) {
        take_arp_frame(std::span(reply).first(length), asked);
    }
    EXPECT_EQ(asked.size(), 0U);
}

TEST_F(Arp, entry_that_the_kernel_refuses_is_reported_with_the_sender) {
    AskedAddresses asked;
    asked.set("192.0.2.1", "no such");
    take_arp_frame(arp_frame(2), asked);
    EXPECT_EQ(log.lines(), errors({"<add_arp_entry> 192.0.2.1"}));
}

TEST(Conntrack, each_failing_step_is_reported) {
    const CapturedLog log;
    TestContext ctx;
    TestContext ctx6(true);
    {
        const FailCall failed(Call::mnl_socket_open, EMFILE);
        create_conntrack_record("192.0.2.1", "192.0.2.2", ctx);
    }
    {
        const FailCall failed(Call::mnl_socket_bind, EACCES);
        create_conntrack_record("192.0.2.1", "192.0.2.2", ctx);
    }
    {
        const FailCall failed(Call::nfct_new, ENOMEM);
        create_conntrack_record("192.0.2.1", "192.0.2.2", ctx);
    }
    {
        const FailCall failed(Call::mnl_socket_sendto, EPERM);
        EXPECT_EQ(create_conntrack_record("192.0.2.1", "192.0.2.2", ctx), -1);
    }
    {
        const FailCall sent(Call::mnl_socket_recvfrom, EEXIST);
        create_conntrack_record("192.0.2.1", "192.0.2.2", ctx);
        create_conntrack_record("2001:db8::1", "2001:db8::2", ctx6);
    }
    create_conntrack_record("nonsense", "2001:db8::2", ctx6);
    Lines expected{
        {3, "<create_conntrack_record> mnl_socket_open: Too many open files"},
        {3, "<create_conntrack_record> mnl_socket_bind: Permission denied"},
        {3, "<create_conntrack_record> mnl_nlmsg_put_extra_header: Cannot allocate memory"},
        {3, "<create_conntrack_record> mnl_socket_sendto: Operation not permitted"},
        {3, "<create_conntrack_record> mnl_socket_recvfrom for ip version 4: File exists"},
        {3, "<create_conntrack_record> mnl_socket_recvfrom for ip version 6: File exists"},
        {4, err + "inet_pton() failed.\nError message: Success"}};
    EXPECT_EQ(log.lines(), expected);
}

struct Neighbours : testing::Test {
    void ask(const std::string& address, const std::string& source = "2001:db8::2",
             const std::string& ifname = "lo") {
        neighbor.nsname = "neighbour test";
        neighbor.targets = std::make_shared<AskedAddresses>();
        neighbor.set_data(address, source, ifname);
    }
    /// What a solicitation writes to the standard error stream.
    std::string complaint() {
        LBNeighbor::is_start_recv.set("neighbour test", true);
        testing::internal::CaptureStderr();
        neighbor.send_request();
        fflush(stderr);
        return testing::internal::GetCapturedStderr();
    }
    LBNeighbor neighbor;
    CapturedLog log;
    unsigned char mac[6] = {};
};

TEST_F(Neighbours, unknown_next_hop_is_missing) {
    forget_neighbors();
    ask("2001:db8::1");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, table_is_dumped_once_in_a_pass) {
    forget_neighbors();
    const FailCall counted(Call::sendmsg, 0, 99);
    ask("2001:db8::1");
    neighbor.check_neighbor_exist(mac);
    ask("dhcp");
    EXPECT_EQ(neighbor.check_neighbor_exist(mac), 0);
    EXPECT_EQ(counted.calls(), 1);
}

TEST_F(Neighbours, refused_entry_does_not_make_the_table_be_dumped_again) {
    forget_neighbors();
    ask("2001:db8::1");
    neighbor.check_neighbor_exist(mac);
    {
        const FailCall refused(Call::sendmsg, EPERM);
        add_neighbor_entry("2001:db8::1", "lo", {});
    }
    const FailCall counted(Call::sendmsg, 0, 99);
    neighbor.check_neighbor_exist(mac);
    EXPECT_EQ(counted.calls(), 0);
}

TEST_F(Neighbours, failing_netlink_steps_are_reported) {
    ask("2001:db8::1");
    for (const Call call : {Call::socket, Call::bind, Call::sendmsg}) {
        forget_neighbors();
        const FailCall failed(call, EMFILE);
        EXPECT_EQ(neighbor.check_neighbor_exist(mac), -1);
    }
    EXPECT_EQ(log.lines(), errors({"Cannot open netlink socket", "Cannot bind netlink socket",
                                   "Cannot talk to rtnetlink"}));
    forget_neighbors();
}

TEST_F(Neighbours, init_without_a_socket_is_reported) {
    const FailCall no_socket(Call::socket, EMFILE);
    neighbor.init("neighbour init");
    EXPECT_EQ(log.lines(), errors({"<init> socket() fo _send_sock failed "}));
    EXPECT_EQ(neighbor.targets, nullptr);
}

TEST_F(Neighbours, solicitation_complains_on_standard_error_only) {
    ask("2001:db8::1", "2001:db8::2", "no such");
    EXPECT_EQ(complaint(), "ioctl() failed to get source MAC address : No such device\n");
    ask("nonsense");
    EXPECT_EQ(complaint(), "inet_pton() failed.\nError message: Success");
    ask("2001:db8::1", "nonsense");
    EXPECT_EQ(complaint(), "inet_pton() failed.\nError message: Success");
    ask("2001:db8::1");
    {
        const FailCall no_index(Call::ioctl, ENODEV, 2);
        EXPECT_EQ(complaint(),
                  "if_nametoindex() failed to obtain interface index : No such device\n");
    }
    {
        const FailCall no_text(Call::inet_ntop, ENOSPC);
        EXPECT_EQ(complaint(), "inet_ntop() failed.\nError message: No space left on device");
    }
    EXPECT_TRUE(complaint().starts_with("sendto() failed: "));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, failed_send_closes_the_socket_for_good) {
    LBNeighbor::_send_sock.set("neighbour test", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int before = LBNeighbor::_send_sock.get("neighbour test");
    ask("2001:db8::1");
    {
        const FailCall no_send(Call::sendto, ENOBUFS);
        EXPECT_EQ(complaint(), "sendto() failed: No buffer space available\n");
    }
    EXPECT_EQ(fcntl(before, F_GETFD), -1);
    EXPECT_TRUE(complaint().starts_with("sendto() failed: "));
}

TEST_F(Neighbours, receiver_reports_how_it_could_not_start) {
    LBNeighbor::is_start_recv.set("neighbour test", false);
    ask("2001:db8::1");
    neighbor.targets->receiver = some_socket();
    {
        const FailCall no_thread(Call::pthread_create, EAGAIN);
        neighbor.receive_reply();
        neighbor.receive_reply();
    }
    recv_neighbor(new AskedAddressesRef(std::make_shared<AskedAddresses>()));
    EXPECT_EQ(log.lines(), errors({"Can't create new thread for neigh recv",
                                   "<recv_neighbor> socket() for _recv_sock failed "}));
}

/// A neighbour advertisement of 2001:db8::1 with its MAC 02:..:09 as first option.
Bytes advertisement() {
    Bytes frame(86);
    frame[12] = 0x86;
    frame[13] = 0xdd;
    frame[20] = 58;
    frame[54] = 136;
    const Bytes target{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::copy(target.begin(), target.end(), frame.begin() + 62);
    frame[80] = 2;
    frame[85] = 9;
    return frame;
}

TEST_F(Neighbours, advertisement_never_asked_for_is_entered_but_not_written) {
    AskedAddresses asked;
    EXPECT_TRUE(take_neighbor_frame(advertisement(), asked));
    EXPECT_EQ(asked.size(), 1U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Neighbours, other_frames_are_ignored) {
    AskedAddresses asked;
    Bytes solicitation = advertisement();
    solicitation[54] = 135;
    take_neighbor_frame(solicitation, asked);
    Bytes ipv4 = advertisement();
    ipv4[12] = 0x08;
    take_neighbor_frame(ipv4, asked);
    Bytes udp_from_port_34816 = advertisement();
    udp_from_port_34816[20] = 17;
    take_neighbor_frame(udp_from_port_34816, asked);
    const Bytes whole = advertisement();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        take_neighbor_frame(std::span(whole).first(length), asked);
    }
    EXPECT_EQ(asked.size(), 0U);
}

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

TEST_F(Neighbours, filter_wakes_for_whole_advertisements_only) {
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
    EXPECT_EQ(filtered(pass_advertisements(),
                       {shorter, solicitation, ipv4, udp_from_port_34816, Bytes(14)}),
              std::vector<std::size_t>{});
    EXPECT_EQ(filtered(pass_advertisements(), {advertisement(), longer}),
              (std::vector<std::size_t>{86, 86}));
}

TEST(ArpFilter, wakes_for_replies_only) {
    Bytes reply(42);
    reply[21] = 2;
    Bytes request(42);
    request[21] = 1;
    EXPECT_EQ(filtered(pass_arp_replies(), {request, Bytes(21)}), std::vector<std::size_t>{});
    EXPECT_EQ(filtered(pass_arp_replies(), {reply}), std::vector<std::size_t>{42});
}

TEST_F(Neighbours, entry_for_an_interface_that_is_gone_is_reported) {
    AskedAddresses asked;
    asked.set("2001:db8::1", "no such");
    take_neighbor_frame(advertisement(), asked);
    add_neighbor_entry("nonsense", "lo", {});
    EXPECT_EQ(
        log.lines(),
        errors({"if_nametoindex() failed to obtain interface index No such device", "inet_pton"}));
}

TEST_F(Neighbours, target_that_cannot_be_printed_ends_the_receiver) {
    AskedAddresses asked;
    const FailCall no_text(Call::inet_ntop, ENOSPC);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(take_neighbor_frame(advertisement(), asked));
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "inet_ntop() failed.\nError message: No space left on device");
}

TEST(Attributes, beyond_the_bound_are_refused_on_standard_error) {
    nlmsghdr message{};
    message.nlmsg_len = 1'048'600;
    testing::internal::CaptureStderr();
    EXPECT_EQ(addattr_l(&message, NDA_DST, "", 4), -1);
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "addattr_l ERROR: message exceeded bound of 1048604\n");
}

TEST(Attributes, are_appended_with_their_header_and_alignment) {
    alignas(nlmsghdr) std::array<std::uint8_t, 64> buffer{};
    auto* const message = reinterpret_cast<nlmsghdr*>(buffer.data());
    message->nlmsg_len = 28;
    const Bytes mac{2, 0, 0, 0, 0, 9};
    EXPECT_EQ(addattr_l(message, 2, mac.data(), 6), 0);
    EXPECT_EQ(message->nlmsg_len, 40U);
    const Bytes written(buffer.begin() + 32, buffer.begin() + 40);
    EXPECT_EQ(written, (Bytes{2, 0, 0, 0, 0, 9, 0, 0}));
}

/// A message of answers built by hand.
struct Answer {
    Bytes bytes = Bytes(28);

    Answer& attribute(std::uint16_t type, const Bytes& value) {
        const auto length = static_cast<std::uint16_t>(4 + value.size());
        append(&length, 2);
        append(&type, 2);
        bytes.insert(bytes.end(), value.begin(), value.end());
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return *this;
    }
    Bytes done(std::uint16_t type = RTM_NEWNEIGH) {
        const auto length = static_cast<std::uint32_t>(bytes.size());
        std::memcpy(bytes.data(), &length, 4);
        std::memcpy(bytes.data() + 4, &type, 2);
        return bytes;
    }
    void append(const void* data, std::size_t size) {
        const auto* from = static_cast<const std::uint8_t*>(data);
        bytes.insert(bytes.end(), from, from + size);
    }
};

const Bytes address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const Bytes some_mac{2, 0, 0, 0, 0, 9};

std::vector<Neighbor> neighbours_in(const Bytes& received, NetlinkAnswer& answer) {
    std::vector<Neighbor> taken;
    answer = walk_netlink_answers(received, [&taken](const Neighbor& neighbor) {
        taken.push_back(neighbor);
        return false;
    });
    return taken;
}

TEST(NetlinkAnswers, entry_is_read_whatever_its_state) {
    NetlinkAnswer answer{};
    const auto taken =
        neighbours_in(Answer().attribute(1, address).attribute(2, some_mac).done(), answer);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0].address, "2001:db8::1");
    EXPECT_EQ(taken[0].mac, (MacAddress{2, 0, 0, 0, 0, 9}));
    EXPECT_EQ(answer, NetlinkAnswer::go_on);
}

TEST(NetlinkAnswers, first_attribute_of_a_type_counts) {
    NetlinkAnswer answer{};
    const auto taken = neighbours_in(
        Answer().attribute(1, address).attribute(1, Bytes(16)).attribute(2, some_mac).done(),
        answer);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0].address, "2001:db8::1");
}

TEST(NetlinkAnswers, entry_without_a_link_layer_address_is_passed_over) {
    NetlinkAnswer answer{};
    EXPECT_TRUE(neighbours_in(Answer().attribute(1, address).done(), answer).empty());
    EXPECT_TRUE(
        neighbours_in(Answer().attribute(1, {1, 2}).attribute(2, some_mac).done(), answer).empty());
}

TEST(NetlinkAnswers, end_and_acknowledgement_end_the_exchange) {
    NetlinkAnswer answer{};
    neighbours_in(Answer().done(NLMSG_DONE), answer);
    EXPECT_EQ(answer, NetlinkAnswer::done);
    neighbours_in(Answer().done(NLMSG_ERROR), answer);  // error 0
    EXPECT_EQ(answer, NetlinkAnswer::acknowledged);
}

TEST(NetlinkAnswers, error_of_the_kernel_is_reported) {
    const CapturedLog log;
    Answer refused;
    const int error = -EPERM;
    std::memcpy(refused.bytes.data() + 16, &error, sizeof error);
    NetlinkAnswer answer{};
    neighbours_in(refused.done(NLMSG_ERROR), answer);
    EXPECT_EQ(answer, NetlinkAnswer::refused);
    EXPECT_EQ(log.lines(), errors({"RTNETLINK answers: Operation not permitted\n"}));
}

TEST(NetlinkAnswers, error_without_a_positive_counterpart_is_reported_as_any_other) {
    const CapturedLog log;
    Answer refused;
    const int error = std::numeric_limits<int>::min();
    std::memcpy(refused.bytes.data() + 16, &error, sizeof error);
    NetlinkAnswer answer{};
    neighbours_in(refused.done(NLMSG_ERROR), answer);
    EXPECT_EQ(answer, NetlinkAnswer::refused);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(NetlinkAnswers, lengths_that_do_not_fit_end_the_walk) {
    const Bytes whole = Answer().attribute(1, address).attribute(2, some_mac).done();
    NetlinkAnswer answer{};
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_TRUE(
            neighbours_in({whole.begin(), whole.begin() + static_cast<long>(length)}, answer)
                .empty());
    }
    Bytes short_header = whole;
    short_header[0] = 15;
    EXPECT_TRUE(neighbours_in(short_header, answer).empty());
    Bytes short_attribute = whole;
    short_attribute[28] = 3;
    EXPECT_TRUE(neighbours_in(short_attribute, answer).empty());
    EXPECT_EQ(answer, NetlinkAnswer::go_on);
}

}  // namespace

// The probes up to the edge of the network: targets, status lines, paths, messages, period.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "base/fd.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/lb_test_ping.h"
#include "unit/support/captured_log.h"
#include "unit/support/echo_replies.h"
#include "unit/support/faults.h"
#include "unit/support/given_clock.h"
#include "unit/support/hex.h"
#include "unit/support/loaded.h"

namespace {

using Lines = std::vector<LogLine>;

const std::string err = "%WAN-W-ERR: ";
const std::string warn = "%WAN-W-WARN: ";

struct Probes : testing::Test {
    ~Probes() override {
        LBTest::_results.clear();
        LBTest6::_results.clear();
    }

    /// An uplink of this name with this next hop.
    LBHealth uplink(const std::string& name, const std::string& nexthop, bool ipv6 = false) {
        LBHealth health(name, ipv6);
        health.nexthop = nexthop;
        return health;
    }

    GivenClock clock;
    CapturedLog log;
    TestContext ctx{false, "probe test"};
    TestContext ctx6{true, "probe test"};
};

TEST_F(Probes, without_a_target_and_a_next_hop_nothing_is_sent) {
    LBTestICMP probe;
    LBHealth health = uplink("gi1_1", "dhcp");
    probe.send(health, ctx);
    EXPECT_EQ(probe.status(), "ping\tTarget: ");
    EXPECT_EQ(LBTest::_results.size(), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Probes, next_hop_becomes_the_target_for_good_and_counts_as_down) {
    LBTestICMP probe;
    LBHealth health = uplink("no such", "dhcp");
    health.nexthop_addr = "192.0.2.1";
    probe.send(health, ctx);
    health.nexthop_addr = "192.0.2.2";
    probe.send(health, ctx);
    EXPECT_EQ(probe.target, "192.0.2.1");
    EXPECT_EQ(health.history.last_resp, (std::map<std::string, int>{{"192.0.2.1", -1}}));
    EXPECT_EQ(probe.status(), "ping\tTarget: 192.0.2.1");
    EXPECT_EQ(probe.status(ctx), "ping\tTarget: 192.0.2.1");
}

TEST_F(Probes, known_verdicts_are_not_seeded_again) {
    LBTestICMP probe;
    LBHealth health = uplink("no such", "192.0.2.1");
    health.history.last_resp["a"] = 0;
    probe.send(health, ctx);
    EXPECT_EQ(health.history.last_resp, (std::map<std::string, int>{{"a", 0}}));
}

TEST_F(Probes, unknown_interface_is_reported_and_the_probe_stays_in_flight) {
    LBTestICMP probe;
    LBHealth health = uplink("no such", "192.0.2.1");
    probe.send(health, ctx);
    EXPECT_EQ(log.lines(),
              (Lines{{4, err + "ioctl() failed to get source MAC address No such device"},
                     {7, "wan_lb: error on sending icmp packet: 19"}}));
    probe.send(health, ctx);
    EXPECT_EQ(log.lines().size(), 2U);  // still in flight: not sent again
}

TEST_F(Probes, unknown_interface_of_an_ipv6_probe_has_a_text_of_its_own) {
    LBTestICMP6 probe;
    LBHealth health = uplink("no such", "2001:db8::1", true);
    health.source_address = "2001:db8::2";
    probe.send(health, ctx6);
    EXPECT_EQ(log.lines(), (Lines{{4, err + "ioctl() failed to get source MAC adds No such device"},
                                  {7, "wan_lb: error on sending icmp6 packet: 19"}}));
}

TEST_F(Probes, missing_index_is_reported) {
    LBTestICMP probe;
    LBHealth health = uplink("lo", "192.0.2.1");
    const faults::FailCall no_index(faults::Call::ioctl, ENODEV, 2);
    probe.send(health, ctx);
    EXPECT_EQ(
        log.lines().front(),
        (LogLine{4, err + "if_nametoindex() failed to obtain interface index No such device"}));
}

TEST_F(Probes, source_that_is_on_no_interface_is_reported_by_each_probe_in_its_own_words) {
    LBTestICMP probe;
    LBHealth health = uplink("lo", "192.0.2.1");
    health.source_address = "192.0.2.77";
    probe.send(health, ctx);
    LBTestPING ping;
    health.history.last_resp.clear();
    ping.send(health, ctx);
    ASSERT_EQ(log.lines().size(), 4U);
    EXPECT_EQ(log.lines()[0].text, err + "address '192.0.2.77' not present on any interface");
    EXPECT_EQ(log.lines()[2].text, warn + "Address '192.0.2.77' not present on any interface");
    EXPECT_EQ(ping.last_result, 0);  // records nothing
    EXPECT_TRUE(health.failure_count.empty());
}

TEST_F(Probes, tunnels_and_modems_take_the_raw_socket) {
    for (const char* name : {"gre1", "modem0", "ip4ip4_1", "x-gre"}) {
        LBTestICMP probe;
        LBHealth health = uplink(name, "192.0.2.1");
        const auto before = log.lines().size();
        probe.send(health, ctx);
        const std::string text = log.lines().at(before).text;
        EXPECT_TRUE(text.starts_with(err + "wan_lb: failure to bind to interface: ")) << text;
    }
}

TEST_F(Probes, other_names_take_the_frame_path) {
    for (const char* name : {"eth77", "tun77", "gi9_9"}) {
        LBTestICMP probe;
        LBHealth health = uplink(name, "192.0.2.1");
        const auto before = log.lines().size();
        probe.send(health, ctx);
        EXPECT_TRUE(log.lines().at(before).text.starts_with(err + "ioctl() failed")) << name;
    }
}

TEST_F(Probes, extended_ping_treats_modems_as_ethernet) {
    LBTestPING probe;
    LBHealth health = uplink("modem7", "192.0.2.1");
    probe.send(health, ctx);
    EXPECT_TRUE(log.lines().front().text.starts_with(err + "ioctl() failed"));
    EXPECT_EQ(probe.last_result, 2);
    EXPECT_EQ(health.get_failure_ct_by_str("192.0.2.1"), 0);
    EXPECT_EQ(health.history.last_resp.at("192.0.2.1"), -1);
}

TEST_F(Probes, tunnel_target_that_is_no_name_is_reported_by_each_probe_in_its_own_words) {
    LBHealth health = uplink("gre_1", "192.0.2.1");
    LBTestICMP probe;
    probe.target = "no such.invalid";
    probe.send(health, ctx);
    LBTestPING ping;
    ping.target = "no such.invalid";
    ping.send(health, ctx);
    EXPECT_EQ(log.lines().at(0).text,
              err + "wan_lb: error in resolving configured hostname: no such.invalid");
    EXPECT_EQ(log.lines().at(2).text,
              warn + "Error in resolving configured hostname: no such.invalid");
    EXPECT_EQ(ping.last_result, 2);
}

TEST_F(Probes, tunnel_that_cannot_be_bound_is_named_as_the_router_does) {
    LBHealth health = uplink("gre_7", "192.0.2.1");
    LBTestPING ping;
    ping.send(health, ctx);
    EXPECT_EQ(log.lines().at(0).text, warn + "Failure to bind to interface: gre 7");
    LBTestICMP probe;
    LBHealth nameless = uplink("gre7", "192.0.2.1");
    probe.send(nameless, ctx);
    EXPECT_EQ(log.lines().at(2).text,
              err + "wan_lb: failure to bind to interface: unknown interface");
}

TEST_F(Probes, host_name_passes_the_resolver_and_fails_as_an_address) {
    const Fd bindable(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    LBTestICMP probe;
    EXPECT_EQ(probe.send_for_tunnel(bindable.get(), "lo", "localhost", 1, ctx), -1);
    EXPECT_EQ(log.lines(), (Lines{{4, err + "inet_aton() failed: Invalid argument"}}));
}

/// The bytes with the process identifier and the checksum, which covers it, blanked at 2 to 5.
std::string blanked(Bytes message) {
    std::fill(message.begin() + 2, message.begin() + 6, std::uint8_t{0});
    return to_hex(message);
}

Bytes sent_to(const DatagramPair& pair) {
    Bytes message(100);
    const ssize_t length = ::recv(pair.far.get(), message.data(), message.size(), MSG_DONTWAIT);
    message.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return message;
}

TEST_F(Probes, echo_into_a_tunnel_is_bound_and_sent_to_the_socket) {
    const DatagramPair tunnel;
    LBTestICMP probe;
    EXPECT_EQ(probe.send_for_tunnel(tunnel.near.get(), "lo", "192.0.2.1", 0x1234, ctx), 24);
    EXPECT_EQ(blanked(sent_to(tunnel)), "080000000000000100001234000000000000000000000000");
    char bound[16] = {};
    socklen_t length = sizeof bound;
    getsockopt(tunnel.near.get(), SOL_SOCKET, SO_BINDTODEVICE, bound, &length);
    EXPECT_STREQ(bound, "lo");
}

TEST_F(Probes, ipv6_echo_into_a_tunnel_carries_the_time_before_the_identifier) {
    const DatagramPair tunnel;
    LBTestICMP6 probe;
    EXPECT_EQ(probe.send_for_tunnel(tunnel.near.get(), "lo", "2001:db8::1", 0x1234, ctx6), 40);
    EXPECT_EQ(blanked(sent_to(tunnel)),  // 1,700,000,000 s, 0 us
              "80000000000000016553f1000000000000001234"
              "0000000000000000000000000000000000000000");
}

/// A probe whose sends end as a test says.
struct ReportingProbe : LBTestICMP {
    void report(int count, int error) {
        report_failed_send(family_, {.count = count, .error = error});
    }
};

TEST_F(Probes, failed_send_is_a_debug_line_with_the_error_number) {
    ReportingProbe probe;
    probe.report(-1, EPERM);
    EXPECT_EQ(log.lines(), (Lines{{7, "wan_lb: error on sending icmp packet: 1"}}));
}

TEST_F(Probes, unreachable_network_and_a_send_that_went_are_silent) {
    ReportingProbe probe;
    probe.report(-1, ENETUNREACH);
    probe.report(46, EPERM);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Probes, timed_out_probe_counts_against_its_target_and_is_sent_anew) {
    LBTestICMP probe;
    probe.ns_name = "probe test";
    LBTest::_received.set("probe test", true);  // no receiver thread is needed
    LBHealth health = uplink("no such", "192.0.2.1");
    health.failure_ct = 2;
    probe.send(health, ctx);
    clock.advance_ms(5000);
    probe.recv(health, ctx);
    EXPECT_EQ(probe.last_result, 0);
    clock.advance_ms(1);
    probe.recv(health, ctx);
    EXPECT_EQ(probe.last_result, 2);
    EXPECT_EQ(health.get_failure_ct_by_str("192.0.2.1"), 1);
    probe.send(health, ctx);
    EXPECT_EQ(LBTest::_results.size(), 1U);
}

TEST_F(Probes, answered_ipv6_probe_counts_for_its_target) {
    LBTestICMP6 probe;
    probe.ns_name = "probe test";
    LBTest6::_received.set("probe test", true);
    LBHealth health = uplink("no such", "2001:db8::1", true);
    health.source_address = "2001:db8::2";
    health.success_ct = 2;
    probe.send(health, ctx6);
    LBTest6::_results.mark_answered(LBTest6::_packet_id);
    probe.recv(health, ctx);
    EXPECT_EQ(probe.last_result, 0);  // not in the context of the other family
    probe.recv(health, ctx6);
    EXPECT_EQ(probe.last_result, 1);
    EXPECT_EQ(health.get_success_ct_by_str("2001:db8::1"), 1);
}

TEST_F(Probes, configured_source_of_an_ipv6_probe_stays) {
    LBTestICMP6 probe;
    LBHealth health = uplink("no such", "2001:db8::1", true);
    health.source_address = "2001:db8::2";
    probe.send(health, ctx6);
    EXPECT_EQ(health.source_address, "2001:db8::2");
}

/// The checksums that the classes offer, over messages whose sums are worked out by hand.
struct ProbeChecksums : testing::Test {
    ProbeChecksums() {
        ip.ip6_nxt = 58;
        // Sum of both addresses, 2001:db8::2 and 2001:db8:1::5: 0x5b7a.
        ip.ip6_src = {{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}}};
        ip.ip6_dst = {{{0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5}}};
    }
    ip6_hdr ip{};
    unsigned char data[4] = {0x01, 0x02, 0x03, 0x04};
};

TEST_F(ProbeChecksums, of_an_icmp_message_ignore_the_one_in_the_header) {
    icmphdr header{};
    header.type = 8;
    header.checksum = 0xffee;
    header.un.echo.id = htons(0x1234);
    LBTestICMP probe;
    LBTestPING ping;
    // 0x0800 + 0x1234 + 0x0102 + 0x0304 = 0x1e3a
    EXPECT_EQ(probe.icmp4_checksum(header, data, 4), 0xe1c5);
    EXPECT_EQ(ping.icmp4_checksum(header, data, 4), 0xe1c5);
    // Three bytes are padded: 0x0800 + 0x1234 + 0x0102 + 0x0300 = 0x1e36
    EXPECT_EQ(probe.icmp4_checksum(header, data, 3), 0xe1c9);
}

TEST_F(ProbeChecksums, of_an_icmpv6_message_cover_the_pseudo_header) {
    icmp6_hdr header{};
    header.icmp6_type = 128;
    header.icmp6_cksum = 0xffee;
    header.icmp6_id = htons(0x1234);
    LBTestICMP6 probe;
    // 0x5b7a + length 12 + next header 58 + 0x8000 + 0x1234 + 0x0102 + 0x0304 = 0xf1fa
    EXPECT_EQ(probe.in_checksum(ip, header, data, 4), 0x0e05);
    EXPECT_EQ(LBNeighbor().icmp6_checksum(ip, header, data, 4), 0x0e05);
    // Three bytes: length 11 and 0x0300 instead of 0x0304
    EXPECT_EQ(probe.in_checksum(ip, header, data, 3), 0x0e0a);
}

TEST_F(ProbeChecksums, of_bytes_are_the_same_in_every_class) {
    alignas(unsigned short) unsigned char bytes[4] = {0x12, 0x34, 0x00, 0x01};
    auto* words = reinterpret_cast<unsigned short*>(bytes);
    EXPECT_EQ(LBTestICMP().in_checksum(words, 4), 0xedca);
    EXPECT_EQ(LBTestPING().in_checksum(words, 4), 0xedca);
    EXPECT_EQ(LBTestICMP6().checksum(words, 4), 0xedca);
    EXPECT_EQ(LBNeighbor().checksum(words, 4), 0xedca);
}

TEST_F(Probes, echo_of_the_wrong_family_is_not_sent) {
    const auto expect_refused = [](const auto& send) {
        errno = 0;
        EXPECT_EQ(send(), -1);
        EXPECT_EQ(errno, EAFNOSUPPORT);
    };
    LBTestICMP probe;
    expect_refused(
        [&] { return probe.send_for_interfaces(0, "lo", "192.0.2.1", "", "", 1, ctx6); });
    expect_refused([&] { return probe.send_for_tunnel(0, "gre_1", "192.0.2.1", 1, ctx6); });
    LBTestICMP6 probe6;
    expect_refused(
        [&] { return probe6.send_for_interfaces(0, "lo", "2001:db8::1", "", "", 1, ctx); });
    expect_refused([&] { return probe6.send_for_tunnel(0, "lo", "2001:db8::1", 1, ctx); });
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Probes, echo_without_an_interface_or_a_target_is_not_sent) {
    LBTestICMP probe;
    for (const auto& [ifname, target] : {std::pair("", "192.0.2.1"), std::pair("gre_1", "")}) {
        errno = 0;
        EXPECT_EQ(probe.send_for_tunnel(0, ifname, target, 1, ctx), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Probes, status_of_given_form_is_the_line_with_the_target) {
    LBTestICMP echo;
    LBTestICMP6 echo6;
    LBTestPING ping;
    echo.target = echo6.target = ping.target = "192.0.2.1";
    EXPECT_EQ(echo.status(ctx), "ping\tTarget: 192.0.2.1");
    EXPECT_EQ(echo6.status(ctx6), "ping\tTarget: 192.0.2.1");
    EXPECT_EQ(ping.status(ctx), "ping extended\tTarget: 192.0.2.1");
}

TEST_F(Probes, collecting_in_the_other_familys_context_does_nothing) {
    LBTestICMP probe;
    LBHealth health = uplink("no such", "192.0.2.1");
    probe.send(health, ctx);
    clock.advance_ms(60'000);
    probe.recv(health, ctx6);
    EXPECT_EQ(probe.last_result, 0);
}

TEST_F(Probes, ipv6_tunnel_echo_reports_in_its_own_words) {
    LBTestICMP6 probe;
    EXPECT_EQ(probe.send_for_tunnel(0, "gre_1", "no such.invalid", 1, ctx6), -1);
    EXPECT_EQ(probe.send_for_tunnel(0, "gre_1", "2001:db8::1", 1, ctx6), -1);
    EXPECT_EQ(probe.send_for_tunnel(0, "", "2001:db8::1", 1, ctx6), -1);
    EXPECT_EQ(log.lines(),
              (Lines{{4, warn + "Error in resolving configured hostname: no such.invalid"},
                     {4, err + "wan_lb: failure to bind to interface (ipv6): gre 1"}}));
}

TEST_F(Probes, ipv6_source_is_unspecified_where_there_is_no_link_local_address) {
    LBTestICMP6 probe;
    LBHealth health = uplink("no such", "2001:db8::1", true);
    probe.send(health, ctx6);
    EXPECT_EQ(health.source_address, "::");
}

TEST_F(Probes, missing_link_local_address_is_told_by_the_result_only) {
    LBTestICMP6 probe;
    sockaddr_in6 address{};
    EXPECT_EQ(probe.get_link_local_addr("no such", &address, ctx6), -2);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Probes, unreadable_address_list_is_reported) {
    LBTestICMP6 probe;
    sockaddr_in6 address{};
    const faults::FailCall no_list(faults::Call::getifaddrs, ENOMEM);
    EXPECT_EQ(probe.get_link_local_addr("lo", &address, ctx6), -1);
    EXPECT_EQ(log.lines(), (Lines{{4, err + "getifaddrs"}}));
}

TEST_F(Probes, link_local_address_that_cannot_be_printed_stops_the_probe) {
    LBTestICMP6 probe;
    LBHealth health = uplink("no such", "2001:db8::1", true);
    const faults::FailCall no_text(faults::Call::inet_ntop, ENOSPC);
    probe.send(health, ctx6);
    EXPECT_EQ(log.lines(), (Lines{{4, err + "inet_ntop failed! No space left on device"}}));
    EXPECT_EQ(probe.status(), "");
    EXPECT_EQ(LBTest6::_results.size(), 0U);
}

TEST_F(Probes, dump_line_tells_target_and_timeout) {
    LBTestICMP probe;
    probe.target = "192.0.2.1";
    EXPECT_EQ(probe.dump(ctx), "target: 192.0.2.1, resp_time: 5000");
    LBTestICMP6 probe6;
    probe6.timeout = -1;
    EXPECT_EQ(probe6.dump(ctx6), "target: , resp_time: 4294967295");
    LBTestPING ping;
    EXPECT_EQ(ping.dump(ctx), "target: , resp_time: 5000");
    EXPECT_EQ(ping.name(), "ping extended");
}

TEST_F(Probes, second_init_of_a_probe_changes_nothing) {
    LBTestICMP probe;
    TestContext first(false, "init test");
    LBTest::_initialized.set("init test", true);
    probe.init(first);
    EXPECT_EQ(probe.status(), "ping");
    EXPECT_EQ(probe.ns_name, "init test");
    probe.status_text = "ping\tTarget: a";
    probe.init(first);
    EXPECT_EQ(probe.status(), "ping\tTarget: a");
}

/// How often an extended ping tried to run: each try fails with a message.
struct Periods : Probes {
    std::size_t runs_after_sending() {
        probe.send(health, ctx);
        return log.lines().size() / 2;
    }
    LBTestPING probe;
    LBHealth health = uplink("no such", "192.0.2.1");
};

TEST_F(Periods, second_run_comes_a_period_after_the_first_and_then_every_cycle_runs) {
    probe.period = 240;
    EXPECT_EQ(runs_after_sending(), 1U);
    clock.advance_ms(239'999);
    EXPECT_EQ(runs_after_sending(), 1U);
    clock.advance_ms(1);
    EXPECT_EQ(runs_after_sending(), 2U);
    clock.advance_ms(1000);
    EXPECT_EQ(runs_after_sending(), 3U);
}

TEST_F(Periods, months_later_every_cycle_still_runs) {
    EXPECT_EQ(runs_after_sending(), 1U);
    clock.advance_ms(40LL * 86'400'000);
    EXPECT_EQ(runs_after_sending(), 2U);
}

TEST_F(Periods, failed_run_is_recorded_against_the_target) {
    health.failure_ct = 5;
    runs_after_sending();
    EXPECT_EQ(health.get_failure_ct_by_str("192.0.2.1"), 1);
    EXPECT_EQ(probe.last_result, 2);
    probe.recv(health, ctx);
    EXPECT_EQ(health.get_failure_ct_by_str("192.0.2.1"), 1);
}

}  // namespace

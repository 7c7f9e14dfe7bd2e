// What the simulated machine answers to each question of host/'s headers, beside what runs of the
// daemon on it ask.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "base/address_text.h"
#include "host/addresses.h"
#include "host/change_monitor.h"
#include "host/connection_tracking.h"
#include "host/files.h"
#include "host/links.h"
#include "host/namespaces.h"
#include "host/neighbours.h"
#include "host/packets.h"
#include "host/simulated/simulation.h"
#include "wire/frame_builder.h"

namespace {

using Call = Simulation::Call;

constexpr MacAddress hop_mac{2, 0, 0, 0, 2, 1};

class SimulatedMachine : public testing::Test {
  protected:
    SimulatedMachine() {
        Simulation::Link& link = sim.add_link("gi1_1");
        link.addresses = {"2001:db8::10", "192.0.2.10"};
        link.next_hops["192.0.2.1"].mac = hop_mac;
        sim.namespaces[""].targets["203.0.113.1"] = {};
        sim.add_link("tunnel").peer = "198.51.100.1";
        sim.add_link("gi1_2", "blue");
    }
    /// From now on these calls fail.
    void break_down(std::set<Call> calls) { sim.faults = {std::move(calls), 100}; }

    static Ipv4Bytes four(const char* text) { return parse_ipv4(text).value(); }
    static Ipv6Bytes six(const char* text) { return parse_ipv6(text).value(); }

    static std::string text_of(FILE* stream) {
        std::string text;
        for (int letter = fgetc(stream); letter != EOF; letter = fgetc(stream)) {
            text += static_cast<char>(letter);
        }
        return text;
    }

    Simulation sim;
};

TEST_F(SimulatedMachine, links_have_numbers_and_addresses_of_their_own) {
    const host::Link first = host::ask_link("gi1_1");
    EXPECT_EQ(first.failed, host::Link::Step::none);
    EXPECT_EQ(first.error, 0);
    EXPECT_EQ(first.index, 1);
    EXPECT_EQ(first.mac, (MacAddress{2, 0, 0, 1, 0, 1}));
    EXPECT_EQ(host::ask_link("tunnel").index, 2);
    EXPECT_EQ(host::ask_link("gi1_2").error, ENODEV) << "of another namespace";
    EXPECT_EQ(host::enter_namespace("/var/run/netns/blue"), host::NamespaceEntry::entered);
    EXPECT_EQ(host::ask_link("gi1_2").index, 3);
    EXPECT_EQ(host::ask_link("gi1_2").mac, (MacAddress{2, 0, 0, 1, 0, 3}));
    sim.namespaces[""].links["tunnel"].index = 0x1234;
    EXPECT_EQ(sim.add_link("late").mac, (MacAddress{2, 0, 0, 1, 0x12, 0x35}));
}

TEST_F(SimulatedMachine, namespace_that_is_not_there_is_not_entered) {
    EXPECT_EQ(host::enter_namespace("/var/run/netns/red"), host::NamespaceEntry::not_opened);
    EXPECT_EQ(sim.namespace_in_force, "");
    EXPECT_EQ(host::enter_namespace("blue"), host::NamespaceEntry::entered);
    EXPECT_EQ(sim.namespace_in_force, "blue");
}

TEST_F(SimulatedMachine, link_that_is_gone_has_no_addresses) {
    EXPECT_EQ(host::primary_address("gi1_1").address, four("192.0.2.10"));
    EXPECT_EQ(host::primary_address("gi1_1").error, 0);
    EXPECT_EQ(host::primary_address("tunnel").error, EADDRNOTAVAIL);
    EXPECT_EQ(host::primary_address("none").error, ENODEV);
    EXPECT_EQ(host::ask_link("none").failed, host::Link::Step::mac);
    break_down({Call::primary_address, Call::link});
    EXPECT_EQ(host::primary_address("gi1_1").error, EADDRNOTAVAIL);
    EXPECT_EQ(host::ask_link("gi1_1").error, ENODEV);
    EXPECT_EQ(host::ask_link("gi1_1").failed, host::Link::Step::mac);
}

TEST_F(SimulatedMachine, peer_is_told_of_a_point_to_point_link_alone) {
    host::PeerRequest request(true);
    EXPECT_EQ(host::ask_peer("tunnel", request), 0);
    EXPECT_EQ(request.address, four("198.51.100.1"));
    EXPECT_EQ(request.family, host::PeerRequest(false).family);
    EXPECT_NE(host::PeerRequest(true).family, host::PeerRequest(false).family);
    EXPECT_EQ(host::ask_peer("gi1_1", request), EADDRNOTAVAIL);
    EXPECT_EQ(host::ask_peer("none", request), ENODEV);
    break_down({Call::peer});
    EXPECT_EQ(host::ask_peer("tunnel", request), EADDRNOTAVAIL);
}

TEST_F(SimulatedMachine, addresses_are_listed_of_the_namespace_in_force) {
    sim.namespaces[""].links["tunnel"].addresses = {"no address"};
    const auto addresses = host::interface_addresses();
    ASSERT_TRUE(addresses);
    ASSERT_EQ(addresses->size(), 2U);
    EXPECT_TRUE(addresses->at(0).is_ipv6);
    EXPECT_EQ(addresses->at(0).ifname, "gi1_1");
    EXPECT_EQ(addresses->at(0).ipv6, six("2001:db8::10"));
    EXPECT_EQ(addresses->at(0).scope, 1U);
    EXPECT_FALSE(addresses->at(1).is_ipv6);
    EXPECT_EQ(addresses->at(1).ipv4, four("192.0.2.10"));
    sim.namespace_in_force = "blue";
    EXPECT_TRUE(host::interface_addresses().value().empty());
    break_down({Call::addresses});
    EXPECT_FALSE(host::interface_addresses());
}

TEST_F(SimulatedMachine, names_are_addresses_of_the_family_asked_for) {
    EXPECT_EQ(host::resolve("192.0.2.1", false).status, 0);
    EXPECT_EQ(host::resolve("192.0.2.1", false).ipv4, four("192.0.2.1"));
    EXPECT_EQ(host::resolve("2001:db8::1", true).status, 0);
    EXPECT_EQ(host::resolve("2001:db8::1", true).ipv6, six("2001:db8::1"));
    EXPECT_NE(host::resolve("192.0.2.1", true).status, 0);
    EXPECT_NE(host::resolve("2001:db8::1", false).status, 0);
    EXPECT_NE(host::resolve("example.net", false).status, 0);
    EXPECT_EQ(host::resolver_text(1), "Name or service not known");
    break_down({Call::resolve});
    EXPECT_NE(host::resolve("192.0.2.1", false).status, 0);
}

TEST_F(SimulatedMachine, changes_are_told_once_to_each_who_asks) {
    host::ChangeMonitor monitor;
    EXPECT_TRUE(monitor.take().of_links) << "all that was before";
    EXPECT_FALSE(monitor.take().of_links);
    sim.announce_change();
    host::ChangeMonitor other;
    EXPECT_TRUE(other.take().of_neighbours);
    const host::Changes changes = monitor.take();
    EXPECT_TRUE(changes.of_links && changes.of_neighbours);
    EXPECT_FALSE(monitor.take().of_neighbours);
}

TEST_F(SimulatedMachine, neighbours_are_of_their_namespace_and_link) {
    using State = host::ArpEntry::State;
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "gi1_1").state, State::missing);
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "gi1_1").error, ENXIO);
    EXPECT_EQ(host::write_arp_entry(four("192.0.2.1"), hop_mac, "gi1_1"),
              host::ArpWritten::written);
    EXPECT_EQ(sim.changes, 1U);
    const host::ArpEntry entry = host::ask_arp_entry(four("192.0.2.1"), "gi1_1");
    EXPECT_EQ(entry.state, State::complete);
    EXPECT_EQ(entry.error, 0);
    EXPECT_EQ(entry.mac, hop_mac);
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "tunnel").state, State::missing);
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "none").state, State::refused);
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "none").error, ENODEV);
    EXPECT_EQ(host::write_arp_entry(four("192.0.2.1"), hop_mac, "none"), host::ArpWritten::refused);
    EXPECT_TRUE(host::write_neighbor("fe80::1", "gi1_1", hop_mac));
    EXPECT_FALSE(host::write_neighbor("fe80::1", "none", hop_mac));
    EXPECT_FALSE(host::write_neighbor("192.0.2.1", "gi1_1", hop_mac));
    const auto neighbours = host::dump_neighbors();
    ASSERT_TRUE(neighbours);
    ASSERT_EQ(neighbours->size(), 1U) << "of IPv6 alone";
    EXPECT_EQ(neighbours->at(0).address, "fe80::1");
    EXPECT_EQ(neighbours->at(0).mac, hop_mac);
    sim.namespace_in_force = "blue";
    EXPECT_TRUE(host::dump_neighbors().value().empty());
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "gi1_2").state, State::missing);
}

TEST_F(SimulatedMachine, tables_of_neighbours_can_fail) {
    host::write_arp_entry(four("192.0.2.1"), hop_mac, "gi1_1");
    break_down({Call::arp_entry, Call::write_arp_entry, Call::neighbours, Call::write_neighbour});
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "gi1_1").state,
              host::ArpEntry::State::no_socket);
    EXPECT_EQ(host::ask_arp_entry(four("192.0.2.1"), "gi1_1").error, ENFILE);
    EXPECT_EQ(host::write_arp_entry(four("192.0.2.1"), hop_mac, "gi1_1"),
              host::ArpWritten::refused);
    EXPECT_FALSE(host::dump_neighbors());
    EXPECT_FALSE(host::write_neighbor("fe80::1", "gi1_1", hop_mac));
    EXPECT_EQ(sim.neighbours.size(), 1U);
}

TEST_F(SimulatedMachine, echoes_are_tracked_by_their_addresses) {
    host::ConnectionTracking tracking;
    host::TrackedEcho echo4;
    std::ranges::copy(four("192.0.2.10"), echo4.source.begin());
    std::ranges::copy(four("203.0.113.1"), echo4.destination.begin());
    host::TrackedEcho echo6{
        .is_ipv6 = true, .source = six("2001:db8::10"), .destination = six("2001:db8::1")};
    std::array echoes{echo4, echo6};
    tracking.enter_echoes(echoes, 1);
    EXPECT_TRUE(echoes[0].is_entered && echoes[1].is_entered);
    const std::set<std::pair<std::string, std::string>> tracked{{"192.0.2.10", "203.0.113.1"},
                                                                {"2001:db8::10", "2001:db8::1"}};
    EXPECT_EQ(sim.tracked_echoes, tracked);
    break_down({Call::track});
    EXPECT_FALSE(tracking.enter_echo("192.0.2.10", "203.0.113.2", false, 1));
    tracking.enter_echoes(echoes, 1);
    EXPECT_FALSE(echoes[0].is_entered || echoes[1].is_entered);
    EXPECT_EQ(sim.tracked_echoes.size(), 2U);
}

TEST_F(SimulatedMachine, faults_hit_their_share_of_the_calls_named) {
    sim.faults = {{Call::link}, 30};
    int failed = 0;
    for (int i = 0; i < 1000; ++i) {
        failed += host::ask_link("gi1_1").error != 0 ? 1 : 0;
        EXPECT_EQ(host::primary_address("gi1_1").error, 0);
    }
    EXPECT_GT(failed, 240);
    EXPECT_LT(failed, 360);
}

TEST_F(SimulatedMachine, file_is_read_as_it_was_written) {
    {
        const host::File file = host::open_file("/a", "w");
        fputs("one\ntwo", file.get());
    }
    EXPECT_EQ(sim.files.at("/a"), "one\ntwo");
    EXPECT_EQ(text_of(host::open_file("/a", "r").get()), "one\ntwo");
    EXPECT_EQ(text_of(host::open_regular_file("/a").get()), "one\ntwo");
    { const host::File file = host::open_file("/a", "w"); }
    EXPECT_EQ(sim.files.at("/a"), "");
    EXPECT_EQ(sim.writings.at("/a"), 2);
    EXPECT_EQ(host::open_file("/b", "r"), nullptr);
    host::remove_file("/a");
    EXPECT_EQ(host::open_file("/a", "r"), nullptr);
}

TEST_F(SimulatedMachine, files_can_fail_one_way_alone) {
    sim.files["/a"] = "text";
    break_down({Call::write_file});
    EXPECT_EQ(host::open_file("/a", "w"), nullptr);
    EXPECT_EQ(text_of(host::open_file("/a", "r").get()), "text");
    EXPECT_EQ(host::make_directory("/d"), 0);
    break_down({Call::read_file, Call::make_directory, Call::command});
    EXPECT_EQ(host::open_file("/a", "r"), nullptr);
    EXPECT_NE(host::open_file("/a", "w"), nullptr);
    EXPECT_EQ(host::make_directory("/d"), EROFS);
    EXPECT_EQ(host::open_command("cat /a", "r"), nullptr);
    EXPECT_TRUE(sim.commands.empty());
}

TEST_F(SimulatedMachine, commands_are_noted_and_cat_reads) {
    sim.files["/a"] = "text";
    const auto output = [](const char* command) {
        FILE* const stream = host::open_command(command, "r");
        std::string text = text_of(stream);
        host::close_command(stream);
        return text;
    };
    EXPECT_EQ(output("cat /a 2>/dev/null"), "text");
    EXPECT_EQ(output("cat /a"), "text");
    EXPECT_EQ(output("cat /b"), "");
    EXPECT_EQ(output("ip route flush cache"), "");
    FILE* const sink = host::open_command("cat >/a", "w");
    EXPECT_GT(fputs("gone", sink), 0);
    EXPECT_EQ(host::close_command(sink), 0);
    EXPECT_EQ(sim.files.at("/a"), "text");
    EXPECT_EQ(sim.commands, (std::vector<std::string>{"cat /a 2>/dev/null", "cat /a", "cat /b",
                                                      "ip route flush cache", "cat >/a"}));
}

TEST_F(SimulatedMachine, routing_daemon_takes_its_fragment_by_a_signal) {
    Simulation::RoutingDaemon& first = sim.add_routing_daemon(10, false);
    Simulation::RoutingDaemon& other = sim.add_routing_daemon(11, true, "blue");
    EXPECT_EQ(sim.files.at("/var/run/routing.pid"), "10\n");
    EXPECT_EQ(sim.files.at("/var/vrfs/blue/usr/var/run/routing6.pid"), "11\n");
    EXPECT_EQ(first.fragment_path, "/usr/etc/routing-wlb.conf");
    EXPECT_EQ(other.fragment_path, "/var/vrfs/blue/usr/etc/routing6-wlb.conf");
    sim.files[first.fragment_path] = "routes";
    EXPECT_EQ(first.routes_in_force, "");
    host::signal_reload(10);
    host::signal_reload(12);
    EXPECT_EQ(first.routes_in_force, "routes");
    EXPECT_EQ(first.reloads, 1);
    EXPECT_EQ(other.reloads, 0);
}

TEST_F(SimulatedMachine, sockets_that_are_closed_or_refused_are_none) {
    const std::vector<std::uint8_t> packet(12);
    std::array<std::uint8_t, 64> buffer{};
    for (const int number : {-1, 0, 100, 101}) {
        EXPECT_EQ(host::send_frame(number, 1, {}, packet).error, EBADF);
        EXPECT_EQ(host::send_frame(number, 1, {}, packet).count, -1);
        EXPECT_EQ(host::receive(number, buffer).error, EBADF);
        EXPECT_EQ(host::bind_to_interface(number, "gi1_1"), EBADF);
        EXPECT_EQ(host::wait_for_packet(number, {}, 1000), host::Woken::failed);
    }
    const host::OpenedSocket socket = host::open_echo_sender(false);
    ASSERT_TRUE(socket.is_open());
    EXPECT_EQ(host::bind_to_interface(socket.number, "none"), ENODEV);
    EXPECT_EQ(host::bind_to_interface(socket.number, "gi1_2"), ENODEV);
    EXPECT_EQ(host::bind_to_interface(socket.number, "gi1_1"), 0);
    EXPECT_NE(host::open_echo_sender(true).number, socket.number);
    host::close_socket(socket.number);
    EXPECT_EQ(host::bind_to_interface(socket.number, "gi1_1"), EBADF);
    break_down({Call::open_socket});
    EXPECT_FALSE(host::open_frame_sender().is_open());
    EXPECT_EQ(host::open_arp_receiver().error, ENFILE);
}

TEST_F(SimulatedMachine, frame_needs_a_link_that_is_up) {
    const int sender = host::open_frame_sender().number;
    const std::vector<std::uint8_t> frame(60);
    EXPECT_EQ(host::send_frame(sender, 1, {}, frame).count, 60);
    EXPECT_EQ(host::send_frame(sender, 3, {}, frame).error, ENXIO) << "of another namespace";
    sim.namespaces[""].links["gi1_1"].is_up = false;
    EXPECT_EQ(host::send_frame(sender, 1, {}, frame).error, ENETDOWN);
    const std::array frames{host::OutgoingFrame{.interface_index = 2, .frame = frame},
                            host::OutgoingFrame{.interface_index = 1, .frame = frame},
                            host::OutgoingFrame{.interface_index = 2, .frame = frame}};
    EXPECT_EQ(host::send_frames(sender, frames).count, 1);
    EXPECT_EQ(host::send_frames(sender, frames).error, ENETDOWN);
    EXPECT_EQ(host::send_frames(sender, std::span(frames).first(1)).error, 0);
    break_down({Call::send_frame});
    EXPECT_EQ(host::send_frame(sender, 2, {}, frame).error, ENOBUFS);
    EXPECT_EQ(host::send_frame(sender, 2, {}, frame).count, -1);
}

TEST_F(SimulatedMachine, next_hop_answers_for_its_own_address_after_a_millisecond) {
    const int sender = host::open_frame_sender().number;
    const int receiver = host::open_arp_receiver().number;
    const auto ask = [&](const char* address) {
        const auto frame = arp_request_frame({2, 0, 0, 1, 0, 1}, four("192.0.2.10"), four(address));
        host::send_frame(sender, 1, {}, bytes_of(frame));
    };
    ask("192.0.2.2");
    EXPECT_EQ(host::wait_for_packet(receiver, {}, 10'000), host::Woken::by_time);
    const std::int64_t asked_us = sim.now_us();
    ask("192.0.2.1");
    EXPECT_EQ(host::wait_for_packet(receiver, {}, 10'000), host::Woken::by_packet);
    EXPECT_EQ(sim.now_us(), asked_us + 1000);
    EXPECT_EQ(sim.solicitations_sent, 2);
    std::array<std::uint8_t, 64> buffer{};
    ASSERT_EQ(host::receive(receiver, buffer).count, 42);
    const auto reply = read_at<ArpFrame>(buffer, 0);
    EXPECT_EQ(reply.operation, arp_reply);
    EXPECT_EQ(reply.sender_mac, hop_mac);
    EXPECT_EQ(reply.sender_address, four("192.0.2.1"));
    EXPECT_EQ(reply.target_mac, (MacAddress{2, 0, 0, 1, 0, 1}));
    EXPECT_EQ(reply.target_address, four("192.0.2.10"));
    EXPECT_EQ(reply.ethernet.destination, (MacAddress{2, 0, 0, 1, 0, 1}));
    EXPECT_EQ(reply.ethernet.source, hop_mac);
    EXPECT_EQ(host::receive(receiver, buffer).error, EAGAIN);
}

TEST_F(SimulatedMachine, echo_comes_back_with_its_number_from_its_target) {
    const int sender = host::open_frame_sender().number;
    const int receiver = host::open_reply_receiver(false, 1).number;
    const auto send = [&](const MacAddress& to) {
        const auto frame = echo_frame4(to, {2, 0, 0, 1, 0, 1}, four("192.0.2.10"),
                                       four("203.0.113.1"), 7, 0x01020304);
        host::send_frame(sender, 1, {}, bytes_of(frame));
    };
    send({2, 0, 0, 0, 9, 9});
    EXPECT_EQ(sim.echoes_sent, 0) << "nobody has that MAC";
    send(hop_mac);
    EXPECT_EQ(sim.echoes_sent, 1);
    const std::int64_t sent_us = sim.now_us();
    EXPECT_EQ(host::wait_for_packet(receiver, {}, 1'000'000), host::Woken::by_packet);
    EXPECT_EQ(sim.now_us(), sent_us + 10'000);
    std::array<host::PacketFront, 3> places{};
    EXPECT_EQ(host::receive_many(receiver, places).count, 1);
    ASSERT_EQ(places[0].size, sizeof(Ipv4Header) + sizeof(IcmpEcho));
    EXPECT_EQ(read_at<Ipv4Header>(places[0].bytes, 0).source, four("203.0.113.1"));
    const auto reply = read_at<IcmpEcho>(places[0].bytes, sizeof(Ipv4Header));
    EXPECT_EQ(reply.type, icmp_echo_reply);
    EXPECT_EQ(reply.identifier, 7);
    EXPECT_EQ(reply.packet_id, 0x01020304U);
    EXPECT_EQ(host::receive_many(receiver, places).error, EAGAIN);
    EXPECT_EQ(host::receive_many(receiver, places).count, -1);
}

TEST_F(SimulatedMachine, receiver_can_fail_and_keeps_what_waits) {
    const int sender = host::open_frame_sender().number;
    const int receiver = host::open_reply_receiver(false, 1).number;
    const auto frame =
        echo_frame4(hop_mac, {2, 0, 0, 1, 0, 1}, four("192.0.2.10"), four("203.0.113.1"), 7, 1);
    host::send_frame(sender, 1, {}, bytes_of(frame));
    sim.pass_s(1);
    std::array<std::uint8_t, 20> buffer{};
    break_down({Call::receive_answer});
    EXPECT_NE(host::receive(receiver, buffer).error, ENOMEM);
    host::send_frame(sender, 1, {}, bytes_of(frame));
    sim.pass_s(1);
    break_down({Call::receive_reply});
    EXPECT_EQ(host::receive(receiver, buffer).error, ENOMEM);
    EXPECT_EQ(host::receive(receiver, buffer).count, -1);
    sim.faults = {};
    EXPECT_EQ(host::receive(receiver, buffer).count, 20) << "as much as the buffer takes";
}

TEST_F(SimulatedMachine, bell_wakes_who_waits_before_any_packet) {
    const int receiver = host::open_reply_receiver(false, 1).number;
    const std::int64_t begin_us = sim.now_us();
    {
        host::Bell bell;
        host::Bell other;
        EXPECT_NE(bell.number(), other.number());
        sim.after_us(5000, [&bell] { bell.ring(); });
        EXPECT_EQ(host::wait_for_packet(receiver, other, 2000), host::Woken::by_time);
        EXPECT_EQ(sim.now_us(), begin_us + 2000);
        EXPECT_EQ(host::wait_for_packet(receiver, bell, 9000), host::Woken::by_bell);
        EXPECT_EQ(sim.now_us(), begin_us + 5000);
        bell.silence();
        EXPECT_EQ(host::wait_for_packet(receiver, bell, 1000), host::Woken::by_time);
    }
    EXPECT_EQ(host::dropped_packets(receiver), 0U);
    EXPECT_EQ(host::damaged_messages6(), 0U);
    EXPECT_EQ(host::make_room(receiver, 77).granted, 77);
    EXPECT_EQ(host::make_room(receiver, 77).wanted, 77);
}

TEST_F(SimulatedMachine, what_is_due_happens_in_the_order_of_its_moments) {
    std::vector<int> order;
    sim.after_us(2000, [&order] { order.push_back(2); });
    sim.after_us(1000, [&order] { order.push_back(1); });
    sim.after_us(2000, [&order] { order.push_back(3); });
    sim.after_us(2001, [&order] { order.push_back(4); });
    EXPECT_EQ(sim.next_moment(), sim.now_us() + 1000);
    sim.pass_us(2000);
    EXPECT_EQ(order, (std::vector{1, 2, 3}));
    sim.pass_us(1);
    EXPECT_EQ(order.size(), 4U);
    EXPECT_EQ(sim.next_moment(), std::nullopt);
}

}  // namespace

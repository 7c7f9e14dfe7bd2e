// What a worker's view of its host knows, and how often it asks.

#include "probe/host_view.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <utility>

#include "base/address_text.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(SourceAddress, of_the_loopback_is_found_by_a_prefix_of_its_name) {
    HostView view;
    EXPECT_TRUE(view.has_source("lo", "127.0.0.1"));
    EXPECT_TRUE(view.has_source("l", "127.0.0.1"));
    EXPECT_FALSE(view.has_source("lox", "127.0.0.1"));
    EXPECT_FALSE(view.has_source("lo", "127.0.0.01"));
    EXPECT_FALSE(view.has_source("lo", "192.0.2.77"));
}

TEST(SourceAddress, is_found_by_the_call_of_given_form_too) {
    EXPECT_TRUE(check_src_addr_on_interface("lo", "127.0.0.1"));
    EXPECT_FALSE(check_src_addr_on_interface("lo", "192.0.2.77"));
}

/// Starts a pass after a change of addresses: one so large that its announcements were lost.
void begin_pass_after_a_change(HostView& view) {
    const FailCall overrun(Call::mnl_socket_recvfrom, ENOBUFS, 1);
    view.begin_pass();
}

TEST(SourceAddress, list_is_asked_again_only_after_a_change) {
    HostView view;
    view.begin_pass();  // subscribes to the announcements
    const FailCall counted(Call::getifaddrs, 0, 99);
    view.has_source("lo", "127.0.0.1");
    view.has_source("lo", "127.0.0.2");
    view.begin_pass();
    view.has_source("lo", "127.0.0.1");
    EXPECT_EQ(counted.calls(), 1);
    begin_pass_after_a_change(view);
    view.has_source("lo", "127.0.0.1");
    EXPECT_EQ(counted.calls(), 2);
}

TEST(SourceAddress, without_announcements_every_pass_asks) {
    HostView view;
    const FailCall no_subscription(Call::mnl_socket_bind, EPERM, 0);
    const FailCall counted(Call::getifaddrs, 0, 99);
    for (int pass = 0; pass < 3; ++pass) {
        view.begin_pass();
        view.has_source("lo", "127.0.0.1");
    }
    EXPECT_EQ(counted.calls(), 3);
}

TEST(SourceAddress, announcements_that_broke_off_are_subscribed_to_anew) {
    HostView view;
    view.begin_pass();  // subscribes
    const FailCall subscribed(Call::mnl_socket_open, 0, 99);
    {
        const FailCall broken(Call::mnl_socket_recvfrom, EBADF, 1);
        view.begin_pass();
    }
    EXPECT_EQ(subscribed.calls(), 0);
    view.begin_pass();
    EXPECT_EQ(subscribed.calls(), 1);
}

TEST(SourceAddress, unreadable_list_is_reported) {
    const CapturedLog log;
    const FailCall no_list(Call::getifaddrs, ENOMEM);
    EXPECT_FALSE(HostView().has_source("lo", "127.0.0.1"));
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{4, "%WAN-W-ERR: getifaddrs failed"}}));
}

/// A list of interface addresses as getifaddrs(3) links it.
class AddressList {
  public:
    AddressList& with(const std::string& name, const std::string& address) {
        Entry& entry = add(name);
        entry.address.sin6_family = AF_INET6;
        entry.address.sin6_scope_id = static_cast<std::uint32_t>(entries_.size());
        inet_pton(AF_INET6, address.c_str(), &entry.address.sin6_addr);
        entry.link.ifa_addr = reinterpret_cast<sockaddr*>(&entry.address);
        return *this;
    }
    AddressList& with_ipv4(const std::string& name) {
        // Were its family not looked at, the bytes would pass for fe80::.
        with(name, "fe80::4").entries_.back().address.sin6_family = AF_INET;
        return *this;
    }
    AddressList& without_address(const std::string& name) {
        add(name);
        return *this;
    }
    ifaddrs* first() { return &entries_.front().link; }

  private:
    struct Entry {
        std::string name;
        sockaddr_in6 address{};
        ifaddrs link{};
    };

    Entry& add(const std::string& name) {
        Entry& entry = entries_.emplace_back();
        entry.name = name;
        entry.link.ifa_name = entry.name.data();
        if (entries_.size() > 1) {
            entries_[entries_.size() - 2].link.ifa_next = &entry.link;
        }
        return entry;
    }

    std::deque<Entry> entries_;  // a deque never moves its entries
};

/// The address found, as text; "none" without one.
std::string found_in(AddressList& list, const std::string& ifname) {
    const faults::GivenAddresses given(list.first());
    const auto answer = HostView().find_link_local(ifname);
    return answer.address ? to_text(answer.address->ipv6).text : "none";
}

TEST(LinkLocalAddress, of_the_interface_is_taken) {
    AddressList list;
    list.with("eth0", "fe80::1").with("eth1", "fe80::2");
    EXPECT_EQ(found_in(list, "eth1"), "fe80::2");
}

TEST(LinkLocalAddress, global_address_is_not_taken) {
    AddressList list;
    list.with("eth1", "2001:db8::1");
    EXPECT_EQ(found_in(list, "eth1"), "none");
}

TEST(LinkLocalAddress, one_of_its_two_first_bytes_suffices) {
    AddressList second_byte;
    second_byte.with("eth1", "fd80::1");
    EXPECT_EQ(found_in(second_byte, "eth1"), "fd80::1");
    AddressList first_byte;
    first_byte.with("eth1", "fec0::1");
    EXPECT_EQ(found_in(first_byte, "eth1"), "fec0::1");
}

TEST(LinkLocalAddress, of_a_longer_name_is_taken_when_it_is_listed_first) {
    AddressList list;
    list.with("eth10", "fe80::10").with("eth1", "fe80::1");
    EXPECT_EQ(found_in(list, "eth1"), "fe80::10");
    EXPECT_EQ(found_in(list, "eth10"), "fe80::10");
}

TEST(LinkLocalAddress, of_a_longer_name_is_not_taken_when_it_is_listed_later) {
    AddressList list;
    list.with("eth1", "fe80::1").with("eth10", "fe80::10");
    EXPECT_EQ(found_in(list, "eth1"), "fe80::1");
}

TEST(LinkLocalAddress, of_a_shorter_name_is_not_taken) {
    AddressList list;
    list.with("eth1", "fe80::1");
    EXPECT_EQ(found_in(list, "eth10"), "none");
}

TEST(LinkLocalAddress, first_of_an_interface_counts) {
    AddressList list;
    list.with("eth1", "2001:db8::1").with("eth1", "fe80::1").with("eth1", "fe80::2");
    EXPECT_EQ(found_in(list, "eth1"), "fe80::1");
}

TEST(LinkLocalAddress, entries_of_other_kinds_are_passed_over) {
    AddressList list;
    list.without_address("eth1").with_ipv4("eth1").with("eth1", "fe80::1");
    EXPECT_EQ(found_in(list, "eth1"), "fe80::1");
}

TEST(LinkLocalAddress, keeps_its_scope) {
    AddressList list;
    list.with("eth0", "fe80::1").with("eth1", "fe80::1");
    const faults::GivenAddresses given(list.first());
    const auto answer = HostView().find_link_local("eth1");
    ASSERT_TRUE(answer.address);
    EXPECT_EQ(answer.address->scope, 2U);
}

TEST(LinkLocalAddress, unreadable_list_is_told_apart_from_a_missing_address) {
    const FailCall no_list(Call::getifaddrs, ENOMEM);
    EXPECT_FALSE(HostView().find_link_local("eth1").is_list_readable);
}

/// A view whose host announces what the test wants, and has an empty table of IPv6 neighbours.
struct Announced : testing::Test {
    Announced() {
        static constexpr faults::StandIns calls{.mnl_socket_recvfrom = receive};
        is_link_changed = is_neighbour_changed = false;
        faults::set_stand_ins(calls);
        view.begin_pass();  // subscribes
        learn();
    }
    ~Announced() override { faults::reset_stand_ins(); }

    static bool hears_of_neighbours(const mnl_socket* socket) {
        sockaddr_nl own{};
        socklen_t size = sizeof own;
        getsockname(mnl_socket_get_fd(socket), reinterpret_cast<sockaddr*>(&own), &size);
        return (own.nl_groups & RTMGRP_NEIGH) != 0;
    }
    /// An announcement fits nowhere, and is cut; the answer to a dump has room.
    static ssize_t receive(const mnl_socket* socket, void* data, size_t size) {
        if (size > 1024) {
            nlmsghdr end{};
            end.nlmsg_len = sizeof end;
            end.nlmsg_type = NLMSG_DONE;
            std::memcpy(data, &end, sizeof end);
            return sizeof end;
        }
        bool& is_announced = hears_of_neighbours(socket) ? is_neighbour_changed : is_link_changed;
        errno = std::exchange(is_announced, false) ? ENOSPC : EAGAIN;
        return -1;
    }

    void learn() {
        view.keep_end("eth0", "", {});
        view.keep_mac("eth0", "192.0.2.1", {2, 0, 0, 0, 0, 1});
        unsigned char mac[6];
        view.find_neighbor("2001:db8::1", mac);
        view.has_source("lo", "127.0.0.1");
    }
    /// What is asked anew in the pass that begins now.
    std::string asked_anew() {
        const FailCall dumps(Call::sendmsg, 0, 99);
        const FailCall lists(Call::getifaddrs, 0, 99);
        view.begin_pass();
        const bool is_mac_known = view.known_mac("eth0", "192.0.2.1") != nullptr;
        learn();
        return std::string(is_mac_known ? "" : "mac ") + (dumps.calls() == 0 ? "" : "neighbours ") +
               (lists.calls() == 0 ? "" : "addresses ");
    }

    static inline bool is_link_changed = false;
    static inline bool is_neighbour_changed = false;
    HostView view;
};

TEST_F(Announced, nothing_keeps_all) {
    EXPECT_EQ(asked_anew(), "");
}

TEST_F(Announced, neighbour_has_neighbours_of_both_families_asked_anew) {
    is_neighbour_changed = true;
    EXPECT_EQ(asked_anew(), "mac neighbours ");
    EXPECT_EQ(asked_anew(), "");
}

TEST_F(Announced, link_or_address_has_all_asked_anew) {
    is_link_changed = true;
    EXPECT_EQ(asked_anew(), "mac neighbours addresses ");
    EXPECT_EQ(asked_anew(), "");
}

TEST_F(Announced, neighbours_that_were_lost_leave_links_and_addresses_alone) {
    // The queue of links is read first, and is empty.
    const FailCall overrun(Call::mnl_socket_recvfrom, ENOBUFS, 2);
    EXPECT_EQ(asked_anew(), "mac neighbours ");
}

TEST_F(Announced, mac_is_that_of_one_next_hop_on_one_interface) {
    EXPECT_NE(view.known_mac("eth0", "192.0.2.1"), nullptr);
    EXPECT_EQ(view.known_mac("eth0", "192.0.2.2"), nullptr);
    EXPECT_EQ(view.known_mac("eth1", "192.0.2.1"), nullptr);
}

}  // namespace

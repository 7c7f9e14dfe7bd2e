#include "host/link_local_address.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>

#include <cerrno>
#include <deque>
#include <string>
#include <thread>

#include "unit/support/faults.h"

namespace {

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

/// Asks on a thread of its own, which knows no addresses yet.
LinkLocalAnswer ask(const std::string& ifname) {
    LinkLocalAnswer answer;
    std::thread([&answer, &ifname] { answer = find_link_local_address(ifname); }).join();
    return answer;
}

/// The address found, as text; "none" without one.
std::string found_in(AddressList& list, const std::string& ifname) {
    const faults::GivenAddresses given(list.first());
    const LinkLocalAnswer answer = ask(ifname);
    if (!answer.is_list_readable || !answer.address) {
        return "none";
    }
    std::array<char, INET6_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET6, &answer.address->sin6_addr, text.data(), text.size());
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
    const LinkLocalAnswer answer = ask("eth1");
    ASSERT_TRUE(answer.address);
    EXPECT_EQ(answer.address->sin6_scope_id, 2U);
}

TEST(LinkLocalAddress, unreadable_list_is_told_apart_from_a_missing_address) {
    const faults::FailCall no_list(faults::Call::getifaddrs, ENOMEM);
    EXPECT_FALSE(ask("eth1").is_list_readable);
}

}  // namespace

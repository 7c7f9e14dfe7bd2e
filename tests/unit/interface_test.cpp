#include "net/interface.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <cerrno>
#include <thread>

#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(AskLink, loopback_has_its_index_and_no_mac_address) {
    const LinkAnswer answer = ask_link("lo");
    EXPECT_EQ(answer.failed, LinkAnswer::Step::none);
    EXPECT_EQ(answer.index, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(answer.mac, MacAddress{});
}

TEST(AskLink, unknown_interface_fails_at_the_mac_address) {
    const LinkAnswer answer = ask_link("no-such-device");
    EXPECT_EQ(answer.failed, LinkAnswer::Step::mac);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(AskLink, names_the_step_without_a_socket) {
    LinkAnswer answer;
    std::thread asking([&] {  // a thread of its own: each keeps its first socket
        const FailCall fail(Call::socket, EMFILE);
        answer = ask_link("lo");
    });
    asking.join();
    EXPECT_EQ(answer.failed, LinkAnswer::Step::socket);
    EXPECT_EQ(answer.error, EMFILE);
}

TEST(AskLink, names_the_step_without_a_mac_address) {
    const FailCall fail(Call::ioctl, ENODEV, 1);
    const LinkAnswer answer = ask_link("lo");
    EXPECT_EQ(answer.failed, LinkAnswer::Step::mac);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(AskLink, names_the_step_without_an_index) {
    const FailCall fail(Call::ioctl, ENODEV, 2);
    const LinkAnswer answer = ask_link("lo");
    EXPECT_EQ(answer.failed, LinkAnswer::Step::index);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(PrimaryAddress, nothing_where_the_kernel_knows_none) {
    const FailCall fail(Call::ioctl, EADDRNOTAVAIL);
    EXPECT_FALSE(primary_address("lo").has_value());
    EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(AddressText, ipv4_is_dotted_decimal) {
    EXPECT_EQ(to_text(in_addr{htonl(0xc0000201U)}), "192.0.2.1");
}

TEST(AddressText, ipv6_is_canonical) {
    in6_addr address{};
    ASSERT_EQ(inet_pton(AF_INET6, "2001:0DB8:0:0:0:0:0:00aB", &address), 1);
    EXPECT_EQ(to_text(address), "2001:db8::ab");
}

}  // namespace

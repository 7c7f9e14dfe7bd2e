#include "host/links.h"

#include <gtest/gtest.h>
#include <net/if.h>

#include <cerrno>
#include <thread>

#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(AskLink, loopback_has_its_index_and_no_mac_address) {
    const host::Link answer = host::ask_link("lo");
    EXPECT_EQ(answer.failed, host::Link::Step::none);
    EXPECT_EQ(answer.index, static_cast<int>(if_nametoindex("lo")));
    EXPECT_EQ(answer.mac, MacAddress{});
}

TEST(AskLink, unknown_interface_fails_at_the_mac_address) {
    const host::Link answer = host::ask_link("no-such-device");
    EXPECT_EQ(answer.failed, host::Link::Step::mac);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(AskLink, names_the_step_without_a_socket) {
    host::Link answer;
    std::thread asking([&] {  // a thread of its own: each keeps its first socket
        const FailCall fail(Call::socket, EMFILE);
        answer = host::ask_link("lo");
    });
    asking.join();
    EXPECT_EQ(answer.failed, host::Link::Step::socket);
    EXPECT_EQ(answer.error, EMFILE);
}

TEST(AskLink, names_the_step_without_a_mac_address) {
    const FailCall fail(Call::ioctl, ENODEV, 1);
    const host::Link answer = host::ask_link("lo");
    EXPECT_EQ(answer.failed, host::Link::Step::mac);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(AskLink, names_the_step_without_an_index) {
    const FailCall fail(Call::ioctl, ENODEV, 2);
    const host::Link answer = host::ask_link("lo");
    EXPECT_EQ(answer.failed, host::Link::Step::index);
    EXPECT_EQ(answer.error, ENODEV);
}

TEST(PrimaryAddress, error_where_the_kernel_knows_none) {
    const FailCall fail(Call::ioctl, EADDRNOTAVAIL);
    EXPECT_EQ(host::primary_address("lo").error, EADDRNOTAVAIL);
}

}  // namespace

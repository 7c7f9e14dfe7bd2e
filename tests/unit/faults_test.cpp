#include "unit/support/faults.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <thread>

namespace {

using faults::Call;
using faults::FailCall;

TEST(Faults, hardened_variants_of_a_call_fail_too) {
    // A buffer of known size and a size known at run time only: hardened builds call __recv_chk,
    // __recvfrom_chk and __poll_chk for these.
    std::array<char, 8> buffer{};
    std::array<pollfd, 1> waited{pollfd{-1, POLLIN, 0}};
    volatile std::size_t size = 4;
    volatile nfds_t count = 1;
    const FailCall no_recv(Call::recv, ENOBUFS);
    const FailCall no_recvfrom(Call::recvfrom, ENOBUFS);
    const FailCall no_poll(Call::poll, ENOMEM);

    EXPECT_EQ(recv(-1, buffer.data(), size, 0), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(recvfrom(-1, buffer.data(), size, 0, nullptr, nullptr), -1);
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(poll(waited.data(), count, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
}

TEST(Faults, exactly_one_of_many_threads_calls_fails) {
    constexpr int calls_each = 200;
    const FailCall fail(Call::inet_ntop, EAFNOSUPPORT, 150);
    const auto count_failures = [](int& failures) {
        for (int i = 0; i < calls_each; ++i) {
            std::array<char, INET_ADDRSTRLEN> text{};
            const in_addr address{};
            failures += inet_ntop(AF_INET, &address, text.data(), text.size()) == nullptr ? 1 : 0;
        }
    };
    int failures[2] = {0, 0};
    std::thread other(count_failures, std::ref(failures[0]));
    count_failures(failures[1]);
    other.join();
    EXPECT_EQ(failures[0] + failures[1], 1);
    EXPECT_EQ(fail.calls(), 2 * calls_each);
}

}  // namespace

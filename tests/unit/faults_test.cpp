#include "unit/support/faults.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <thread>

#include "base/fd.h"

namespace {

using faults::Call;
using faults::FailCall;

TEST(Faults, every_call_fails_with_the_chosen_error) {
    const FailCall fail(Call::if_nametoindex, ENODEV);
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        EXPECT_EQ(if_nametoindex("lo"), 0U);
        EXPECT_EQ(errno, ENODEV);
    }
}

TEST(Faults, only_the_chosen_call_fails) {
    const FailCall fail(Call::open, EMFILE, 2);
    const Fd first(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    const Fd second(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    const Fd third(open("/proc/self/status", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(first.is_open());
    EXPECT_FALSE(second.is_open());
    EXPECT_TRUE(third.is_open());
}

TEST(Faults, calls_are_counted_whether_they_fail_or_not) {
    const FailCall fail(Call::socket, EMFILE, 2);
    for (int i = 0; i < 3; ++i) {
        const Fd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    EXPECT_EQ(fail.calls(), 3);
}

TEST(Faults, calls_work_again_afterwards) {
    { const FailCall fail(Call::socket, EMFILE); }
    const Fd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_TRUE(any.is_open());
}

TEST(Faults, pthread_functions_return_the_error) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    int result = 0;
    {
        const FailCall fail(Call::pthread_mutex_lock, EINVAL);
        result = pthread_mutex_lock(&mutex);
    }
    EXPECT_EQ(result, EINVAL);
}

TEST(Faults, streams_fail_with_a_null_pointer_or_no_items) {
    const FailCall no_file(Call::fopen, EACCES);
    EXPECT_EQ(fopen("/proc/self/status", "re"), nullptr);
    const FailCall no_items(Call::fwrite, ENOSPC);
    EXPECT_EQ(fwrite("x", 1, 1, stdout), 0U);
    EXPECT_EQ(errno, ENOSPC);
}

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

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include "base/fd.h"
#include "lbroute/event_loop.h"
#include "lbroute/holds.h"

namespace {

using lbroute::boottime_ms;
using lbroute::EventLoop;

class LbrouteEventLoop : public testing::Test {
  protected:
    /// How long it waited.
    std::int64_t waited_ms(std::optional<std::int64_t> deadline_ms) {
        const std::int64_t begin_ms = boottime_ms();
        loop.wait(deadline_ms);
        return boottime_ms() - begin_ms;
    }

    EventLoop loop;
    Fd event{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
};

TEST_F(LbrouteEventLoop, waits_until_its_deadline) {
    const std::int64_t deadline_ms = boottime_ms() + 150;
    loop.wait(deadline_ms);
    EXPECT_GE(boottime_ms(), deadline_ms);
    loop.wait(boottime_ms() - 1000);
    loop.wait(0);  // long over, and not "never"
    loop.wait(-5);
    const std::int64_t next_ms = boottime_ms() + 50;
    loop.wait(next_ms);
    EXPECT_GE(boottime_ms(), next_ms) << "a deadline that passed has left nothing behind";
}

TEST_F(LbrouteEventLoop, wakes_for_a_descriptor_before_its_deadline) {
    loop.watch(event.get());
    eventfd_write(event.get(), 1);
    EXPECT_LT(waited_ms(boottime_ms() + 600'000), 300'000);
    EXPECT_LT(waited_ms(std::nullopt), 300'000) << "it has not been read yet";
    eventfd_t count = 0;
    eventfd_read(event.get(), &count);
    const std::int64_t deadline_ms = boottime_ms() + 100;
    loop.wait(deadline_ms);
    EXPECT_GE(boottime_ms(), deadline_ms);
}

TEST_F(LbrouteEventLoop, forgets_the_deadline_of_the_wait_before) {
    loop.watch(event.get());
    eventfd_write(event.get(), 1);
    loop.wait(boottime_ms() + 50);
    EXPECT_LT(waited_ms(std::nullopt), 300'000);
}

}  // namespace

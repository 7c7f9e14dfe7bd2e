#include <gtest/gtest.h>

#include <algorithm>

#include "lbwatch/hook_queue.h"
#include "lbwatch/hooks.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;

Event change(const std::string& name, int number) {
    Event event;
    event.time_ms = at(number).wall_ms;
    event.uplink = key(name);
    event.from = number % 2 == 0 ? "active" : "failed";
    event.to = number % 2 == 0 ? "failed" : "active";
    return event;
}

TEST(LbwatchHookQueueOrder, events_of_one_uplink_go_one_after_the_other) {
    HookQueue queue;
    queue.add(change("eth0", 1));
    queue.add(change("eth0", 2));
    const auto first = queue.next();
    EXPECT_EQ(first, change("eth0", 1));
    EXPECT_FALSE(queue.next());
    queue.done(*first);
    EXPECT_EQ(queue.next(), change("eth0", 2));
}

TEST(LbwatchHookQueueOrder, at_most_eight_run_at_once) {
    HookQueue queue;
    for (int i = 0; i < 20; ++i) {
        queue.add(change("eth" + std::to_string(i), 1));
    }
    std::vector<Event> running;
    while (const auto event = queue.next()) {
        running.push_back(*event);
    }
    EXPECT_EQ(running.size(), 8U);
    queue.done(running.front());
    EXPECT_TRUE(queue.next());
    EXPECT_FALSE(queue.next());
    EXPECT_EQ(queue.waiting(), 11U);
}

TEST(LbwatchHookQueueOrder, no_uplink_is_passed_over) {
    HookQueue queue;
    for (int i = 0; i < 5; ++i) {
        queue.add(change("eth0", i));
        queue.add(change("eth1", i));
    }
    std::vector<std::string> order;
    while (const auto event = queue.next()) {
        order.push_back(event->uplink.name);
        queue.done(*event);
    }
    EXPECT_EQ(std::vector<std::string>(order.begin(), order.begin() + 4),
              (std::vector<std::string>{"eth0", "eth1", "eth0", "eth1"}));
    EXPECT_TRUE(queue.is_empty());
}

TEST(LbwatchHookQueueStorm, latest_state_wins_and_other_matters_stay) {
    HookQueue queue;
    Event hop = change("eth0", 0);
    hop.kind = EventKind::nexthop;
    queue.add(hop);
    std::size_t dropped = 0;
    for (int i = 1; i <= 1000; ++i) {
        dropped += queue.add(change("eth0", i));
    }
    EXPECT_LE(queue.waiting(), 17U);
    EXPECT_EQ(dropped + queue.waiting(), 1001U);
    std::vector<Event> handed;
    while (const auto event = queue.next()) {
        handed.push_back(*event);
        queue.done(*event);
    }
    EXPECT_EQ(handed.front(), hop);
    EXPECT_EQ(handed.back(), change("eth0", 1000));
}

TEST(LbwatchHookEnvironment, names_everything_and_is_harmless) {
    Event event = change("eth0", 2);
    event.uplink.namespace_name = "blue\n";
    event.after_s = 12;
    event.reason = "why";
    const auto environment = hook_environment(event);
    for (const char* variable :
         {"LB_EVENT=uplink", "LB_UPLINK=eth0", "LB_FAMILY=ipv4", "LB_NAMESPACE=blue\\x0a",
          "LB_FROM=active", "LB_TO=failed", "LB_AFTER=12", "LB_REASON=why",
          "LB_TIME=2026-11-21T12:00:02.000Z"}) {
        EXPECT_NE(std::find(environment.begin(), environment.end(), variable), environment.end())
            << variable;
    }
}

}  // namespace

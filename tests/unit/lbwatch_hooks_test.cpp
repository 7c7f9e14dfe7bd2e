#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

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

/// Real hooks in a folder of their own, under a clock that the test sets.
class LbwatchHooks : public testing::Test {
  protected:
    LbwatchHooks()
        : folder(testing::TempDir() + "lbwatch_hooks." + std::to_string(getpid())),
          hooks(folder, [this](const std::string& line) { notices += line + "\n"; }) {
        std::filesystem::create_directory(folder);
        std::filesystem::permissions(folder, std::filesystem::perms(0755));
    }
    ~LbwatchHooks() override { std::filesystem::remove_all(folder); }

    void hook(const std::string& name, const std::string& body) const {
        std::ofstream(folder + "/" + name) << "#!/bin/sh\n" << body;
        std::filesystem::permissions(folder + "/" + name, std::filesystem::perms(0755));
    }

    /// Tends the hooks, always in this second, until the condition holds; false after ten real
    /// ones.
    bool tend_until(double second, const std::function<bool()>& condition) {
        for (int i = 0; i < 1000 && !condition(); ++i) {
            pollfd wanted{.fd = hooks.fd(), .events = POLLIN, .revents = 0};
            poll(&wanted, 1, 10);
            hooks.tend(at(second));
        }
        return condition();
    }

    bool has_told(const std::string& text) const { return notices.find(text) != std::string::npos; }

    std::string written(const std::string& name) const {
        std::ifstream file(folder + "/" + name);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    /// A process that is gone, or waits for its parent to hear of it.
    static bool has_ended(const std::string& pid) {
        std::ifstream stat("/proc/" + pid + "/stat");
        std::string text{std::istreambuf_iterator<char>(stat), std::istreambuf_iterator<char>()};
        return text.empty() || text.find(") Z ") != std::string::npos;
    }

    std::string notices;
    std::string folder;
    Hooks hooks;
};

TEST_F(LbwatchHooks, one_that_hangs_is_killed_with_its_group_and_holds_up_nobody) {
    hook("hangs", "cd " + folder +
                      "\n[ $LB_UPLINK = eth0 ] || { echo $LB_UPLINK > .other; exit; }\n"
                      "sleep 1234 &\necho $! > .child\nwait\n");
    hooks.add(change("eth0", 1), at(0));
    hooks.add(change("eth1", 1), at(0));
    ASSERT_TRUE(tend_until(29, [&] { return written(".other") == "eth1\n"; }));
    ASSERT_TRUE(tend_until(29, [&] { return !written(".child").empty(); }));
    EXPECT_EQ(notices, "");
    EXPECT_TRUE(tend_until(30, [&] { return hooks.is_idle(); }));
    EXPECT_TRUE(has_told("hook hangs was killed with its group after 30 s, over: eth0 ipv4 "))
        << notices;
    std::string child = written(".child");
    child.pop_back();
    EXPECT_TRUE(tend_until(30, [&] { return has_ended(child); }));
}

TEST_F(LbwatchHooks, one_that_another_user_may_change_is_not_run) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root gives files away";
    }
    hook("open", "echo ran > " + folder + "/.open\n");
    std::filesystem::permissions(folder + "/open", std::filesystem::perms(0775));
    hook("foreign", "echo ran > " + folder + "/.foreign\n");
    ASSERT_EQ(chown((folder + "/foreign").c_str(), 1, 0), 0);
    hook("good", "echo ran > " + folder + "/.good\n");
    hooks.add(change("eth0", 1), at(0));
    EXPECT_TRUE(tend_until(1, [&] { return written(".good") == "ran\n" && hooks.is_idle(); }));
    EXPECT_EQ(written(".open") + written(".foreign"), "");
    EXPECT_TRUE(has_told("foreign") && has_told("its owner is not root")) << notices;
    EXPECT_TRUE(has_told("others than its owner may write it")) << notices;
}

TEST_F(LbwatchHooks, one_that_cannot_be_started_is_told_with_the_reason_and_the_next_is_run) {
    std::ofstream(folder + "/alien") << "#!/no/such/interpreter\n";
    std::filesystem::permissions(folder + "/alien", std::filesystem::perms(0755));
    hook("good", "echo ran > " + folder + "/.good\n");
    hooks.add(change("eth0", 1), at(0));
    EXPECT_TRUE(tend_until(1, [&] { return written(".good") == "ran\n" && hooks.is_idle(); }));
    EXPECT_EQ(notices, "hook alien cannot be run: No such file or directory\n");
}

TEST_F(LbwatchHooks, one_that_floods_its_output_is_told_in_part_and_read_on) {
    hook("floods", "yes flood | head -c 3000000; echo done > " + folder + "/.done\n");
    hooks.add(change("eth0", 1), at(0));
    EXPECT_TRUE(tend_until(1, [&] { return hooks.is_idle(); }));
    EXPECT_EQ(written(".done"), "done\n");
    EXPECT_TRUE(has_told("hook floods said more than that, which is dropped")) << notices;
    EXPECT_LT(notices.size(), 30'000U);
}

TEST_F(LbwatchHooks, what_runs_at_the_end_is_killed_and_what_waits_is_told) {
    hook("hangs", "exec sleep 1234\n");
    hooks.add(change("eth0", 1), at(0));
    hooks.add(change("eth0", 2), at(0));
    hooks.stop();
    EXPECT_TRUE(hooks.is_idle());
    EXPECT_TRUE(has_told("hook hangs was killed, as lbwatch ends")) << notices;
    EXPECT_TRUE(has_told("1 events were not handed to the hooks")) << notices;
}

}  // namespace

#include <gtest/gtest.h>

#include <functional>
#include <utility>

#include "config/lb_data.h"
#include "probe/lb_path_test.h"
#include "probe/lb_test.h"
#include "probe/probes_in_flight.h"
#include "unit/support/captured_log.h"
#include "unit/support/given_clock.h"
#include "unit/support/loaded.h"

namespace {

constexpr int success = 0;
constexpr int failure = -1;

LBHealth health_with(int success_ct, int failure_ct) {
    LBHealth health("gi1_1", false);
    health.success_ct = success_ct;
    health.failure_ct = failure_ct;
    return health;
}

void put_all(LBHealth& health, std::initializer_list<int> results) {
    for (const int result : results) {
        health.put(result, nullptr, "a");
    }
}

TEST(Put, verdict_moves_only_after_a_whole_run_of_successes) {
    LBHealth health = health_with(3, 2);
    health.history.last_resp["a"] = failure;
    put_all(health, {success, success, failure, success, success});
    EXPECT_EQ(health.history.last_resp.at("a"), failure);
    put_all(health, {success});
    EXPECT_EQ(health.history.last_resp.at("a"), success);
}

TEST(Put, verdict_moves_only_after_a_whole_run_of_failures) {
    LBHealth health = health_with(1, 2);
    put_all(health, {success, failure});
    EXPECT_EQ(health.history.last_resp.at("a"), success);
    put_all(health, {failure});
    EXPECT_EQ(health.history.last_resp.at("a"), failure);
}

TEST(Put, runs_stop_growing_at_their_thresholds) {
    LBHealth health = health_with(2, 3);
    put_all(health, {success, success, success, success});
    EXPECT_EQ(health.get_success_ct_by_str("a"), 2);
    put_all(health, {failure});
    EXPECT_EQ(health.get_success_ct_by_str("a"), 0);
    EXPECT_EQ(health.get_failure_ct_by_str("a"), 1);
}

TEST(Put, without_a_failure_count_every_outcome_counts_at_once) {
    LBHealth health = health_with(3, 0);
    put_all(health, {failure});
    EXPECT_EQ(health.history.last_resp.at("a"), failure);
    put_all(health, {success});
    EXPECT_EQ(health.history.last_resp.at("a"), success);
}

TEST(Put, other_success_values_are_kept_as_they_are) {
    LBHealth health = health_with(1, 1);
    put_all(health, {7});
    EXPECT_EQ(health.history.last_resp.at("a"), 7);
}

struct Evaluated : testing::Test {
    void check() { health.status_check(data, ctx); }

    LBHealth health = health_with(1, 1);
    LBData data;
    TestContext ctx;
    GivenClock clock{1'000'000, 1'700'000'000};
    CapturedLog log;
};

TEST_F(Evaluated, interface_without_targets_keeps_state_and_times) {
    check();
    EXPECT_FALSE(health.active);
    EXPECT_EQ(health.history.last_failure, 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Evaluated, interface_of_another_namespace_is_not_evaluated) {
    health.namespace_name = "blue";
    health.history.last_resp["a"] = success;
    check();
    EXPECT_FALSE(health.active);
}

TEST_F(Evaluated, one_success_of_three_makes_the_interface_active) {
    health.state_changed = false;
    health.history.last_resp = {{"a", failure}, {"b", success}, {"c", failure}};
    check();
    EXPECT_TRUE(health.active);
    EXPECT_TRUE(health.state_changed);
    EXPECT_EQ(health.history.last_success, 1'700'000'000);
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{
            {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 last check target a failure"},
            {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 last check target b success"},
            {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 last check target c failure"},
            {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 changed state to active"},
        }));
}

TEST_F(Evaluated, with_check_all_one_failure_makes_it_inactive) {
    health.check_all = true;
    health.active = true;
    health.history.last_resp = {{"a", failure}, {"b", success}};
    check();
    EXPECT_FALSE(health.active);
    EXPECT_EQ(health.history.last_failure, 1'700'000'000);
    EXPECT_EQ(log.lines().back().text,
              "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 changed state to inactive");
}

TEST_F(Evaluated, with_check_all_and_all_up_it_is_active) {
    health.check_all = true;
    health.history.last_resp = {{"a", success}, {"b", success}};
    check();
    EXPECT_TRUE(health.active);
}

TEST_F(Evaluated, value_that_is_neither_counts_as_failure) {
    health.active = true;
    health.history.last_resp["a"] = 7;
    check();
    EXPECT_FALSE(health.active);
    EXPECT_EQ(log.lines().front().text,
              "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 last check target a failure");
}

TEST_F(Evaluated, unchanged_state_logs_nothing_and_moves_the_time) {
    health.state_changed = false;
    health.active = true;
    health.history.last_resp["a"] = success;
    check();
    clock.advance_ms(5000);
    check();
    EXPECT_FALSE(health.state_changed);
    EXPECT_EQ(health.history.last_success, 1'700'000'005);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Evaluated, ipv6_interface_without_a_router_name_says_so) {
    LBHealth health6("eth0", true);
    health6.history.last_resp["a"] = success;
    health6.status_check(data, ctx);
    EXPECT_EQ(log.lines().back().text,
              "%WAN-I-INSTANCE: IPv6 interface unknown interface changed state to active");
}

TEST(Put, success_at_its_threshold_renews_the_verdict) {
    LBHealth health = health_with(1, 1);
    put_all(health, {7, 0});
    EXPECT_EQ(health.history.last_resp.at("a"), 0);
}

TEST(Put, targets_have_runs_of_their_own) {
    LBHealth health = health_with(2, 2);
    health.put(success, nullptr, "a");
    health.put(failure, nullptr, "b");
    EXPECT_EQ(health.get_success_ct_by_str("a"), 1);
    EXPECT_EQ(health.get_success_ct_by_str("b"), 0);
    EXPECT_EQ(health.get_failure_ct_by_str("b"), 1);
    EXPECT_TRUE(health.history.last_resp.empty());
}

TEST(Put, asking_for_a_run_inserts_no_target) {
    LBHealth health = health_with(1, 1);
    EXPECT_EQ(health.get_success_ct_by_str("a"), 0);
    EXPECT_EQ(health.get_failure_ct_by_str("a"), 0);
    EXPECT_TRUE(health.success_count.empty());
    EXPECT_TRUE(health.failure_count.empty());
}

/// A probe that notes when it is used.
template <class Base>
class Noted : public Base {
  public:
    Noted(std::vector<std::string>& notes, std::string own) : notes_(notes), own_(own) {}
    void send(LBHealth&, context*) override { notes_.push_back("send " + own_); }
    void recv(LBHealth& health, context* ctx) override {
        notes_.push_back("recv " + own_);
        health.put(success, ctx, own_);
    }
    std::string dump(context*) override { return ""; }
    std::string name() override { return "noted"; }

  private:
    std::vector<std::string>& notes_;
    std::string own_;
};
using NotedProbe = Noted<LBTest>;

TEST_F(Evaluated, a_pass_sends_all_probes_before_it_collects_any) {
    std::vector<std::string> notes;
    NotedProbe first(notes, "1");
    NotedProbe second(notes, "2");
    NotedProbe foreign(notes, "blue");
    data.health.try_emplace("a", "a", false).first->second.tests = {{2, &second}, {1, &first}};
    LBHealth& other = data.health.try_emplace("b", "b", false).first->second;
    other.namespace_name = "blue";
    other.tests = {{1, &foreign}};
    LBPathTest().start(data, ctx);
    EXPECT_EQ(notes, (std::vector<std::string>{"send 1", "send 2", "recv 1", "recv 2"}));
    EXPECT_TRUE(data.health.at("a").active);
    EXPECT_FALSE(other.active);
    EXPECT_EQ(data.health.at("a").test_it, data.health.at("a").tests.begin());
}

TEST_F(Evaluated, what_holds_a_pass_up_makes_no_probe_late) {
    std::vector<std::string> notes;
    struct HoldingUp : NotedProbe {
        HoldingUp(std::vector<std::string>& own_notes, GivenClock& own_clock)
            : NotedProbe(own_notes, "log"), at(own_clock) {}
        void recv(LBHealth&, context*) override { at.advance_ms(60'000); }
        GivenClock& at;
    };
    struct InFlight : NotedProbe {
        explicit InFlight(std::vector<std::string>& own_notes) : NotedProbe(own_notes, "sent") {
            target = "192.0.2.77";
            timeout = 5000;
        }
        void send(LBHealth& own, context*) override {
            timespec sent{};
            register_probe(ipv4_probes, own.name, target, sent);
        }
        void recv(LBHealth& own, context* context_) override { LBTest::recv(own, context_); }
    };
    HoldingUp first(notes, clock);
    InFlight second(notes);
    LBHealth& record = data.health.try_emplace("a", "a", false).first->second;
    record.tests = {{1, &first}, {2, &second}};
    ipv4_probes.received.set(second.ns_name, true);  // no thread is wanted
    LBPathTest().start(data, ctx);
    EXPECT_TRUE(record.history.last_resp.empty());
    LBPathTest().start(data, ctx);  // by now it has been on its way for a minute
    EXPECT_EQ(record.history.last_resp.at("192.0.2.77"), failure);
}

TEST_F(Evaluated, a_pass_of_the_ipv6_worker_leaves_ipv4_interfaces_alone) {
    std::vector<std::string> notes;
    NotedProbe probe(notes, "4");
    Noted<LBTest6> probe6(notes, "6");
    data.health.try_emplace("a", "a", false).first->second.tests = {{1, &probe}};
    LBHealth& health6 = data.health6.try_emplace("a", "a", true).first->second;
    health6.tests6 = {{1, &probe6}};
    ctx.ctx.ipv6 = true;
    LBPathTest().start(data, ctx);
    EXPECT_EQ(notes, (std::vector<std::string>{"send 6", "recv 6"}));
    EXPECT_TRUE(health6.active);
    EXPECT_EQ(health6.test6_it, health6.tests6.begin());
}

TEST_F(Evaluated, interface_is_evaluated_before_the_next_one_is_collected) {
    std::vector<std::string> notes;
    int active_before = -1;
    struct Looking : NotedProbe {
        Looking(std::vector<std::string>& own_notes, std::function<void()> look_around)
            : NotedProbe(own_notes, "x"), look(std::move(look_around)) {}
        void recv(LBHealth& record, context* context_) override {
            look();
            NotedProbe::recv(record, context_);
        }
        std::function<void()> look;
    };
    const auto count_active = [&] {
        active_before = static_cast<int>(data.health.at("a").active) +
                        static_cast<int>(data.health.at("b").active);
    };
    Looking first(notes, count_active);
    Looking second(notes, count_active);
    data.health.try_emplace("a", "a", false).first->second.tests = {{1, &first}};
    data.health.try_emplace("b", "b", false).first->second.tests = {{1, &second}};
    LBPathTest().start(data, ctx);
    EXPECT_EQ(active_before, 1);  // seen by the second one to be collected
}

}  // namespace

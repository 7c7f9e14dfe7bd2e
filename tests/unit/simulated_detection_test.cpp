// The times that `lbcheck --explain` tells, held to the daemon: on a simulated machine whose cycles
// take a little more than their second of sleep, as they do.
#include <algorithm>

#include "lbcheck/timing.h"
#include "unit/simulated_router.h"

namespace {

struct Detection : SimulatedRouter {
    Detection() {
        add_uplink("gi1_1", "192.0.2.10", "192.0.2.1");
        for (const char* address : {"203.0.113.1", "203.0.113.2"}) {
            add_target(address);
        }
    }
    void start_with(const std::string& in_interface, const std::string& probes) {
        start("health {\n interface gi1_1 {\n nexthop 192.0.2.1\n " + in_interface + "\n " +
              probes +
              "\n }\n}\nrule 1_ipv4 {\n interface gi1_1 {\n weight 1\n }\n target {\n"
              " address 0.0.0.0/0\n }\n}\n");
    }
    static std::string ping(int number, const std::string& target, int resp_time_ms) {
        return "rule " + std::to_string(number) + " {\n type ping {\n target " + target +
               "\n resp-time " + std::to_string(resp_time_ms) + "\n }\n }\n";
    }
    bool is_up() { return lb->data.health.at("gi1_1").active; }
    double now_s() const { return static_cast<double>(sim.now_us()) / 1e6; }
    void run_cycle() {
        work_once(&workers.front().ctx);
        sim.pass_us(1'003'000);
        begin_next_cycle(&workers.front().ctx);
    }
    void run_until(bool wanted) {
        for (int i = 0; i < 600 && is_up() != wanted; ++i) {
            run_cycle();
        }
        ASSERT_EQ(is_up(), wanted);
    }
    /// Seconds until the state is as wanted, from the moment that the targets answer or do not, at
    /// each of the phases of the probes: the least and the most.
    std::pair<double, double> measure(bool wanted, const std::vector<std::string>& targets) {
        std::pair<double, double> span{1e9, 0};
        for (int phase = 0; phase < 12; ++phase) {
            run_until(!wanted);
            for (int i = 0; i < 40 + phase; ++i) {
                run_cycle();
            }
            const double begin = now_s();
            for (const auto& target : targets) {
                sim.in_force().targets[target].answers = wanted;
            }
            run_until(wanted);
            // The verdict fell in the last cycle, before its sleep.
            const double took = now_s() - 1.003 - begin;
            span = {std::min(span.first, took), std::max(span.second, took)};
            for (auto& [address, target] : sim.in_force().targets) {
                target.answers = !wanted;
            }
        }
        for (auto& [address, target] : sim.in_force().targets) {
            target.answers = true;
        }
        return span;
    }
    lbcheck::ExpectedChange expected() {
        return lbcheck::expected_change(lb->data.health.at("gi1_1"));
    }
    /// The middle of what is measured is what is told, give or take a second.
    void expect_down_as_told(const std::vector<std::string>& targets) {
        const auto [least, most] = measure(false, targets);
        EXPECT_NEAR((least + most) / 2, expected().down_s, 1.0) << least << " to " << most;
    }
};

TEST_F(Detection, of_5000_ms_three_times_takes_about_18_s) {
    start_with("success-ct 2\n failure-ct 3", ping(1, "203.0.113.1", 5000));
    EXPECT_EQ(expected().down_s, 18);
    expect_down_as_told({"203.0.113.1"});
}

TEST_F(Detection, of_2500_ms_six_times_takes_about_24_s) {
    start_with("success-ct 2\n failure-ct 6", ping(1, "203.0.113.1", 2500));
    EXPECT_EQ(expected().down_s, 24);
    expect_down_as_told({"203.0.113.1"});
}

TEST_F(Detection, of_1000_ms_twice_takes_about_4_s) {
    start_with("success-ct 2\n failure-ct 2", ping(1, "203.0.113.1", 1000));
    EXPECT_EQ(expected().down_s, 4);
    expect_down_as_told({"203.0.113.1"});
}

TEST_F(Detection, waits_for_the_slowest_target_unless_all_must_answer) {
    start_with("success-ct 2\n failure-ct 2",
               ping(1, "203.0.113.1", 1000) + ping(2, "203.0.113.2", 7000));
    EXPECT_EQ(expected().down_s, 16);
    expect_down_as_told({"203.0.113.1", "203.0.113.2"});
}

TEST_F(Detection, follows_the_quickest_target_where_all_must_answer) {
    start_with("success-ct 2\n failure-ct 2\n check_all",
               ping(1, "203.0.113.1", 1000) + ping(2, "203.0.113.2", 7000));
    EXPECT_EQ(expected().down_s, 4);
    expect_down_as_told({"203.0.113.1", "203.0.113.2"});
}

TEST_F(Detection, of_one_count_alone_takes_one_failure) {
    start_with("failure-ct 9", ping(1, "203.0.113.1", 3000));
    EXPECT_EQ(expected().down_s, 4);
    expect_down_as_told({"203.0.113.1"});
}

TEST_F(Detection, return_takes_twice_the_successes_less_one) {
    for (const int successes : {1, 2, 5}) {
        SCOPED_TRACE(successes);
        sim.neighbours[{"", "gi1_1", "192.0.2.1"}] = {2, 0, 0, 0, 2, 1};  // or an echo is lost
        start_with("success-ct " + std::to_string(successes) + "\n failure-ct 2",
                   ping(1, "203.0.113.1", 3000));
        EXPECT_EQ(expected().up_s, 2 * successes - 1);
        // From the first start on every echo is answered.
        const double begin = now_s();
        run_until(true);
        EXPECT_NEAR(now_s() - 1.003 - begin, expected().up_s, 1.5);
        workers.clear();
        lb.reset();
    }
}

TEST_F(Detection, of_an_extended_ping_takes_a_run_a_cycle) {
    sim.neighbours[{"", "gi1_1", "192.0.2.1"}] = {2, 0, 0, 0, 2, 1};
    start_with(
        "success-ct 2\n failure-ct 4",
        "rule 1 {\n type ping_ext {\n target 203.0.113.1\n count 5\n period 1\n timeout 2000\n"
        " loss 50\n rtt 500\n jitter 1000\n }\n }\n");
    EXPECT_EQ(expected().down_s, 12);
    expect_down_as_told({"203.0.113.1"});
}

}  // namespace

#include <gmock/gmock.h>

#include "lbroute/plan.h"
#include "support/lbroute_scene.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;

constexpr const char* both =
    "route 0.0.0.0/0 multipath via 192.0.2.1 weight 2 via 198.51.100.1 weight 1;\n";

class Plan : public ::testing::Test {
  protected:
    std::vector<PlannedRoute> routes(const Fragment& asked) {
        return plan_routes(asked, {.namespace_name = "",
                                   .table = main_table,
                                   .mode = mode,
                                   .uplinks = &uplinks,
                                   .kernel = &kernel,
                                   .held = &held,
                                   .guesses = guesses});
    }
    std::vector<HopState> states(const Fragment& asked) {
        std::vector<HopState> found;
        const auto planned = routes(asked);
        for (const PlannedHop& hop : planned.at(0).hops) {
            found.push_back(hop.state);
        }
        return found;
    }

    Uplinks uplinks = three_uplinks();
    KernelState kernel = three_links();
    HeldInterfaces held;
    Mode mode = Mode::sticky;
    bool guesses = false;
};

TEST_F(Plan, metric_is_the_priority) {
    const auto planned = routes(fragment(
        "route 10.0.0.0/8 multipath via 192.0.2.1 weight 1 metric 20;\n" + std::string(both)));
    EXPECT_EQ(planned.at(0).priority, 0U);
    EXPECT_EQ(planned.at(1).priority, 20U);
}

TEST_F(Plan, ipv6_without_a_metric_has_the_kernels_own) {
    EXPECT_EQ(priority_of(Family::ipv6, std::nullopt), 1024U);
    EXPECT_EQ(priority_of(Family::ipv6, 0), 1024U);
    EXPECT_EQ(priority_of(Family::ipv6, 7), 7U);
    EXPECT_EQ(priority_of(Family::ipv4, std::nullopt), 0U);
}

TEST_F(Plan, checked_link_without_carrier_leaves_the_route) {
    kernel.links[0].has_carrier = false;
    EXPECT_THAT(states(fragment(both)), ElementsAre(HopState::no_carrier, HopState::routed));
}

TEST_F(Plan, link_without_carrier_stays_unchecked_in_a_plain_route) {
    kernel.links[0].has_carrier = false;
    mode = Mode::plain;
    EXPECT_THAT(states(fragment(both, Family::ipv4, false)),
                ElementsAre(HopState::routed, HopState::routed));
    EXPECT_THAT(states(fragment(both)), ElementsAre(HopState::no_carrier, HopState::routed));
}

TEST_F(Plan, missing_interface_leaves_its_next_hop_out_with_a_reason) {
    kernel.links.erase(kernel.links.begin());
    const auto planned = routes(fragment(both));
    EXPECT_EQ(planned.at(0).hops.at(0).state, HopState::no_interface);
    EXPECT_EQ(planned.at(0).hops.at(0).reason, "there is no interface gi1_1");
}

TEST_F(Plan, gateway_outside_of_all_networks_of_its_interface_is_taken_on_link) {
    kernel.addresses = {{11, address("192.0.2.7"), prefix("192.0.2.7/32")},
                        {12, address("198.51.100.10"), prefix("198.51.100.0/24")},
                        {13, address("203.0.113.9"), prefix("203.0.113.1/32")}};
    const auto planned =
        routes(fragment("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight "
                        "1 via 203.0.113.1 "
                        "weight 1;\n"));
    const auto& hops = planned.at(0).hops;
    EXPECT_TRUE(hops.at(0).is_on_link) << "a lease of /32";
    EXPECT_FALSE(hops.at(1).is_on_link);
    EXPECT_FALSE(hops.at(2).is_on_link) << "the far end of a point-to-point link";
}

TEST_F(Plan, gateway_of_an_interface_without_addresses_waits_for_them) {
    kernel.addresses = {{12, address("198.51.100.10"), prefix("198.51.100.0/24")},
                        {11, address("fe80::7"), prefix("fe80::/64")},
                        {11, address("2001:db8::7"), prefix("2001:db8::7/128")}};
    EXPECT_FALSE(routes(fragment(both)).at(0).hops.at(0).is_on_link);
}

TEST_F(Plan, link_local_gateway_needs_no_network) {
    uplinks.uplinks = {uplink("gi1_1", "fe80::1"), uplink("gi1_2", "2001:db8:9::1")};
    kernel.addresses = {{11, address("2001:db8::7"), prefix("2001:db8::7/128")},
                        {12, address("2001:db8::8"), prefix("2001:db8::8/128")}};
    const auto planned = routes(fragment(
        "route ::/0 multipath via fe80::1 weight 1 via 2001:db8:9::1 weight 1;\n", Family::ipv6));
    EXPECT_FALSE(planned.at(0).hops.at(0).is_on_link);
    EXPECT_TRUE(planned.at(0).hops.at(1).is_on_link);
}

TEST_F(Plan, held_uplink_is_out_of_routes_that_have_another) {
    held = {{"gi1_1", false}};
    EXPECT_THAT(states(fragment(both)), ElementsAre(HopState::held, HopState::routed));
    EXPECT_THAT(states(fragment("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n")),
                ElementsAre(HopState::last_though_held));
}

TEST_F(Plan, held_uplink_stays_where_the_other_one_has_no_carrier) {
    held = {{"gi1_1", false}};
    kernel.links[1].has_carrier = false;
    EXPECT_THAT(states(fragment(both)),
                ElementsAre(HopState::last_though_held, HopState::no_carrier));
}

TEST_F(Plan, hold_by_force_takes_the_last_next_hop_too) {
    held = {{"gi1_1", true}};
    EXPECT_THAT(states(fragment("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n")),
                ElementsAre(HopState::held));
}

TEST_F(Plan, refused_next_hop_brings_a_held_one_back) {
    held = {{"gi1_1", false}};
    auto planned = routes(fragment(both));
    EXPECT_TRUE(refuse_hop(planned, address("198.51.100.1"), 12, "no way"));
    EXPECT_EQ(planned[0].hops[0].state, HopState::last_though_held);
    EXPECT_EQ(planned[0].hops[1].state, HopState::refused);
    EXPECT_FALSE(refuse_hop(planned, address("198.51.100.1"), 12, "no way"));
}

TEST_F(Plan, next_hop_that_stands_twice_is_one_with_both_weights) {
    const auto planned = routes(
        fragment("route 0.0.0.0/0 multipath via 192.0.2.1 weight 2 via 192.0.2.1 weight 3;\n"));
    ASSERT_EQ(planned.at(0).hops.size(), 1U);
    EXPECT_EQ(planned[0].hops[0].weight, 5);
}

TEST_F(Plan, uncertain_route_waits_until_guessing_is_allowed) {
    uplinks.uplinks = {uplink("gi1_1", "192.0.2.1", true), uplink("gi1_2", "192.0.2.1", true)};
    const auto asked = fragment("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n");
    EXPECT_TRUE(routes(asked).at(0).is_postponed);
    guesses = true;
    EXPECT_FALSE(routes(asked).at(0).is_postponed);
    EXPECT_EQ(routes(asked).at(0).hops.at(0).interface, "gi1_1");
}

std::vector<int> weights_in_kernel(const std::vector<int>& weights, int buckets) {
    std::vector<PlannedHop> hops(weights.size());
    std::vector<const PlannedHop*> pointers;
    for (std::size_t i = 0; i < weights.size(); ++i) {
        hops[i].weight = weights[i];
        pointers.push_back(&hops[i]);
    }
    return kernel_weights(pointers, buckets);
}

TEST(KernelWeights, those_that_fit_stay) {
    EXPECT_THAT(weights_in_kernel({1, 3, 256}, 0), ElementsAre(1, 3, 256));
}

TEST(KernelWeights, too_large_ones_keep_their_proportions) {
    EXPECT_THAT(weights_in_kernel({300, 900}, 0), ElementsAre(1, 3));
    EXPECT_THAT(weights_in_kernel({1000, 500, 1}, 0), ElementsAre(256, 128, 1));
    EXPECT_THAT(weights_in_kernel({2147483647, 2147483647, 1}, 0), ElementsAre(256, 256, 1));
}

TEST(KernelWeights, least_weight_still_gets_a_bucket) {
    const std::vector<int> weights = weights_in_kernel({256, 256, 256, 256, 1}, 256);
    EXPECT_EQ(weights[0], 256);
    // 1025 / 256, rounded up: with less, its share would be below one of 256 buckets.
    EXPECT_EQ(weights[4], 5);
}

}  // namespace

}  // namespace lbroute

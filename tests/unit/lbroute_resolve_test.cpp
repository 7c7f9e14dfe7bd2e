#include <gmock/gmock.h>

#include "lbroute/resolve.h"
#include "support/lbroute_scene.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;

std::vector<std::string> interfaces(const ResolvedRoute& route) {
    std::vector<std::string> names;
    for (const ResolvedHop& hop : route.hops) {
        names.push_back(hop.interface);
    }
    return names;
}

FragmentRoute route6(const std::string& vias) {
    return fragment("route 2001:db8::/32 multipath" + vias + ";\n", Family::ipv6).routes.at(0);
}

/// gi1_1, gi1_2 and gi1_3 all have fe80::1; weights 1, 3 and 1.
Uplinks shared(std::optional<bool> one, std::optional<bool> two, std::optional<bool> three) {
    Uplinks uplinks;
    uplinks.uplinks = {uplink("gi1_1", "fe80::1", one), uplink("gi1_2", "fe80::1", two),
                       uplink("gi1_3", "fe80::1", three)};
    uplinks.rules = {{.namespace_name = "",
                      .family = Family::ipv6,
                      .targets = {prefix("2001:db8::/32")},
                      .members = {{"gi1_1", 1}, {"gi1_2", 3}, {"gi1_3", 1}}}};
    return uplinks;
}

TEST(Resolve, next_hop_of_one_uplink_leaves_through_it) {
    const auto asked = fragment("route 10.0.0.0/8 multipath via 198.51.100.1 weight 1;\n");
    const auto resolved = resolve(asked.routes[0], "", three_uplinks(), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_2"));
    EXPECT_FALSE(resolved.is_shared);
}

TEST(Resolve, uplink_of_another_namespace_is_none) {
    Uplinks uplinks;
    uplinks.uplinks = {uplink("gi1_1", "192.0.2.1", true, "blue")};
    const auto asked = fragment("route 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\n");
    EXPECT_THAT(interfaces(resolve(asked.routes[0], "", uplinks, three_links())), ElementsAre(""));
    EXPECT_THAT(interfaces(resolve(asked.routes[0], "blue", uplinks, three_links())),
                ElementsAre("gi1_1"));
}

TEST(Resolve, unknown_next_hop_leaves_through_the_longest_connected_network) {
    KernelState kernel = three_links();
    kernel.addresses = {{11, address("10.0.0.1"), prefix("10.0.0.0/8")},
                        {12, address("10.1.0.1"), prefix("10.1.0.0/16")},
                        {13, address("10.1.1.9"), prefix("10.1.1.8/32")}};
    const auto asked = fragment(
        "route 0.0.0.0/0 multipath via 10.1.1.1 weight 1 via 10.9.9.9 weight 1 via 10.1.1.8 weight "
        "1 via 172.16.0.1 weight 1;\n");
    EXPECT_THAT(interfaces(resolve(asked.routes[0], "", {}, kernel)),
                ElementsAre("gi1_2", "gi1_1", "gi1_3", ""));
}

TEST(Resolve, link_local_next_hop_without_an_uplink_has_no_interface) {
    KernelState kernel = three_links();
    kernel.addresses = {{11, address("fe80::9"), prefix("fe80::/64")}};
    EXPECT_THAT(interfaces(resolve(route6(" via fe80::1 weight 1"), "", {}, kernel)),
                ElementsAre(""));
}

TEST(Resolve, shared_next_hop_belongs_to_the_rules_members_in_the_order_of_names_each_once) {
    const auto resolved =
        resolve(route6(" via fe80::1 weight 1 via fe80::1 weight 3 via fe80::1 weight 1"), "",
                shared(std::nullopt, std::nullopt, std::nullopt), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_1", "gi1_2", "gi1_3"));
    EXPECT_TRUE(resolved.is_shared);
    EXPECT_FALSE(resolved.is_uncertain);
}

TEST(Resolve, active_members_alone_share_a_next_hop) {
    const auto resolved = resolve(route6(" via fe80::1 weight 3 via fe80::1 weight 1"), "",
                                  shared(false, true, true), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_2", "gi1_3"));
    EXPECT_FALSE(resolved.is_uncertain);
}

TEST(Resolve, weight_of_two_members_is_that_of_the_active_one) {
    const auto resolved =
        resolve(route6(" via fe80::1 weight 1"), "", shared(false, false, true), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_3"));
    EXPECT_FALSE(resolved.is_uncertain);
}

TEST(Resolve, weights_tell_where_the_dumps_are_older_than_the_fragment) {
    const auto resolved =
        resolve(route6(" via fe80::1 weight 3"), "", shared(true, true, true), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_2"));
    EXPECT_FALSE(resolved.is_uncertain);
}

TEST(Resolve, same_weights_and_old_dumps_are_uncertain) {
    const auto resolved =
        resolve(route6(" via fe80::1 weight 1"), "", shared(true, true, true), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_1"));
    EXPECT_TRUE(resolved.is_uncertain);
}

TEST(Resolve, later_rule_for_a_prefix_counts) {
    Uplinks uplinks = shared(std::nullopt, std::nullopt, std::nullopt);
    uplinks.rules.push_back({.namespace_name = "",
                             .family = Family::ipv6,
                             .targets = {prefix("2001:db8::/32")},
                             .members = {{"gi1_3", 7}}});
    EXPECT_THAT(interfaces(resolve(route6(" via fe80::1 weight 7"), "", uplinks, three_links())),
                ElementsAre("gi1_3"));
}

TEST(Resolve, fragment_that_fits_no_member_goes_by_order_and_says_so) {
    const auto resolved = resolve(route6(" via fe80::1 weight 8 via fe80::1 weight 9"), "",
                                  shared(true, true, true), three_links());
    EXPECT_THAT(interfaces(resolved), ElementsAre("gi1_1", "gi1_2"));
    EXPECT_TRUE(resolved.is_uncertain);
}

}  // namespace

}  // namespace lbroute

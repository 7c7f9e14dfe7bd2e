#include <gmock/gmock.h>

#include <cerrno>

#include "lbroute/apply.h"
#include "support/lbroute_scene.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr const char* all_three =
    "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 1 via 203.0.113.1 "
    "weight 2;\n";
constexpr const char* first_two =
    "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 1;\n";
constexpr const char* first_one = "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n";

class Apply : public ::testing::Test {
  protected:
    Application put(const std::string& lines, Mode mode = Mode::sticky) {
        const Fragment asked = fragment(lines);
        return put_into_force(
            [&](Mode possible) {
                Wanted wanted;
                wanted.knows_ipv4 = true;
                wanted.routes = plan_routes(asked, {.namespace_name = "",
                                                    .table = table,
                                                    .mode = possible,
                                                    .uplinks = &uplinks,
                                                    .kernel = &desk.state,
                                                    .held = &held,
                                                    .guesses = false});
                return wanted;
            },
            desk.state, foreign, mode, desk.taker());
    }

    /// (link, weight) of each entry of the group of the only route.
    std::vector<std::pair<int, int>> members() const {
        std::vector<std::pair<int, int>> found;
        const Group* group = desk.state.group(desk.state.routes.at(0).group_id);
        for (const GroupEntry& entry : group->entries) {
            found.emplace_back(desk.state.hop(entry.id)->link, entry.weight);
        }
        return found;
    }

    Uplinks uplinks = three_uplinks();
    DeskKernel desk{three_links()};
    std::vector<KernelRoute> foreign;
    HeldInterfaces held;
    std::uint32_t table = main_table;
};

TEST_F(Apply, every_next_hop_stands_twice_in_a_resilient_group) {
    const Application done = put(all_three);
    EXPECT_EQ(done.mode, Mode::sticky);
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(11, 1), std::pair(12, 1),
                                       std::pair(12, 1), std::pair(13, 2), std::pair(13, 2)));
    const Group* group = desk.state.group(desk.state.routes.at(0).group_id);
    EXPECT_TRUE(group->is_resilient);
    EXPECT_EQ(group->buckets, most_buckets);
    EXPECT_EQ(group->idle_timer_s, idle_timer_s);
    EXPECT_EQ(group->unbalanced_timer_s, 0U);
}

TEST_F(Apply, same_fragment_again_changes_nothing) {
    put(all_three);
    desk.seen.clear();
    put(all_three);
    EXPECT_THAT(desk.seen, IsEmpty());
}

TEST_F(Apply, uplink_that_leaves_and_returns_costs_its_group_a_replacement_each_and_no_route) {
    put(all_three);
    const std::uint32_t group = desk.state.routes.at(0).group_id;
    desk.seen.clear();
    put(first_one);
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(11, 1)));
    put(all_three);
    EXPECT_THAT(members(), SizeIs(6));
    EXPECT_EQ(desk.state.routes.at(0).group_id, group);
    for (const Step& step : desk.seen) {
        EXPECT_FALSE(std::holds_alternative<PutRoute>(step));
        EXPECT_FALSE(std::holds_alternative<RemoveRoute>(step));
    }
}

TEST_F(Apply, next_hop_that_is_not_used_any_more_is_removed) {
    put(all_three);
    put(first_one);
    EXPECT_THAT(desk.state.hops, SizeIs(2));
    put("");
    EXPECT_THAT(desk.state.hops, IsEmpty());
    EXPECT_THAT(desk.state.groups, IsEmpty());
    EXPECT_THAT(desk.state.routes, IsEmpty());
}

TEST_F(Apply, change_of_metric_keeps_the_group_and_never_leaves_the_prefix_alone) {
    put(first_two);
    const std::uint32_t group = desk.state.routes.at(0).group_id;
    put("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.1 weight 1 metric 5;\n");
    ASSERT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_EQ(desk.state.routes[0].priority, 5U);
    EXPECT_EQ(desk.state.routes[0].group_id, group);
    EXPECT_EQ(desk.fewest_routes_to("0.0.0.0/0"), 0U);  // before the first step took effect
}

TEST_F(Apply, modes_change_without_a_gap_and_without_leftovers) {
    put(all_three, Mode::sticky);
    for (const Mode mode :
         {Mode::plain, Mode::group, Mode::sticky, Mode::group, Mode::plain, Mode::sticky}) {
        DeskKernel changed(desk.state);
        desk = changed;
        put(all_three, mode);
        EXPECT_EQ(desk.fewest_routes_to("0.0.0.0/0"), 1U);
        EXPECT_THAT(desk.state.routes, SizeIs(1));
        EXPECT_THAT(desk.state.groups, SizeIs(mode == Mode::plain ? 0 : 1));
        EXPECT_THAT(desk.state.hops, SizeIs(mode == Mode::plain    ? 0
                                            : mode == Mode::sticky ? 6
                                                                   : 3));
    }
}

TEST_F(Apply, leftovers_of_a_killed_predecessor_go) {
    put(all_three);
    // A second pair of objects, a group without a route, a route in another table.
    desk.state.hops.push_back({1, address("192.0.2.9"), 11});
    desk.state.groups.push_back({.id = 2, .entries = {{1, 1}}});
    KernelRoute old = desk.state.routes[0];
    old.prefix = prefix("10.0.0.0/8");
    old.table = 100;
    desk.state.routes.push_back(old);
    put(all_three);
    EXPECT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_THAT(desk.state.groups, SizeIs(1));
    EXPECT_THAT(desk.state.hops, SizeIs(6));
}

TEST_F(Apply, half_a_pair_is_completed) {
    put(first_two);
    put("");
    desk.state.hops = {{7, address("192.0.2.1"), 11}};
    put(first_one);
    EXPECT_THAT(desk.state.hops, SizeIs(2));
    EXPECT_EQ(desk.state.hops[0].id, 7U);
}

TEST_F(Apply, refused_next_hop_is_left_out_and_the_rest_goes) {
    desk.refuse = [](const Step& step) {
        const auto* hop = std::get_if<AddHop>(&step);
        return hop != nullptr && hop->hop.link == 12 ? EHOSTUNREACH : 0;
    };
    const Application done = put(all_three);
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(11, 1), std::pair(13, 2),
                                       std::pair(13, 2)));
    EXPECT_EQ(done.wanted.routes[0].hops[1].state, HopState::refused);
    EXPECT_EQ(done.wanted.routes[0].hops[1].reason, "words of the kernel");
}

TEST_F(Apply, route_all_of_whose_next_hops_are_refused_goes) {
    put(first_one);
    desk.state.hops.clear();  // the kernel takes them, the group and the route with their link
    desk.state.groups.clear();
    desk.state.routes.clear();
    desk.refuse = [](const Step& step) {
        return std::holds_alternative<AddHop>(step) ? ENETDOWN : 0;
    };
    const Application done = put(first_one);
    EXPECT_THAT(desk.state.routes, IsEmpty());
    EXPECT_THAT(done.wanted.routes[0].routed(), IsEmpty());
}

TEST_F(Apply, refused_route_stops_no_other) {
    desk.refuse = [](const Step& step) {
        const auto* route = std::get_if<PutRoute>(&step);
        return route != nullptr && route->route.prefix.length == 8 ? EINVAL : 0;
    };
    const Application done =
        put("route 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\n" + std::string(first_one));
    ASSERT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_EQ(desk.state.routes[0].prefix, prefix("0.0.0.0/0"));
    EXPECT_EQ(done.wanted.routes[1].refusal, "words of the kernel");
    EXPECT_THAT(desk.state.groups, SizeIs(1)) << "the refused route's group is left over";
}

TEST_F(Apply, route_of_others_at_the_place_is_never_written_over) {
    KernelRoute other;
    other.prefix = prefix("0.0.0.0/0");
    other.protocol = 16;
    foreign = {other};
    const Application done = put(first_one);
    EXPECT_THAT(desk.seen, IsEmpty());
    EXPECT_EQ(done.wanted.routes[0].refusal, place_is_taken);
}

TEST_F(Apply, group_beside_a_route_of_others_is_still_kept_up) {
    put(first_two);
    KernelRoute other;
    other.prefix = prefix("0.0.0.0/0");
    other.protocol = 16;
    foreign = {other};
    put(first_one);
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(11, 1)));
    EXPECT_THAT(desk.state.routes, SizeIs(1));
}

TEST_F(Apply, kernel_without_resilient_groups_gets_simple_ones) {
    desk.refuse = [](const Step& step) {
        const auto* group = std::get_if<PutGroup>(&step);
        return group != nullptr && group->group.is_resilient ? EINVAL : 0;
    };
    const Application done = put(first_two);
    EXPECT_EQ(done.mode, Mode::group);
    EXPECT_EQ(done.mode_reason, "this kernel has no resilient next-hop groups");
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(12, 1)));
    EXPECT_THAT(desk.state.hops, SizeIs(2));
    EXPECT_THAT(desk.state.groups, SizeIs(1));
}

TEST_F(Apply, group_that_is_refused_in_any_form_is_no_reason_to_do_with_less) {
    desk.refuse = [](const Step& step) {
        return std::holds_alternative<PutGroup>(step) ? EINVAL : 0;
    };
    const Application done = put(first_two);
    EXPECT_EQ(done.mode, Mode::sticky);
    EXPECT_EQ(done.wanted.routes[0].refusal, "words of the kernel");
}

TEST_F(Apply, kernel_without_next_hop_objects_gets_plain_routes) {
    desk.refuse = [](const Step& step) {
        return std::holds_alternative<AddHop>(step) ? EOPNOTSUPP : 0;
    };
    const Application done = put(all_three);
    EXPECT_EQ(done.mode, Mode::plain);
    ASSERT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_THAT(desk.state.routes[0].hops, SizeIs(3));
    EXPECT_EQ(desk.state.routes[0].group_id, 0U);
}

TEST_F(Apply, plain_route_goes_without_the_next_hop_at_fault) {
    desk.refuse = [](const Step& step) {
        const auto* hop = std::get_if<AddHop>(&step);
        if (hop != nullptr && hop->hop.link == 12) {
            return EHOSTUNREACH;
        }
        const auto* route = std::get_if<PutRoute>(&step);
        const auto leads_there = [](const PathHop& one) { return one.link == 12; };
        return route != nullptr && std::ranges::any_of(route->route.hops, leads_there) ? ENETUNREACH
                                                                                       : 0;
    };
    const Application done = put(all_three, Mode::plain);
    ASSERT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_THAT(desk.state.routes[0].hops, SizeIs(2));
    EXPECT_EQ(done.wanted.routes[0].hops[1].state, HopState::refused);
    EXPECT_THAT(desk.state.hops, IsEmpty()) << "what was made for looking is left over";
}

TEST_F(Apply, number_that_others_took_meanwhile_is_passed_over) {
    int refusals = 0;
    desk.refuse = [&refusals](const Step& step) {
        return std::holds_alternative<AddHop>(step) && refusals++ == 0 ? EEXIST : 0;
    };
    put(first_one);
    EXPECT_THAT(desk.state.routes, SizeIs(1));
    EXPECT_THAT(desk.state.hops, SizeIs(2));
}

TEST_F(Apply, numbers_of_others_are_not_used) {
    put(first_one);
    const std::uint32_t usual = desk.state.hops.at(0).id;
    put("");
    desk.state.foreign_ids = {usual, usual + 1};
    put(first_one);
    EXPECT_GT(desk.state.hops.at(0).id, usual + 1);
}

TEST_F(Apply, weights_beyond_the_kernels_are_scaled) {
    put("route 0.0.0.0/0 multipath via 192.0.2.1 weight 1000 via 198.51.100.1 weight 3000;\n");
    EXPECT_THAT(members(), ElementsAre(std::pair(11, 1), std::pair(11, 1), std::pair(12, 3),
                                       std::pair(12, 3)));
}

TEST_F(Apply, family_whose_fragment_was_never_read_is_left_alone) {
    KernelRoute six;
    six.prefix = prefix("2001:db8::/32");
    desk.state.routes = {six};
    put(first_one);
    EXPECT_THAT(desk.state.routes, SizeIs(2));
}

TEST_F(Apply, postponed_route_keeps_what_stands) {
    put(first_one);
    desk.seen.clear();
    uplinks.uplinks = {uplink("gi1_1", "192.0.2.1", true), uplink("gi1_2", "192.0.2.1", true)};
    put(first_one);
    EXPECT_THAT(desk.seen, IsEmpty());
}

TEST_F(Apply, flush_takes_routes_before_groups_before_hops) {
    put(all_three);
    const std::vector<Step> steps = flush_steps(desk.state);
    for (const Answer& answer : desk.taker()(steps)) {
        EXPECT_EQ(answer.error, 0);
    }
    EXPECT_THAT(desk.state.routes, IsEmpty());
    EXPECT_THAT(desk.state.hops, IsEmpty());
}

TEST(Buckets, few_prefixes_have_many_and_a_thousand_have_enough) {
    EXPECT_EQ(buckets_for(1), 16384);
    EXPECT_EQ(buckets_for(2), 16384);
    EXPECT_EQ(buckets_for(10), 2048);
    EXPECT_EQ(buckets_for(1000), 256);
    EXPECT_EQ(buckets_for(1000000), 256);
}

}  // namespace

}  // namespace lbroute

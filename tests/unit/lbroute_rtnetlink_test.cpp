// Steps and listings against the kernel itself, in a network namespace of the test's own. Skipped
// without the right to make one.

#include <gmock/gmock.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>

#include "lbroute/rtnetlink.h"
#include "support/lbroute_scene.h"
#include "unit/support/faults.h"
#include "unit/support/own_network.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class LbrouteKernel : public ::testing::Test {
  protected:
    struct Network {
        TestLink one{"wan1", "192.0.2.10"};
        TestLink two{"wan2", "198.51.100.10"};
        std::string problem;
        RouteSocket socket = RouteSocket::open(problem);

        KernelState state() {
            Listing listing = list_kernel_state(socket);
            EXPECT_EQ(listing.problem, "");
            return std::move(listing.state);
        }
        std::vector<int> errors_of(const std::vector<Step>& steps) {
            std::vector<int> errors;
            for (const Answer& answer : socket.take(steps)) {
                errors.push_back(answer.error);
            }
            return errors;
        }
        HopObject hop(std::uint32_t id, const TestLink& link) const {
            return {id, address(&link == &one ? "192.0.2.1" : "198.51.100.1"), link.index};
        }
    };

    static void in_own_network(const std::function<void(Network&)>& body) {
        const bool is_possible = ::in_own_network([&body] {
            Network network;
            EXPECT_EQ(network.problem, "");
            body(network);
        });
        if (!is_possible) {
            GTEST_SKIP() << "needs the right to make a network namespace with links";
        }
    }
};

KernelRoute route_to(const std::string& to, const TestLink& link, const std::string& gateway) {
    KernelRoute route;
    route.prefix = prefix(to);
    route.hops = {{address(gateway), link.index, 1, false}};
    return route;
}

TEST_F(LbrouteKernel, links_and_addresses_are_listed) {
    in_own_network([](Network& network) {
        const KernelState state = network.state();
        const Link* link = state.link("wan2");
        ASSERT_NE(link, nullptr);
        EXPECT_EQ(link->index, network.two.index);
        EXPECT_TRUE(link->is_up);
        EXPECT_TRUE(link->has_carrier);
        const Link* loopback = state.link("lo");
        ASSERT_NE(loopback, nullptr);
        EXPECT_FALSE(loopback->is_up);
        int found = 0;
        for (const LinkAddress& one : state.addresses) {
            if (one.link == network.one.index && one.address == address("192.0.2.10")) {
                EXPECT_EQ(one.network.length, 24);
                ++found;
            }
        }
        EXPECT_EQ(found, 1);
        EXPECT_THAT(state.routes, IsEmpty()) << "the kernel's own are not ours";
        EXPECT_THAT(state.hops, IsEmpty());
        network.two.set_up(false);
        EXPECT_FALSE(network.state().link("wan2")->is_up);
    });
}

TEST_F(LbrouteKernel, steps_are_taken_in_their_order_and_listed) {
    in_own_network([](Network& network) {
        const Group group{.id = 9,
                          .entries = {{1, 1}, {2, 3}},
                          .is_resilient = true,
                          .buckets = 8,
                          .idle_timer_s = 60,
                          .unbalanced_timer_s = 0};
        KernelRoute route;
        route.prefix = prefix("10.0.0.0/8");
        route.priority = 20;
        route.group_id = 9;
        EXPECT_THAT(network.errors_of({AddHop{network.hop(1, network.one)},
                                       AddHop{network.hop(2, network.two)}, PutGroup{group, false},
                                       PutRoute{route, false}}),
                    ElementsAre(0, 0, 0, 0));
        KernelState state = network.state();
        EXPECT_THAT(state.hops,
                    ElementsAre(network.hop(1, network.one), network.hop(2, network.two)));
        EXPECT_THAT(state.groups, ElementsAre(group));
        ASSERT_THAT(state.routes, SizeIs(1));
        EXPECT_TRUE(state.routes[0].is_at_place_of(route));
        EXPECT_EQ(state.routes[0].group_id, 9U);
        EXPECT_THAT(count_buckets(network.socket, 9),
                    ElementsAre(std::pair(1U, 2), std::pair(2U, 6)));
        EXPECT_THAT(network.errors_of({RemoveRoute{route}, RemoveNextHop{9}, RemoveNextHop{1}}),
                    ElementsAre(0, 0, 0));
        state = network.state();
        EXPECT_THAT(state.routes, IsEmpty());
        EXPECT_THAT(state.groups, IsEmpty());
        EXPECT_THAT(state.hops, ElementsAre(network.hop(2, network.two)));
    });
}

TEST_F(LbrouteKernel, refused_step_has_the_kernels_reason_and_stops_none_behind_it) {
    in_own_network([](Network& network) {
        HopObject strange = network.hop(5, network.one);
        strange.gateway = address("203.0.113.1");
        const std::vector<Step> steps{
            AddHop{strange}, AddHop{network.hop(1, network.one)},
            AddHop{network.hop(1, network.one)},
            PutRoute{route_to("10.0.0.0/8", network.one, "192.0.2.1"), false}};
        const auto answers = network.socket.take(steps);
        ASSERT_THAT(answers, SizeIs(4));
        EXPECT_EQ(answers[0].error, ENETUNREACH);
        EXPECT_NE(answers[0].reason, "");
        EXPECT_NE(answers[0].reason, strerror(ENETUNREACH)) << "the kernel has better words";
        EXPECT_EQ(answers[1].error, 0);
        EXPECT_EQ(answers[1].reason, "");
        EXPECT_EQ(answers[2].error, EEXIST);
        EXPECT_NE(answers[2].reason, "");
        EXPECT_EQ(answers[3].error, 0);
        EXPECT_THAT(network.state().routes,
                    ElementsAre(route_to("10.0.0.0/8", network.one, "192.0.2.1")));
    });
}

TEST_F(LbrouteKernel, thousands_of_steps_are_all_answered) {
    in_own_network([](Network& network) {
        std::vector<Step> steps;
        for (int i = 0; i < 3000; ++i) {
            const std::string to =
                "10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24";
            steps.push_back(PutRoute{route_to(to, network.one, "192.0.2.1"), false});
        }
        const auto is_taken = [](int error) { return error == 0; };
        EXPECT_TRUE(std::ranges::all_of(network.errors_of(steps), is_taken));
        EXPECT_THAT(network.state().routes, SizeIs(3000));
        EXPECT_THAT(network.errors_of(steps), ::testing::Each(EEXIST));
    });
}

TEST_F(LbrouteKernel, routes_of_both_families_are_ours_by_their_protocol_in_any_table) {
    in_own_network([](Network& network) {
        KernelRoute other = route_to("10.1.0.0/16", network.one, "192.0.2.1");
        other.table = 1000;
        EXPECT_THAT(network.errors_of(
                        {PutRoute{other, false},
                         PutRoute{route_to("10.2.0.0/16", network.two, "198.51.100.1"), false}}),
                    ElementsAre(0, 0));
        const auto routes = network.state().routes;
        ASSERT_THAT(routes, SizeIs(2));
        EXPECT_EQ(routes[0].table + routes[1].table, 1000U + main_table);
    });
}

TEST_F(LbrouteKernel, routes_of_others_are_those_to_the_prefixes_in_the_table) {
    in_own_network([](Network& network) {
        // The kernel made the routes to the links' networks.
        EXPECT_THAT(
            network.errors_of({PutRoute{route_to("10.0.0.0/8", network.one, "192.0.2.1"), false}}),
            ElementsAre(0));
        std::string problem;
        const auto found = list_foreign_routes(
            network.socket, main_table,
            {prefix("192.0.2.0/24"), prefix("10.0.0.0/8"), prefix("2001:db8::/32")}, problem);
        EXPECT_EQ(problem, "");
        ASSERT_THAT(found, SizeIs(1)) << "our own is none of others";
        EXPECT_EQ(found[0].prefix, prefix("192.0.2.0/24"));
        EXPECT_EQ(found[0].protocol, RTPROT_KERNEL);
        EXPECT_THAT(list_foreign_routes(network.socket, 1234, {prefix("192.0.2.0/24")}, problem),
                    IsEmpty());
        EXPECT_EQ(problem, "") << "a table that is not there";
    });
}

TEST_F(LbrouteKernel, request_that_does_not_get_through_is_told_with_its_error) {
    in_own_network([](Network& network) {
        const std::vector<Step> steps{AddHop{network.hop(1, network.one)},
                                      AddHop{network.hop(2, network.two)}};
        {
            const faults::FailCall unsent(faults::Call::sendto, ENOBUFS);
            EXPECT_THAT(network.errors_of(steps), ElementsAre(ENOBUFS, ENOBUFS));
            EXPECT_THAT(list_kernel_state(network.socket).problem,
                        ::testing::HasSubstr("No buffer space available"));
        }
        const faults::FailCall unanswered(faults::Call::recv, ENOTCONN);
        EXPECT_THAT(network.errors_of(steps), ElementsAre(ENOTCONN, ENOTCONN));
    });
}

TEST_F(LbrouteKernel, monitor_that_cannot_be_had_tells_why) {
    in_own_network([](Network& /*network*/) {
        const faults::FailCall refused(faults::Call::setsockopt, ENOMEM);
        std::string problem;
        RouteMonitor::open(0, problem);
        EXPECT_EQ(problem, "no announcements of the kernel: Cannot allocate memory");
    });
}

/// While it lives, the kernel says of listings that they were interrupted: of each the first time,
/// or always.
class Interruptions {
  public:
    enum class Of { first_tries, all };

    explicit Interruptions(Of of) {
        interrupted.clear();
        all = of == Of::all;
        stand_ins.recv = receive;
        faults::set_stand_ins(stand_ins);
    }
    ~Interruptions() { faults::reset_stand_ins(); }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    std::size_t count() const { return interrupted.size(); }

  private:
    static ssize_t receive(int fd, void* data, size_t size, int flags) {
        const ssize_t length = faults::real_recv(fd, data, size, flags);
        if (length >= static_cast<ssize_t>(sizeof(nlmsghdr))) {
            auto& message = *static_cast<nlmsghdr*>(data);
            // Each try has the number behind that of the one before.
            if (all || !interrupted.contains(message.nlmsg_seq - 1)) {
                interrupted.insert(message.nlmsg_seq);
                message.nlmsg_flags |= NLM_F_DUMP_INTR;
            }
        }
        return length;
    }

    static inline std::set<std::uint32_t> interrupted;
    static inline bool all = false;
    faults::StandIns stand_ins;
};

TEST_F(LbrouteKernel, listing_that_was_interrupted_has_everything_once) {
    in_own_network([](Network& network) {
        KernelRoute route6 = route_to("2001:db8::/32", network.one, "fe80::1");
        const Group group{.id = 9, .entries = {{1, 1}}};
        const auto errors =
            network.errors_of({AddHop{network.hop(1, network.one)}, PutGroup{group, false},
                               PutRoute{route_to("10.0.0.0/8", network.one, "192.0.2.1"), false},
                               PutRoute{route6, false}});
        ASSERT_THAT(errors, ::testing::Each(0));
        const KernelState once = network.state();
        const Interruptions interruptions(Interruptions::Of::first_tries);
        const KernelState state = network.state();
        EXPECT_EQ(interruptions.count(), 5U) << "links, addresses, routes of both families, hops";
        EXPECT_EQ(state.links.size(), once.links.size());
        EXPECT_EQ(state.addresses.size(), once.addresses.size());
        EXPECT_THAT(state.routes, SizeIs(2));
        EXPECT_THAT(state.hops, ElementsAre(network.hop(1, network.one)));
        EXPECT_THAT(state.groups, SizeIs(1));
        EXPECT_EQ(state.foreign_ids, once.foreign_ids);
    });
}

TEST_F(LbrouteKernel, listing_that_is_interrupted_again_and_again_is_given_up) {
    in_own_network([](Network& network) {
        const Interruptions interruptions(Interruptions::Of::all);
        EXPECT_EQ(list_kernel_state(network.socket).problem,
                  "links: the kernel's tables change faster than they can be read");
    });
}

/// The types of what the monitor is told, until nothing more waits.
std::vector<int> told(RouteMonitor& monitor) {
    std::vector<int> types;
    monitor.drain([&types](const nlmsghdr* message) {
        types.push_back(message == nullptr ? -1 : message->nlmsg_type);
    });
    return types;
}

TEST_F(LbrouteKernel, monitor_is_told_what_others_do_and_not_what_we_did) {
    in_own_network([](Network& network) {
        std::string problem;
        RouteMonitor monitor = RouteMonitor::open(network.socket.port(), problem);
        RouteMonitor all = RouteMonitor::open(0, problem);
        RouteSocket other = RouteSocket::open(problem);
        EXPECT_EQ(problem, "");
        EXPECT_NE(other.port(), network.socket.port());
        EXPECT_THAT(told(monitor), IsEmpty());
        const std::vector<Step> ours{
            AddHop{network.hop(1, network.one)},
            PutRoute{route_to("10.0.0.0/8", network.one, "192.0.2.1"), false}};
        for (const Answer& answer : network.socket.take(ours)) {
            EXPECT_EQ(answer.error, 0) << answer.reason;
        }
        EXPECT_THAT(told(monitor), IsEmpty());
        EXPECT_THAT(told(all), ElementsAre(RTM_NEWNEXTHOP, RTM_NEWROUTE));
        const std::vector<Step> theirs{
            RemoveRoute{route_to("10.0.0.0/8", network.one, "192.0.2.1")}, RemoveNextHop{1},
            AddHop{network.hop(2, network.one)}};
        for (const Answer& answer : other.take(theirs)) {
            EXPECT_EQ(answer.error, 0) << answer.reason;
        }
        pollfd waiting{.fd = monitor.descriptor(), .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&waiting, 1, 0), 1);
        EXPECT_THAT(told(monitor), ElementsAre(RTM_DELROUTE, RTM_DELNEXTHOP, RTM_NEWNEXTHOP));
        network.two.set_up(false);
        const auto types = told(monitor);
        EXPECT_THAT(types, ::testing::Contains(RTM_NEWLINK));
        EXPECT_THAT(types, ::testing::Contains(RTM_DELROUTE)) << "the way to its network";
        // Buckets, neighbours and rules are nobody's business here.
        for (const int type : types) {
            EXPECT_THAT(
                (std::vector<int>{RTM_NEWLINK, RTM_DELLINK, RTM_NEWADDR, RTM_DELADDR, RTM_NEWROUTE,
                                  RTM_DELROUTE, RTM_NEWNEXTHOP, RTM_DELNEXTHOP}),
                ::testing::Contains(type));
        }
    });
}

TEST_F(LbrouteKernel, buckets_that_change_wake_nobody) {
    in_own_network([](Network& network) {
        std::string problem;
        const Group group{.id = 9, .entries = {{1, 1}}, .is_resilient = true, .buckets = 256};
        const std::vector<Step> first{AddHop{network.hop(1, network.one)},
                                      AddHop{network.hop(2, network.two)}, PutGroup{group, false}};
        network.socket.take(first);
        RouteMonitor monitor = RouteMonitor::open(0, problem);
        Group both = group;
        both.entries = {{1, 1}, {2, 1}};
        const std::vector<Step> second{PutGroup{both, true}};
        network.socket.take(second);
        EXPECT_THAT(told(monitor), ElementsAre(RTM_NEWNEXTHOP));
    });
}

TEST_F(LbrouteKernel, monitor_that_lost_announcements_says_so) {
    in_own_network([](Network& network) {
        std::string problem;
        RouteMonitor monitor = RouteMonitor::open(network.socket.port(), problem);
        const int least = 1;
        setsockopt(monitor.descriptor(), SOL_SOCKET, SO_RCVBUF, &least, sizeof least);
        RouteSocket other = RouteSocket::open(problem);
        std::vector<Step> steps;
        for (int i = 0; i < 200; ++i) {
            steps.push_back(PutRoute{
                route_to("10.0." + std::to_string(i) + ".0/24", network.one, "192.0.2.1"), false});
        }
        other.take(steps);
        const auto types = told(monitor);
        EXPECT_THAT(types, ::testing::Contains(-1));
        EXPECT_LT(types.size(), 200U);
    });
}

}  // namespace

}  // namespace lbroute

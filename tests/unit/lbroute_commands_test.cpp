// What an operator types, against files, a kernel and a network of the test's own. Skipped without
// the right to make them.

#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "lbroute/maintenance.h"
#include "lbroute/rtnetlink.h"
#include "lbroute/served_namespace.h"
#include "lbroute/status.h"
#include "support/lbroute_scene.h"
#include "unit/support/lbroute_machine.h"
#include "unit/support/temporary_folder.h"

namespace lbroute {

namespace {

using namespace machine;
using namespace scene;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr const char* configuration = R"(
health {
    interface wan1 {
        nexthop 192.0.2.1
    }
    interface wan2 {
        nexthop 198.51.100.1
    }
    interface wan3 {
        nexthop 203.0.113.1
        namespace blue
    }
    interface6 wan2 {
        nexthop fe80::1
    }
}
)";

/// What a command gave.
struct Given {
    int status = 0;
    std::string output;
    std::string errors;
};

class LbrouteCommands : public ::testing::Test {
  protected:
    LbrouteCommands() {
        folder.put("lb.conf", configuration);
        options.configuration = folder.file("lb.conf");
        options.output_directory = folder.path();
    }

    static Given given(const std::function<int()>& command) {
        ::testing::internal::CaptureStdout();
        ::testing::internal::CaptureStderr();
        Given made;
        made.status = command();
        std::cout.flush();
        made.output = ::testing::internal::GetCapturedStdout();
        made.errors = ::testing::internal::GetCapturedStderr();
        return made;
    }
    Given status() {
        return given([this] { return show_status(options, false, false); });
    }
    Given commands() {
        return given([this] { return show_commands(options); });
    }
    Given held(const HoldRequest& request) {
        return given([&] { return hold(options, request); });
    }
    Given released(const HoldRequest& request) {
        return given([&] { return release(options, request); });
    }
    static HoldRequest request(const std::string& interface) {
        HoldRequest made;
        made.interface = interface;
        return made;
    }

    /// Puts the fragment into force in the default namespace, with what is held.
    ServedNamespace::Result put_into_force(ServedNamespace& served) const {
        std::string problem;
        served.follow(problem);
        EXPECT_EQ(problem, "");
        for (FragmentFile& file : served.fragments()) {
            file.read(boottime_ms());
        }
        const StateFolder state =
            StateFolder::open(StateFolder::usual_path, StateFolder::IfMissing::leave, problem);
        return served.put_into_force(
            surroundings_of("", uplinks, read_holds(state, boottime_ms()).holds), true);
    }

    const TemporaryFolder folder;
    Options options;
    Uplinks uplinks{.uplinks = {uplink("wan1", "192.0.2.1"), uplink("wan2", "198.51.100.1")},
                    .rules = {},
                    .watched = {{"", Family::ipv4}}};
};

TEST_F(LbrouteCommands, status_tells_what_is_missing_and_what_agrees) {
    in_own_machine([this] {
        Given shown = status();
        EXPECT_EQ(shown.status, 1);
        EXPECT_THAT(shown.output, StartsWith("lbroute does not run\n"));
        EXPECT_THAT(shown.output, HasSubstr("/usr/etc/routing-wlb.conf: missing\n"));
        EXPECT_THAT(shown.output, HasSubstr("namespace blue\nnot looked at: there is no namespace "
                                            "blue\n"));
        std::filesystem::remove(folder.file("lb.conf"));
        folder.put("lb.conf",
                   "health {\n interface wan1 {\n  nexthop 192.0.2.1\n }\n interface "
                   "wan2 {\n  nexthop 198.51.100.1\n }\n}\nrule 1_ipv4 {\n interface wan1 {\n"
                   "  weight 1\n }\n target {\n  address 10.0.0.0/8\n }\n}\n");
        write_fragment(both);
        shown = status();
        EXPECT_EQ(shown.status, 1);
        EXPECT_THAT(shown.output, HasSubstr("IPv4 10.0.0.0/8  metric 0  missing\n"
                                            "    via 192.0.2.1     dev wan1  weight 1  -    "
                                            "missing\n"));
        ServedNamespace served("", options);
        put_into_force(served);
        shown = status();
        EXPECT_EQ(shown.status, 1);
        EXPECT_THAT(shown.output,
                    HasSubstr("no routing daemon runs for IPv4 of the default namespace, "
                              "so nobody takes over"));
        std::ofstream("/run/routing.pid") << getpid() << "\n";
        shown = status();
        EXPECT_EQ(shown.status, 0) << shown.output;
        EXPECT_THAT(shown.output, HasSubstr("IPv4 10.0.0.0/8  metric 0  ok  sticky\n"
                                            "    via 192.0.2.1     dev wan1  weight 1  25.0 %"));
        EXPECT_THAT(shown.output, ::testing::EndsWith("The kernel routes as the fragments ask.\n"));
        const Given json = given([this] { return show_status(options, false, true); });
        EXPECT_EQ(json.status, 0);
        EXPECT_THAT(json.output, HasSubstr("\"agrees\": true,"));
        options.table = 1000;
        EXPECT_EQ(given([this] { return show_status(options, true, false); }).status, 1);
    });
}

TEST_F(LbrouteCommands, status_tells_of_routes_that_the_daemon_does_not_watch) {
    in_own_machine([this] {
        std::ofstream("/run/routing.pid") << getpid() << "\n";
        write_fragment(both);
        const Given shown = status();
        EXPECT_EQ(shown.status, 1);
        EXPECT_THAT(shown.output,
                    HasSubstr("/usr/etc/routing-wlb.conf has routes (1) that lb does not watch, as "
                              "the configuration has no IPv4 rule with an uplink there: they end "
                              "with: truncate -s 0 /usr/etc/routing-wlb.conf\n"));
    });
}

TEST_F(LbrouteCommands, hold_and_release_tell_what_they_did) {
    in_own_machine([this] {
        write_fragment(both);
        HoldRequest asked = request("wan2");
        asked.duration = "90m";
        Given done = held(asked);
        EXPECT_EQ(done.status, 0) << done.errors;
        EXPECT_EQ(done.output,
                  "wan2 is held in IPv4 and IPv6 for 1h 30m\n"
                  "lbroute does not run: the hold counts once it does\n");
        EXPECT_THAT(status().output, HasSubstr("held: wan2 IPv4 for 1h 30m\nheld: wan2 IPv6 for "));
        asked.family = Family::ipv6;
        done = released(asked);
        EXPECT_EQ(done.status, 0);
        EXPECT_EQ(done.output, "wan2 is released in IPv6\n");
        done = released(asked);
        EXPECT_EQ(done.status, 1);
        EXPECT_EQ(
            done.errors,
            "lbroute: wan2 is not held; what is held ends with: lbroute release wan2 --family "
            "ipv4\n");
        EXPECT_EQ(released(request("wan2")).output, "wan2 is released in IPv4\n");
        asked = request("wan1");
        asked.namespace_name = "blue";
        EXPECT_EQ(released(asked).errors, "lbroute: wan1 in namespace blue is not held\n");
        asked = request("wan3");
        asked.namespace_name = "blue";
        asked.family = Family::ipv4;
        EXPECT_THAT(held(asked).output,
                    HasSubstr(" until lbroute release wan3 --namespace blue --family ipv4\n"));
        EXPECT_EQ(released(request("wan3")).errors,
                  "lbroute: wan3 is not held; what is held ends with: lbroute release wan3 "
                  "--namespace blue --family ipv4\n");
        EXPECT_EQ(held(request("wan1")).output,
                  "wan1 is held in IPv4 until lbroute release wan1\n"
                  "lbroute does not run: the hold counts once it does\n");
    });
}

TEST_F(LbrouteCommands, hold_refuses_what_is_no_uplink_or_time) {
    in_own_machine([this] {
        Given done = held(request("wan9"));
        EXPECT_EQ(done.status, 1);
        EXPECT_EQ(done.output, "");
        EXPECT_EQ(done.errors, "lbroute: no uplink is called wan9 in " + folder.file("lb.conf") +
                                   " or in the dumps below " + folder.file("wlb_dump") + "\n");
        done = held(request("wan3"));
        EXPECT_THAT(done.errors, ::testing::EndsWith("; it is in namespace blue: --namespace "
                                                     "blue\n"));
        HoldRequest asked = request("wan3");
        asked.namespace_name = "blue";
        EXPECT_EQ(held(asked).output,
                  "wan3 in namespace blue is held in IPv4 until lbroute release wan3 --namespace "
                  "blue\n"
                  "lbroute does not run: the hold counts once it does\n");
        asked.namespace_name = "red";
        EXPECT_THAT(held(asked).errors, HasSubstr("is called wan3 in namespace red in "));
        asked = request("wan1");
        asked.family = Family::ipv6;
        EXPECT_EQ(held(asked).status, 1) << "it has no IPv6";
        asked = request("wan1");
        asked.duration = "5x";
        EXPECT_EQ(held(asked).errors, "lbroute: '5x' is no time: 90s, 30m, 2h or 1d\n");
        EXPECT_EQ(released(request("wan1")).status, 1) << "nothing was held";
    });
}

TEST_F(LbrouteCommands, hold_of_the_last_next_hop_says_that_its_routes_go_on) {
    in_own_machine([this] {
        write_fragment(first);
        const std::string goes_on =
            "IPv4 10.0.0.0/8 goes on over wan1: it has no other next hop (--force takes it away "
            "too)\n";
        EXPECT_THAT(held(request("wan1")).output, HasSubstr(goes_on));
        EXPECT_THAT(held(request("wan2")).output, ::testing::Not(HasSubstr("goes on over")));
        HoldRequest asked = request("wan1");
        asked.is_forced = true;
        EXPECT_THAT(held(asked).output, ::testing::Not(HasSubstr("goes on over")));
        EXPECT_THAT(status().output,
                    HasSubstr("held: wan1 IPv4 until it is released, also as the last next hop\n"));
    });
}

TEST_F(LbrouteCommands, dry_run_prints_the_commands_and_changes_nothing) {
    in_own_machine([this] {
        folder.put("lb.conf", "health {\n interface wan1 {\n  nexthop 192.0.2.1\n }\n}\n");
        write_fragment(first);
        options.is_sticky = false;
        EXPECT_EQ(commands().output,
                  "ip route add 10.0.0.0/8 metric 0 protocol 76 via 192.0.2.1 dev wan1\n");
        EXPECT_EQ(commands().status, 0);
        ServedNamespace served("", options);
        put_into_force(served);
        EXPECT_EQ(commands().output, "") << "all is done";
        options.flushes = true;
        EXPECT_EQ(commands().output, "ip route del 10.0.0.0/8 metric 0 protocol 76\n");
        options.flushes = false;
        write_fragment("protocol static {\nroute nonsense;\n};\n");
        const Given faulty = commands();
        EXPECT_EQ(faulty.status, 1);
        EXPECT_EQ(faulty.errors,
                  "lbroute: /usr/etc/routing-wlb.conf line 2: 'nonsense' is no IPv4 prefix; the "
                  "route is left out\n");
    });
}

TEST_F(LbrouteCommands, flush_reaches_namespaces_that_are_no_longer_configured) {
    const bool is_possible = in_own_network({"/usr", "/run", "/var"}, [this] {
        std::filesystem::create_directory_symlink("/run", "/var/run");
        std::filesystem::create_directories("/run/netns");
        std::filesystem::create_directories("/var/vrfs/green/usr/etc");
        std::ofstream("/run/netns/green") << "";
        folder.put("lb.conf", "health {\n interface wan1 {\n  nexthop 192.0.2.1\n }\n}\n");
        std::unique_ptr<TestLink> link;
        std::thread([&link] {
            ASSERT_EQ(unshare(CLONE_NEWNET), 0);
            ASSERT_EQ(mount("/proc/thread-self/ns/net", "/run/netns/green", nullptr, MS_BIND, ""),
                      0);
            link = std::make_unique<TestLink>("wan1", "192.0.2.10");
            KernelRoute route;
            route.prefix = prefix("10.0.0.0/8");
            route.hops = {{address("192.0.2.1"), link->index, 1, false}};
            std::string problem;
            RouteSocket socket = RouteSocket::open(problem);
            const std::vector<Step> steps{PutRoute{route, false}};
            EXPECT_EQ(socket.take(steps).at(0).error, 0);
        }).join();
        options.flushes = true;
        EXPECT_EQ(commands().output, "ip -n green route del 10.0.0.0/8 metric 0 protocol 76\n");
    });
    if (!is_possible) {
        GTEST_SKIP() << "needs the right to make a network and mounts of its own";
    }
}

TEST_F(LbrouteCommands, served_namespace_routes_by_its_fragment) {
    in_own_machine([this] {
        write_fragment(both);
        ServedNamespace served("", options);
        EXPECT_FALSE(served.is_entered());
        std::string problem;
        EXPECT_TRUE(served.follow(problem));
        EXPECT_FALSE(served.follow(problem)) << "it is the same one still";
        EXPECT_TRUE(served.is_entered());
        auto result = put_into_force(served);
        EXPECT_TRUE(result.is_whole());
        EXPECT_EQ(result.taken.size(), 6U);
        EXPECT_THAT(result.abandoned, IsEmpty());
        EXPECT_FALSE(result.is_uncertain);
        EXPECT_TRUE(served.knows_fragments());
        EXPECT_EQ(served.mode(), Mode::sticky);
        EXPECT_EQ(served.list().state.routes.size(), 1U);
        const std::uint32_t group = served.list().state.groups.at(0).id;
        EXPECT_EQ(served.buckets_of(group).size(), 4U);
        EXPECT_FALSE(served.take_announcements()) << "we did it ourselves";
        EXPECT_THAT(put_into_force(served).taken, IsEmpty());
        write_fragment(first);
        result = put_into_force(served);
        EXPECT_THAT(result.abandoned, ElementsAre(address("198.51.100.10")));
        EXPECT_THAT(put_into_force(served).abandoned, IsEmpty()) << "told once";
        EXPECT_THAT(served.flush(), IsEmpty());
        const KernelState left = served.list().state;
        EXPECT_THAT(left.routes, IsEmpty());
        EXPECT_THAT(left.groups, IsEmpty());
        EXPECT_THAT(left.hops, IsEmpty());
    });
}

TEST_F(LbrouteCommands, rehearsal_tells_all_steps_and_takes_none) {
    in_own_machine([this] {
        write_fragment(both);
        ServedNamespace served("", options);
        std::string problem;
        served.follow(problem);
        served.fragments()[0].read(boottime_ms());
        const Surroundings surroundings = surroundings_of("", uplinks, {});
        EXPECT_EQ(served.rehearse(surroundings, true).taken.size(), 6U);
        EXPECT_THAT(served.list().state.routes, IsEmpty());
        EXPECT_EQ(served.look(surroundings, true).wanted.routes.size(), 1U);
        const auto planned = served.plan_for_others(surroundings, true);
        EXPECT_THAT(planned.taken, IsEmpty());
        EXPECT_EQ(planned.view.wanted.routes.size(), 1U);
        EXPECT_THAT(served.list().state.routes, IsEmpty());
    });
}

TEST_F(LbrouteCommands, announcements_matter_where_they_touch_our_routes) {
    in_own_machine([this] {
        write_fragment(first);
        ServedNamespace served("", options);
        put_into_force(served);
        std::string problem;
        RouteSocket others = RouteSocket::open(problem);
        const KernelState state = served.list().state;
        const int link = state.link("wan2")->index;
        const auto take = [&others](const Step& step) {
            EXPECT_EQ(others.take(std::span(&step, 1)).at(0).error, 0);
        };
        // Our own route, changed by somebody else.
        KernelRoute more;
        more.prefix = prefix("10.99.0.0/16");
        more.hops = {{address("198.51.100.1"), link, 1, false}};
        take(PutRoute{more, false});
        EXPECT_TRUE(served.take_announcements());
        EXPECT_FALSE(served.take_announcements());
        EXPECT_EQ(put_into_force(served).taken.size(), 1U) << "it is nobody's";
        take(AddHop{{4711, address("198.51.100.1"), link}});
        EXPECT_TRUE(served.take_announcements());
        const TestLink third("wan9", "203.0.113.9");
        EXPECT_TRUE(served.take_announcements()) << "another link";
    });
}

}  // namespace

}  // namespace lbroute

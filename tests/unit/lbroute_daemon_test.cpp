// The running program, in a network and with folders of the test's own. Skipped without the right
// to have them.

#include <gmock/gmock.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <thread>

#include "lbroute/daemon.h"
#include "lbroute/daemon_record.h"
#include "lbroute/holds.h"
#include "lbroute/rtnetlink.h"
#include "support/lbroute_scene.h"
#include "unit/support/faults.h"
#include "unit/support/lbroute_machine.h"
#include "unit/support/temporary_folder.h"

namespace lbroute {

namespace {

using namespace machine;
using namespace scene;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* pid_file = "/run/routing.pid";
/// Calls up to this one are counted and go through.
constexpr int never = std::numeric_limits<int>::max();

class LbrouteDaemon : public ::testing::Test {
  protected:
    LbrouteDaemon() {
        folder.put("lb.conf",
                   "health {\n interface wan1 {\n  nexthop 192.0.2.1\n }\n interface wan2 {\n  "
                   "nexthop 198.51.100.1\n }\n}\n");
        options.configuration = folder.file("lb.conf");
        options.output_directory = folder.path();
        options.keeps_flows = true;
    }
    // The program ignores it from its start on.
    ~LbrouteDaemon() override { std::signal(SIGPIPE, SIG_DFL); }

    static KernelState state() {
        std::string problem;
        RouteSocket socket = RouteSocket::open(problem);
        return list_kernel_state(socket).state;
    }
    /// Links that some route of ours leads to.
    static std::size_t hops() {
        std::set<int> links;
        for (const HopObject& hop : state().hops) {
            links.insert(hop.link);
        }
        return links.size();
    }
    int once(std::string& errors) {
        options.runs_once = true;
        ::testing::internal::CaptureStderr();
        int status = -1;
        // Its signals stay blocked in the thread that it runs in.
        std::thread([&] { status = run(options); }).join();
        errors = ::testing::internal::GetCapturedStderr();
        return status;
    }
    /// Runs the program beside `body`, until that has ended.
    int beside(const std::function<void()>& body) {
        std::atomic<bool> has_ended = false;
        int status = -1;
        std::thread program([&] {
            status = run(options);
            has_ended = true;
        });
        EXPECT_TRUE(within([] { return std::filesystem::exists(pid_file); }));
        body();
        while (!has_ended) {
            pthread_kill(program.native_handle(), SIGTERM);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        program.join();
        return status;
    }
    static bool within(const std::function<bool()>& condition) {
        const std::int64_t end_ms = boottime_ms() + 20'000;
        while (!condition()) {
            if (boottime_ms() > end_ms) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    const TemporaryFolder folder;
    Options options;
};

TEST_F(LbrouteDaemon, run_once_puts_the_fragments_into_force_and_leaves) {
    in_own_machine([this] {
        write_fragment(both);
        std::string errors;
        EXPECT_EQ(once(errors), 0) << errors;
        EXPECT_THAT(errors, HasSubstr("IPv4 10.0.0.0/8 via 192.0.2.1 dev wan1 weight 1, via "
                                      "198.51.100.1 dev wan2 weight 3\n"));
        EXPECT_THAT(state().routes, SizeIs(1));
        EXPECT_EQ(hops(), 2U);
        EXPECT_FALSE(std::filesystem::exists(pid_file));
        options.flushes = true;
        EXPECT_EQ(once(errors), 0) << errors;
        EXPECT_THAT(state().routes, IsEmpty());
        EXPECT_EQ(hops(), 0U);
    });
}

TEST_F(LbrouteDaemon, faulty_fragment_costs_its_route_and_the_status) {
    in_own_machine([this] {
        write_fragment(
            "protocol static {\nroute 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\nroute "
            "x;\n};\n");
        std::string errors;
        EXPECT_EQ(once(errors), 1);
        EXPECT_THAT(errors, HasSubstr("/usr/etc/routing-wlb.conf line 3: "));
        EXPECT_THAT(state().routes, SizeIs(1));
    });
}

TEST_F(LbrouteDaemon, damaged_holds_are_told_and_a_failure) {
    in_own_machine([this] {
        write_fragment(first);
        std::filesystem::create_directory(StateFolder::usual_path);
        std::ofstream(std::string(StateFolder::usual_path) + "/holds") << "{";
        std::string errors;
        EXPECT_EQ(once(errors), 1);
        EXPECT_THAT(errors, HasSubstr(std::string(StateFolder::usual_path) +
                                      "/holds is damaged: no hold is in force; hold again what "
                                      "must stay held\n"));
        EXPECT_THAT(state().routes, SizeIs(1));
    });
}

TEST_F(LbrouteDaemon, without_a_state_folder_it_fails_and_routes_nothing) {
    in_own_machine([this] {
        write_fragment(first);
        std::ofstream(StateFolder::usual_path) << "";
        std::string errors;
        EXPECT_EQ(once(errors), 1);
        EXPECT_THAT(errors, HasSubstr(" is no folder and is not used; remove it: rm "));
        EXPECT_THAT(state().routes, IsEmpty());
    });
}

TEST_F(LbrouteDaemon, routes_that_bird_has_not_got_are_not_told_as_routed) {
    in_own_machine([this] {
        write_fragment(both);
        options.bird2_file = folder.file("no/such/folder");
        std::string errors;
        EXPECT_EQ(once(errors), 1);
        EXPECT_THAT(errors, HasSubstr(options.bird2_file));
        EXPECT_THAT(errors, ::testing::Not(HasSubstr("10.0.0.0/8 via")));
        EXPECT_THAT(state().routes, IsEmpty()) << "bird is to make them";
    });
}

TEST_F(LbrouteDaemon, place_of_another_routing_daemon_is_left_alone) {
    in_own_machine([this] {
        write_fragment(both);
        std::ofstream(pid_file) << getppid() << "\n";
        std::string errors;
        EXPECT_EQ(once(errors), 1);
        EXPECT_THAT(errors, HasSubstr(pid_file));
        EXPECT_THAT(state().routes, IsEmpty());
        EXPECT_TRUE(std::filesystem::exists(pid_file));
    });
}

TEST_F(LbrouteDaemon, follows_fragments_holds_and_the_kernel_until_it_is_ended) {
    in_own_machine([this] {
        write_fragment(first);
        ::testing::internal::CaptureStderr();
        const int status = beside([] {
            EXPECT_TRUE(within([] { return hops() == 1; }));
            write_fragment(both);
            EXPECT_TRUE(within([] { return hops() == 2; }));
            std::string problem;
            const auto change = [&](auto&& what) {
                change_holds(StateFolder::open(StateFolder::usual_path,
                                               StateFolder::IfMissing::leave, problem),
                             boottime_ms(), what);
            };
            change([](std::vector<Hold>& holds) {
                add_hold(holds, {.namespace_name = "",
                                 .interface = "wan2",
                                 .family = Family::ipv4,
                                 .until_ms = boottime_ms() + 2'000,
                                 .is_forced = false});
            });
            EXPECT_TRUE(within([] { return hops() == 1; }));
            EXPECT_TRUE(within([] { return hops() == 2; })) << "the hold has ended by itself";
            // What somebody else takes away comes back.
            KernelRoute route = state().routes.at(0);
            RouteSocket other = RouteSocket::open(problem);
            const std::vector<Step> removal{RemoveRoute{route}};
            EXPECT_EQ(other.take(removal).at(0).error, 0);
            EXPECT_TRUE(within([] { return state().routes.size() == 1; }));
            EXPECT_EQ(read_record(StateFolder::open(StateFolder::usual_path,
                                                    StateFolder::IfMissing::leave, problem))
                          .pid,
                      getpid());
        });
        const std::string errors = ::testing::internal::GetCapturedStderr();
        EXPECT_EQ(status, 0) << errors;
        EXPECT_THAT(errors, HasSubstr("wan2 is held"));
        EXPECT_THAT(state().routes, SizeIs(1)) << "the routes stay";
        EXPECT_FALSE(std::filesystem::exists(pid_file));
    });
}

TEST_F(LbrouteDaemon, link_that_comes_later_is_taken_into_its_routes) {
    in_own_machine([this] {
        folder.put("lb.conf", "health {\n interface wan3 {\n  nexthop 203.0.113.1\n }\n}\n");
        write_fragment(
            "protocol static {\nroute 10.0.0.0/8 multipath via 203.0.113.1 weight 1;\n};\n");
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(beside([] {
                      EXPECT_EQ(hops(), 0U);
                      const TestLink third("wan3", "203.0.113.10");
                      EXPECT_TRUE(within([] { return hops() == 1; }));
                  }),
                  0);
        EXPECT_THAT(::testing::internal::GetCapturedStderr(),
                    HasSubstr("there is no interface wan3"));
    });
}

TEST_F(LbrouteDaemon, next_hop_of_either_uplink_is_guessed_once_and_then_rests) {
    in_own_machine([this] {
        folder.put(
            "lb.conf",
            "health {\n interface6 wan1 {\n  nexthop fe80::1\n }\n interface6 wan2 {\n  "
            "nexthop fe80::1\n }\n}\nrule 1_ipv6 {\n interface6 wan1 {\n  weight 1\n }\n "
            "interface6 wan2 {\n  weight 1\n }\n target {\n  address 2001:db8::/32\n }\n}\n");
        std::ofstream("/usr/etc/routing6-wlb.conf")
            << "protocol static {\nroute 2001:db8::/32 multipath via fe80::1 weight 1;\n};\n";
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(beside([] {
                      EXPECT_TRUE(within([] { return hops() == 1; }));
                      const faults::FailCall read(faults::Call::recv, 0, never);
                      std::this_thread::sleep_for(std::chrono::milliseconds(300));
                      EXPECT_LT(read.calls(), 30) << "it asks the kernel again and again";
                  }),
                  0);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "IPv6 2001:db8::/32 via fe80::1 dev wan1 weight 1\n");
    });
}

TEST_F(LbrouteDaemon, routes_go_with_it_where_it_flushes) {
    in_own_machine([this] {
        write_fragment(both);
        options.flushes = true;
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(beside([] { EXPECT_TRUE(within([] { return hops() == 2; })); }), 0);
        ::testing::internal::GetCapturedStderr();
        EXPECT_THAT(state().routes, IsEmpty());
        EXPECT_EQ(hops(), 0U);
    });
}

}  // namespace

}  // namespace lbroute

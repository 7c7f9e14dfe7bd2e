// How a run's routes reach the routing daemon: the fragment, the signal, the flushed route cache.

#include <gtest/gtest.h>

#include <cerrno>

#include "decision/lb_decision.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/given_router.h"
#include "unit/support/loaded.h"

namespace {

using Deeds = std::vector<std::string>;

const std::string fragment_path4 = "/usr/etc/routing-wlb.conf";
const std::string pid_path4 = "/var/run/routing.pid";

const std::string open_fragment = "open /usr/etc/routing-wlb.conf we";
const std::string ask_pid = "run cat /var/run/routing.pid 2>/dev/null re";
const std::string flush = "run ip route flush cache 2>/dev/null we";

const LogLine pid_unknown{7, "LBDecision::run() can't execute 'cat /var/run/routing.pid'"};

struct HandOver : testing::Test {
    HandOver() {
        for (const char* directory : {"/usr/etc", "/var/run"}) {
            router.make_directory(directory);
        }
    }

    /// An active uplink that carries the default route of its namespace and family.
    LBHealth& uplink(const std::string& name, const std::string& nexthop, bool ipv6 = false,
                     const std::string& ns_name = "") {
        LBHealth& health = data.family(ipv6).try_emplace(name, name, ipv6).first->second;
        health.nexthop = nexthop;
        health.active = true;
        health.namespace_name = ns_name;
        LBRule& rule = data.rules[ns_name + (ipv6 ? "2_ipv6" : "1_ipv4")];
        rule.namespace_name = ns_name;
        rule.targets = {{ipv6 ? "::/0" : "0.0.0.0/0", -1}};
        rule.interfaces[{name, ipv6}] = 1;
        return health;
    }
    /// What one more run does.
    Deeds run(TestContext& worker) {
        router.deeds.clear();
        LBDecision().run(data, worker);
        return router.deeds;
    }
    Deeds run() { return run(ctx); }

    LBData data;
    TestContext ctx;
    GivenRouter router;
    CapturedLog log;
};

TEST_F(HandOver, fragment_then_signal_then_flush) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, "signal 1 to 1234", flush}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandOver, fragment_stands_byte_for_byte) {
    LBHealth& eth0 = uplink("eth0", "dhcp");
    eth0.nexthop_addr = "10.0.0.1";
    uplink("eth1", "192.168.1.1");
    LBRule& rule = data.rules.at("1_ipv4");
    rule.interfaces[{"eth1", false}] = 3;
    rule.targets["10.8.0.0/16"] = 20;
    run();
    EXPECT_EQ(router.read(fragment_path4),
              "protocol static {\n"
              "check link 1;\n"
              "route 0.0.0.0/0 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3;\n"
              "route 10.8.0.0/16 multipath via 10.0.0.1 weight 1 via 192.168.1.1 weight 3 metric "
              "20;\n"
              "};\n");
}

TEST_F(HandOver, ipv6_twin_has_its_own_files_and_checks_no_links) {
    uplink("eth0", "2001:db8::1", true);
    router.write("/var/run/routing6.pid", "77\n");
    TestContext ctx6(true);
    EXPECT_EQ(run(ctx6), (Deeds{"open /usr/etc/routing6-wlb.conf we",
                                "run cat /var/run/routing6.pid 2>/dev/null re", "signal 1 to 77",
                                "run ip -6 route flush cache 2>/dev/null we"}));
    EXPECT_EQ(router.read("/usr/etc/routing6-wlb.conf"),
              "protocol static {\nroute ::/0 multipath via 2001:db8::1 weight 1;\n};\n");
    EXPECT_EQ(router.read(fragment_path4), std::nullopt);
}

TEST_F(HandOver, ipv6_routing_daemon_that_cannot_be_asked_is_a_debug_line) {
    uplink("eth0", "2001:db8::1", true);
    TestContext ctx6(true);
    run(ctx6);
    EXPECT_EQ(log.lines(), (std::vector<LogLine>{{7,
                                                  "LBDecision::run() can't execute "
                                                  "'cat /var/run/routing6.pid'"}}));
}

TEST_F(HandOver, namespace_has_its_own_files_and_memory) {
    uplink("eth0", "192.0.2.1");
    uplink("eth1", "198.51.100.1", false, "blue");
    router.write("/var/vrfs/blue/usr/var/run/routing.pid", "55\n");
    router.make_directory("/var/vrfs/blue/usr/etc");
    TestContext blue(false, "blue");
    EXPECT_EQ(run(blue), (Deeds{"open /var/vrfs/blue/usr/etc/routing-wlb.conf we",
                                "run cat /var/vrfs/blue/usr/var/run/routing.pid 2>/dev/null re",
                                "signal 1 to 55", flush}));
    EXPECT_EQ(router.read("/var/vrfs/blue/usr/etc/routing-wlb.conf"),
              "protocol static {\ncheck link 1;\n"
              "route 0.0.0.0/0 multipath via 198.51.100.1 weight 1;\n};\n");
    EXPECT_EQ(run().front(), open_fragment);
    EXPECT_EQ(run(blue), Deeds{});
    EXPECT_EQ(data.last_routes4,
              (std::map<std::string, std::string>{
                  {"", "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n"},
                  {"blue", "route 0.0.0.0/0 multipath via 198.51.100.1 weight 1;\n"}}));
}

TEST_F(HandOver, fragment_is_whole_before_anyone_is_asked_or_signalled) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    std::vector<std::optional<std::string>> seen;
    router.on_deed = [&](const std::string& deed) {
        if (deed != open_fragment) {
            seen.push_back(router.read(fragment_path4));
        }
    };
    run();
    const std::string whole =
        "protocol static {\ncheck link 1;\n"
        "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n};\n";
    EXPECT_EQ(seen, (std::vector<std::optional<std::string>>(3, whole)));
}

TEST_F(HandOver, no_lock_is_held_meanwhile) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    const Deeds& under_lock = router.note_deeds_under_lock();
    EXPECT_EQ(run().size(), 4U);
    EXPECT_EQ(under_lock, Deeds{});
}

TEST_F(HandOver, losing_every_route_leaves_an_empty_fragment) {
    LBHealth& health = uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    run();
    health.active = false;
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, "signal 1 to 1234", flush}));
    EXPECT_EQ(router.read(fragment_path4), "protocol static {\ncheck link 1;\n};\n");
}

TEST_F(HandOver, every_uplink_down_and_one_back_is_told_each_time) {
    LBHealth& health = uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    run();
    for (const bool is_active : {false, true, false, true}) {
        health.active = is_active;
        EXPECT_EQ(run().size(), 4U);
        EXPECT_EQ(run(), Deeds{});
    }
    EXPECT_EQ(router.read(fragment_path4),
              "protocol static {\ncheck link 1;\n"
              "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n};\n");
}

TEST_F(HandOver, fragment_that_cannot_be_written_is_not_tried_again_until_routes_change) {
    LBHealth& health = uplink("eth0", "192.0.2.1");
    router.remove("/usr/etc");
    router.write(pid_path4, "1234\n");
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, "signal 1 to 1234", flush}));
    router.make_directory("/usr/etc");
    EXPECT_EQ(run(), Deeds{});
    health.nexthop = "192.0.2.2";
    run();
    EXPECT_EQ(router.read(fragment_path4),
              "protocol static {\ncheck link 1;\n"
              "route 0.0.0.0/0 multipath via 192.0.2.2 weight 1;\n};\n");
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(HandOver, without_a_pid_nobody_is_signalled_and_nothing_flushed) {
    uplink("eth0", "192.0.2.1");
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid}));
    EXPECT_EQ(log.lines(), std::vector<LogLine>{pid_unknown});
    router.write(pid_path4, "1234\n");
    EXPECT_EQ(run(), Deeds{});  // not asked again until routes change
}

TEST_F(HandOver, empty_pid_file_is_like_none) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "");
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid}));
    EXPECT_EQ(log.lines(), std::vector<LogLine>{pid_unknown});
}

TEST_F(HandOver, routing_daemon_that_is_gone_does_not_keep_the_cache) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, "1234\n");
    const faults::FailCall is_gone(faults::Call::kill, ESRCH);
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, flush}));
    EXPECT_EQ(is_gone.calls(), 1);
    EXPECT_TRUE(log.lines().empty());
}

struct PidText : HandOver, testing::WithParamInterface<const char*> {};

struct PidOfNobody : PidText {};
TEST_P(PidOfNobody, is_not_signalled_but_the_cache_is_flushed) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, GetParam());
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, flush}));
}
// 0, -1 and -5 mean groups of processes to kill(2); 4294967297 would be cut to 1.
INSTANTIATE_TEST_SUITE_P(Pid, PidOfNobody,
                         testing::Values("0\n", "-1\n", "-5\n", "routing\n", "\n", "2147483648\n",
                                         "4294967297\n", "99999999999999999999\n"));

struct PidOfTheDaemon : PidText {};
TEST_P(PidOfTheDaemon, is_read_from_the_beginning_of_the_text) {
    uplink("eth0", "192.0.2.1");
    router.write(pid_path4, GetParam());
    EXPECT_EQ(run(), (Deeds{open_fragment, ask_pid, "signal 1 to 1234", flush}));
}
INSTANTIATE_TEST_SUITE_P(Pid, PidOfTheDaemon,
                         testing::Values("1234", "1234\n", "  1234\n", "1234 routing\n",
                                         "1234\n99\n"));

}  // namespace

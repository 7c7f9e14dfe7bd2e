// Whole runs of lbsim: the daemon on a simulated network, each in a process of its own.

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

#include "lbsim/apart.h"
#include "lbsim/packed.h"
#include "lbsim/report.h"
#include "lbsim/run.h"
#include "lbsim/scenario_text.h"

namespace {

using namespace lbsim;

constexpr const char* configuration = R"(
health {
    interface gi1_1 {
        nexthop 192.0.2.1
        success-ct 2
        failure-ct 2
        rule 1 {
            type ping {
                target 203.0.113.1
                resp-time 2000
            }
        }
    }
    interface gi1_2 {
        nexthop dhcp
        success-ct 2
        failure-ct 2
        rule 1 {
            type ping {
                target 203.0.113.2
                resp-time 2000
            }
        }
    }
    interface6 gi1_1 {
        nexthop 2001:db8::1
        success-ct 2
        failure-ct 2
        rule 1 {
            type ping {
                target 2001:db8:1::53
                resp-time 2000
            }
        }
    }
}
rule 1_ipv4 {
    interface gi1_1 {
        weight 1
    }
    interface gi1_2 {
        weight 3
    }
    target {
        address 0.0.0.0/0
    }
}
rule 1_ipv6 {
    interface6 gi1_1 {
        weight 1
    }
    target {
        address ::/0
    }
}
)";

Loaded loaded_of(const std::string& text) {
    const Apart apart = run_apart([&text] { return packed(load(text)); });
    EXPECT_EQ(apart.error, "");
    return unpacked_loaded(apart.result);
}

Story story_of(const std::string& scenario, std::uint64_t seed = 1,
               const std::string& of = configuration) {
    Story story;
    story.configuration = "lb.conf";
    story.uplinks = loaded_of(of).uplinks;
    story.seed = seed;
    const ParsedScenario parsed = parse_scenario(scenario);
    EXPECT_TRUE(parsed.errors.empty());
    EXPECT_TRUE(check_scenario(parsed.events, story.uplinks).empty());
    story.scenario = parsed.events;
    const Plan plan{.configuration = of,
                    .scenario = story.scenario,
                    .duration_us = duration_of(story.scenario, story.uplinks),
                    .seed = seed,
                    .success_ct = {},
                    .failure_ct = {}};
    const Apart apart = run_apart([&] { return packed(simulate(plan, story.uplinks)); });
    EXPECT_EQ(apart.error, "");
    story.run = unpacked_run(apart.result);
    story.summary = summarize(story.uplinks, story.scenario, story.run);
    return story;
}

std::string changes_of(const Story& story, const std::string& uplink, bool is_ipv6 = false) {
    std::string text;
    for (const ObservedChange& told : story.run.told) {
        if (told.kind == ObservedChange::Kind::state && told.uplink == uplink &&
            told.is_ipv6 == is_ipv6) {
            text += std::to_string(told.at_us / 1'000'000) + (told.is_up ? " up, " : " down, ");
        }
    }
    return text;
}

TEST(Apart, gives_what_the_task_returned) {
    const std::string large(1'000'000, 'x');
    const auto answers = run_apart(std::vector<std::function<std::string()>>{
        [] { return "one"; }, [&large] { return large; }, [] { return "three"; }});
    EXPECT_EQ(answers[0].result, "one");
    EXPECT_EQ(answers[1].result, large);
    EXPECT_EQ(answers[2].result, "three");
}

TEST(Apart, says_how_a_task_failed) {
    const Apart thrown = run_apart([]() -> std::string { throw std::runtime_error("no world"); });
    EXPECT_EQ(thrown.error, "a simulated run failed: no world");
    const Apart killed = run_apart([]() -> std::string {
        raise(SIGKILL);
        return {};
    });
    EXPECT_EQ(killed.error, "a simulated run was ended by signal 9 (Killed)");
}

TEST(Loaded, describes_the_uplinks_that_a_worker_serves) {
    const Loaded loaded = loaded_of(configuration);
    ASSERT_EQ(loaded.uplinks.size(), 3);
    EXPECT_EQ(shown(loaded.uplinks[0]), "gi1_1 ipv4");
    EXPECT_EQ(shown(loaded.uplinks[1]), "gi1_2 ipv4");
    EXPECT_EQ(shown(loaded.uplinks[2]), "gi1_1 ipv6");
    EXPECT_EQ(loaded.uplinks[1].nexthop, "dhcp");
    EXPECT_EQ(loaded.uplinks[2].targets, std::vector<std::string>{"2001:db8:1::53"});
    EXPECT_TRUE(loaded.messages.empty());
}

TEST(Loaded, has_the_loaders_messages_and_what_no_worker_serves) {
    const Loaded loaded =
        loaded_of("health {\n interface gi1_1 {\n success-ct many\n nexthop 192.0.2.1\n }\n}\n");
    EXPECT_EQ(loaded.messages.size(), 1);
    EXPECT_TRUE(loaded.uplinks.empty());
    EXPECT_EQ(loaded.without_worker, "gi1_1 ipv4");
}

// The whole answer of one outage, worked out by hand. A probe that is answered is collected a cycle
// later, and the next one leaves in the cycle behind that: a success every 2 s. One that is not is
// collected when it is older than 2 s, which it is after two cycles: a failure every 3 s. The first
// one of each uplink only asks for the next hop's address; that of gi1_2 must learn of its lease
// first.
TEST(SimulatedRun, of_one_outage_is_told_line_by_line) {
    const Story story = story_of("20s gi1_1 ipv4 dead\n40s gi1_1 ipv4 alive");
    EXPECT_EQ(timeline_text(story),
              "      6.0 s    gi1_1 ipv4: target 203.0.113.1 success\n"
              "      6.0 s    gi1_1 ipv4: active\n"
              "      6.0 s    ipv4 routes:\n"
              "                 route 0.0.0.0/0 multipath via 192.0.2.1 weight 1;\n"
              "      6.0 s    gi1_1 ipv6: target 2001:db8:1::53 success\n"
              "      6.0 s    gi1_1 ipv6: active\n"
              "      6.0 s    ipv6 routes:\n"
              "                 route ::/0 multipath via 2001:db8::1 weight 1;\n"
              "      9.0 s    gi1_2 ipv4: target 203.0.113.2 success\n"
              "      9.0 s    gi1_2 ipv4: active\n"
              "      9.0 s    ipv4 routes:\n"
              "                 route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.19.0.2 "
              "weight 3;\n"
              "     20.0 s  gi1_1 ipv4 dead\n"
              "     26.0 s    gi1_1 ipv4: target 203.0.113.1 failure\n"
              "     26.0 s    gi1_1 ipv4: inactive\n"
              "     26.0 s    ipv4 routes:\n"
              "                 route 0.0.0.0/0 multipath via 198.19.0.2 weight 3;\n"
              "     40.0 s  gi1_1 ipv4 alive\n"
              "     45.0 s    gi1_1 ipv4: target 203.0.113.1 success\n"
              "     45.0 s    gi1_1 ipv4: active\n"
              "     45.0 s    ipv4 routes:\n"
              "                 route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.19.0.2 "
              "weight 3;\n");
    EXPECT_EQ(head_text(story).substr(head_text(story).find('\n') + 1),
              "made up: the lease of gi1_2 ipv4 names the router 198.19.0.2\n");
}

TEST(SimulatedRun, gives_the_same_bytes_for_one_seed_and_others_for_another) {
    constexpr const char* bad_line =
        "20s gi1_1 loss 40%\n30s gi1_2 delay 1900ms jitter 300ms\n40s gi1_1 duplicates 50%\n"
        "60s gi1_1 reorder 30%\n900s gi1_1 clean";
    const std::string first = json_text(story_of(bad_line, 7));
    EXPECT_EQ(json_text(story_of(bad_line, 7)), first);
    EXPECT_NE(json_text(story_of(bad_line, 8)), first);
}

TEST(SimulatedRun, follows_a_lease_to_its_new_router) {
    const Story story = story_of("0s gi1_2 lease 198.51.100.1\n20s gi1_2 lease 198.51.100.254");
    EXPECT_TRUE(story.run.made_up_routers.empty());
    std::string last;
    for (const ObservedChange& told : story.run.told) {
        last = told.kind == ObservedChange::Kind::routes && !told.is_ipv6 ? told.text : last;
    }
    EXPECT_EQ(last,
              "route 0.0.0.0/0 multipath via 192.0.2.1 weight 1 via 198.51.100.254 weight 3;\n");
}

TEST(SimulatedRun, keeps_its_next_hop_when_the_lease_goes) {
    const Story story = story_of("20s gi1_2 lease none\n60s gi1_1 ipv6 dead");
    EXPECT_EQ(changes_of(story, "gi1_2"), "9 up, ");
}

TEST(SimulatedRun, reaches_every_target_again_through_an_uplink_that_is_clean) {
    const std::string through = "20s gi1_1 ipv4 target 203.0.113.1 ";
    const std::string behind = "\n60s gi1_1 clean\n100s gi1_2 alive";
    EXPECT_EQ(changes_of(story_of(through + "dead" + behind), "gi1_1"), "6 up, 26 down, 63 up, ");
    EXPECT_EQ(changes_of(story_of(through + "loss 100%" + behind), "gi1_1"),
              "6 up, 26 down, 63 up, ");
}

TEST(SimulatedRun, leaves_alone_what_is_of_the_other_family_too_where_one_is_clean) {
    EXPECT_EQ(changes_of(story_of("20s gi1_1 link down\n40s gi1_1 ipv6 clean"), "gi1_1"),
              "6 up, 26 down, ");
    EXPECT_EQ(
        changes_of(story_of("20s gi1_1 target 203.0.113.1 dead\n40s gi1_1 ipv6 clean"), "gi1_1"),
        "6 up, 26 down, ");
}

TEST(SimulatedRun, takes_out_an_uplink_whose_link_or_next_hop_goes) {
    const Story story =
        story_of("20s gi1_1 link down\n40s gi1_1 link up\n60s gi1_1 nexthop dead\n80s gi1_1 clean");
    EXPECT_EQ(changes_of(story, "gi1_1"), "6 up, 26 down, 48 up, 66 down, 85 up, ");
}

TEST(SimulatedRun, takes_out_a_tunnel_whose_next_hop_goes) {
    const Story story = story_of("20s gre1 nexthop dead\n40s gre1 nexthop alive", 1, R"(
health {
    interface gre1 {
        nexthop tunnel
        success-ct 2
        failure-ct 2
        rule 1 {
            type ping {
                target 203.0.113.1
                resp-time 2000
            }
        }
    }
}
rule 1_ipv4 {
    interface gre1 {
        weight 1
    }
    target {
        address 0.0.0.0/0
    }
}
)");
    EXPECT_EQ(changes_of(story, "gre1"), "3 up, 25 down, 44 up, ");
}

TEST(SimulatedRun, has_no_answer_for_ipv6_on_a_tunnel_by_name_which_takes_no_frames) {
    for (const auto& [name, changes] :
         std::map<std::string, std::string>{{"gi1_1", "9 up, "}, {"gre1", ""}}) {
        const Story story = story_of("60s " + name + " clean", 1,
                                     "health {\n interface6 " + name +
                                         " {\n  nexthop 2001:db8::1\n  success-ct 2\n"
                                         "  failure-ct 2\n  rule 1 {\n   type ping {\n"
                                         "    target 2001:db8:1::53\n   }\n  }\n }\n}\n"
                                         "rule 1_ipv6 {\n interface6 " +
                                         name +
                                         " {\n  weight 1\n }\n target {\n"
                                         "  address ::/0\n }\n}\n");
        EXPECT_EQ(changes_of(story, name, true), changes);
    }
}

TEST(SimulatedRun, is_not_misled_by_duplicates) {
    EXPECT_EQ(changes_of(story_of("2s gi1_1 duplicates 100%\n60s gi1_2 alive"), "gi1_1"), "6 up, ");
}

TEST(SimulatedRun, holds_no_uplink_for_dead_that_answers_late_but_in_time) {
    const Story story = story_of("20s gi1_1 delay 1900ms\n60s gi1_1 delay 3500ms");
    EXPECT_EQ(changes_of(story, "gi1_1"), "6 up, 65 down, ");
}

TEST(SimulatedRun, knows_a_target_that_is_dead_through_one_uplink_only) {
    const Story story = story_of("20s gi1_1 target 203.0.113.1 dead");
    EXPECT_EQ(changes_of(story, "gi1_1"), "6 up, 26 down, ");
    EXPECT_EQ(changes_of(story, "gi1_2"), "9 up, ");
}

/// With an extended ping in one namespace, whose runs last seconds, and a plain one in another.
constexpr const char* burst_and_plain = R"(
health {
    interface gi1_1 {
        namespace blue
        nexthop 192.0.2.1
        success-ct 1
        failure-ct 1
        rule 1 {
            type ping_ext {
                target 203.0.113.1
                period 10
                count 4
                timeout 1000
                loss 50
            }
        }
    }
    interface gi1_2 {
        nexthop 198.51.100.1
        success-ct 1
        failure-ct 1
        rule 1 {
            type ping {
                target 203.0.113.2
                resp-time 2000
            }
        }
    }
}
rule 1_ipv4 {
    namespace blue
    interface gi1_1 {
        weight 1
    }
    target {
        address 0.0.0.0/0
    }
}
rule 2_ipv4 {
    interface gi1_2 {
        weight 1
    }
    target {
        address 0.0.0.0/0
    }
}
)";

TEST(SimulatedRun, lets_an_extended_ping_burn_its_seconds_without_holding_other_workers) {
    const Story story = story_of("20s gi1_1 loss 45%\n100s gi1_2 dead", 3, burst_and_plain);
    EXPECT_EQ(changes_of(story, "gi1_2"), "4 up, 103 down, ");
    // 100 s and a bit more for the one worker; the other loses whole seconds to lost echoes.
    EXPECT_LT(story.run.cycles, 2 * (story.run.duration_us / 1'000'000) - 10);
}

TEST(Json, is_an_object_of_events_and_a_summary) {
    const std::string text = json_text(story_of("20s gi1_1 ipv4 dead"));
    EXPECT_TRUE(
        text.starts_with("{\n \"events\": [\n  {\n   \"t\": 6.006,\n   \"event\": \"target\",\n"
                         "   \"uplink\": \"gi1_1\",\n   \"family\": \"ipv4\",\n"
                         "   \"namespace\": \"\",\n   \"up\": true,\n"
                         "   \"text\": \"target 203.0.113.1 success\"\n  },\n"
                         "  {\n   \"t\": 6.006,\n   \"event\": \"state\",\n"))
        << text;
    EXPECT_NE(text.find("   \"active\": true,\n   \"text\": \"%WAN-I-INSTANCE: IP interface "
                        "gigabitethernet 1/0/1 changed state to active\"\n"),
              std::string::npos);
    EXPECT_NE(text.find("\n \"summary\": {\n"), std::string::npos);
}

}  // namespace

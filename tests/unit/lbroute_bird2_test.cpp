#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>

#include "lbroute/bird2.h"
#include "lbroute/command.h"
#include "unit/support/temporary_folder.h"

namespace {

using lbroute::Address;
using lbroute::bird2_text;
using lbroute::Bird2File;
using lbroute::Bird2Hop;
using lbroute::Bird2Routes;
using lbroute::Bird2Text;
using lbroute::Family;
using lbroute::Prefix;
using lbroute::run_command;
using namespace std::chrono_literals;

Address ipv4(const char* text) {
    return Address::parse(text, Family::ipv4).value();
}
Address ipv6(const char* text) {
    return Address::parse(text, Family::ipv6).value();
}
Bird2Hop hop(const Address& gateway, const char* interface = "", int weight = 1) {
    return {.gateway = gateway, .interface = interface, .weight = weight, .link = 0};
}

const Prefix everything4{ipv4("0.0.0.0"), 0};
const Prefix everything6{ipv6("::"), 0};

Bird2Text text4(std::vector<Bird2Hop> hops) {
    return bird2_text({.check_link = false, .routes = {{everything4, std::move(hops), {}}}}, {});
}

TEST(LbrouteBird2, one_static_protocol_a_family) {
    const Bird2Routes four{
        .check_link = true,
        .routes = {{everything4, {hop(ipv4("10.0.0.1")), hop(ipv4("192.168.1.1"), "", 3)}, {}},
                   {{ipv4("10.8.0.0"), 16}, {hop(ipv4("10.0.0.1"), "gi1_1", 1)}, 20U}}};
    const Bird2Routes six{
        .check_link = false,
        .routes = {{everything6,
                    {hop(ipv6("fe80::1"), "gi1_1", 1), hop(ipv6("fe80::1"), "eth0.10", 2)},
                    {}}}};
    const Bird2Text made = bird2_text(four, six);
    EXPECT_TRUE(made.left_out.empty());
    EXPECT_EQ(made.text,
              "# Written by lbroute(8), which replaces it whole; changes made here are lost.\n"
              "# For krt_metric to reach the kernel, the kernel protocols need \"metric 0;\".\n"
              "protocol static lbroute4 {\n"
              "\tipv4;\n"
              "\tcheck link yes;\n"
              "\troute 0.0.0.0/0\n"
              "\t\tvia 192.168.1.1 weight 3\n"
              "\t\tvia 10.0.0.1 weight 1;\n"
              "\troute 10.8.0.0/16\n"
              "\t\tvia 10.0.0.1%'gi1_1' weight 1 { krt_metric = 20; };\n"
              "}\n"
              "protocol static lbroute6 {\n"
              "\tipv6;\n"
              "\troute ::/0\n"
              "\t\tvia fe80::1%'eth0.10' weight 2\n"
              "\t\tvia fe80::1%'gi1_1' weight 1;\n"
              "}\n");
}

TEST(LbrouteBird2, gateway_outside_of_all_networks_is_told_as_on_link) {
    Bird2Hop outside = hop(ipv4("10.0.0.1"), "gi1_1", 1);
    outside.is_on_link = true;
    EXPECT_NE(text4({outside}).text.find("\t\tvia 10.0.0.1%'gi1_1' weight 1 onlink;\n"),
              std::string::npos);
}

TEST(LbrouteBird2, without_routes_both_protocols_stand_empty) {
    const std::string text = bird2_text({}, {}).text;
    EXPECT_NE(text.find("protocol static lbroute4 {\n\tipv4;\n}\n"), std::string::npos);
    EXPECT_NE(text.find("protocol static lbroute6 {\n\tipv6;\n}\n"), std::string::npos);
}

TEST(LbrouteBird2, weights_are_scaled_within_their_route) {
    const std::string text =
        text4({hop(ipv4("10.0.0.1"), "", 600), hop(ipv4("10.0.0.2"), "", 301)}).text;
    EXPECT_NE(text.find("via 10.0.0.1 weight 256\n"), std::string::npos);
    EXPECT_NE(text.find("via 10.0.0.2 weight 128;\n"), std::string::npos);
}

TEST(LbrouteBird2, next_hops_come_in_birds_own_order) {
    Bird2Hop first = hop(ipv4("10.0.0.9"), "a", 1);
    first.link = 3;
    Bird2Hop second = hop(ipv4("10.0.0.9"), "b", 1);
    second.link = 2;
    const std::string text =
        text4({first, second, hop(ipv4("10.0.0.2"), "c", 1), hop(ipv4("10.0.0.10"), "d", 5)}).text;
    EXPECT_NE(text.find("\t\tvia 10.0.0.10%'d' weight 5\n"
                        "\t\tvia 10.0.0.2%'c' weight 1\n"
                        "\t\tvia 10.0.0.9%'b' weight 1\n"
                        "\t\tvia 10.0.0.9%'a' weight 1;\n"),
              std::string::npos)
        << text;
}

TEST(LbrouteBird2, link_local_gateway_without_an_interface_is_left_out_and_told) {
    const Bird2Text made = bird2_text(
        {}, {.check_link = false,
             .routes = {{everything6, {hop(ipv6("fe80::1")), hop(ipv6("2001:db8::1"))}, {}},
                        {{ipv6("2001:db8:5::"), 48}, {hop(ipv6("fe80::1"))}, {}}}});
    EXPECT_NE(made.text.find("route ::/0\n\t\tvia 2001:db8::1 weight 1;\n}\n"), std::string::npos);
    EXPECT_EQ(made.left_out,
              (std::vector<std::string>{
                  "route ::/0: next hop fe80::1 is left out: its interface is not known",
                  "route 2001:db8:5::/48: next hop fe80::1 is left out: its interface is not known",
                  "route 2001:db8:5::/48 is left out: it has no next hop that bird can be told"}));
}

TEST(LbrouteBird2, interface_name_that_bird_cannot_quote_is_left_out_and_told) {
    const Bird2Text made =
        text4({hop(ipv4("10.0.0.1"), "a'; drop"), hop(ipv4("10.0.0.2"), "wan-1.10:x_")});
    EXPECT_EQ(made.text.find("drop"), std::string::npos);
    EXPECT_NE(made.text.find("via 10.0.0.2%'wan-1.10:x_' weight 1;\n"), std::string::npos);
    EXPECT_EQ(made.left_out,
              std::vector<std::string>{"route 0.0.0.0/0: next hop 10.0.0.1 is left out: bird has "
                                       "no way to write the name of interface a'; drop"});
}

TEST(LbrouteBird2, plan_gives_the_next_hops_in_use_and_metrics_that_differ_from_the_kernels_own) {
    const auto planned = [](const Prefix& prefix, std::uint32_t priority) {
        lbroute::PlannedRoute route;
        route.prefix = prefix;
        route.priority = priority;
        return route;
    };
    lbroute::PlannedHop used;
    used.gateway = ipv4("10.0.0.1");
    used.interface = "gi1_1";
    used.weight = 7;
    used.is_on_link = true;
    lbroute::PlannedHop held = used;
    held.state = lbroute::HopState::held;
    lbroute::PlannedHop last = used;
    last.state = lbroute::HopState::last_though_held;
    std::vector<lbroute::PlannedRoute> plan = {
        planned(everything4, 0), planned({ipv4("10.0.0.0"), 8}, 20),
        planned({ipv4("10.1.0.0"), 16}, 0), planned(everything6, 1024)};
    plan[0].hops = {used, held};
    plan[1].hops = {last};
    plan[2].hops = {held};
    plan[3].hops = {used};
    const Bird2Routes made = lbroute::bird2_routes(plan, Family::ipv4, true);
    EXPECT_TRUE(made.check_link);
    Bird2Hop in_use = hop(ipv4("10.0.0.1"), "gi1_1", 7);
    in_use.is_on_link = true;
    const std::vector<lbroute::Bird2Route> expected = {{everything4, {in_use}, {}},
                                                       {{ipv4("10.0.0.0"), 8}, {in_use}, 20U}};
    EXPECT_EQ(made.routes, expected);
    const Bird2Routes made6 = lbroute::bird2_routes(plan, Family::ipv6, false);
    ASSERT_EQ(made6.routes.size(), 1U);
    EXPECT_EQ(made6.routes[0].metric, std::nullopt);
}

/// A file of bird's and a command that counts its runs.
class LbrouteBird2File : public testing::Test {
  protected:
    Bird2File made(const std::string& after = "") const {
        return {folder.file("lbroute.conf"), "echo run >> " + folder.file("runs") + after};
    }
    std::size_t runs() const { return folder.text("runs").size() / 4; }

    const TemporaryFolder folder;
};

TEST_F(LbrouteBird2File, is_written_and_the_command_run_once_for_one_text) {
    Bird2File file = made();
    EXPECT_EQ(file.put("text\n"), "");
    EXPECT_EQ(file.put("text\n"), "");
    EXPECT_EQ(folder.text("lbroute.conf"), "text\n");
    EXPECT_EQ(runs(), 1U);
    EXPECT_EQ(file.put("other\n"), "");
    EXPECT_EQ(runs(), 2U);
    struct stat found {};
    ASSERT_EQ(stat(folder.file("lbroute.conf").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0644U);
}

TEST_F(LbrouteBird2File, command_runs_at_the_start_though_the_file_is_as_it_should_be) {
    folder.put("lbroute.conf", "text\n");
    EXPECT_EQ(made().put("text\n"), "");
    EXPECT_EQ(runs(), 1U);
}

TEST_F(LbrouteBird2File, refusal_is_told_and_tried_again_with_the_same_text) {
    Bird2File file = made("; echo 'bird.conf:3:5 syntax error' >&2; exit 1");
    for (std::size_t i = 1; i <= 2; ++i) {
        EXPECT_EQ(file.put("text\n"),
                  "bird has not taken over " + folder.file("lbroute.conf") + ": 'echo run >> " +
                      folder.file("runs") +
                      "; echo 'bird.conf:3:5 syntax error' >&2; exit 1' failed with status 1: "
                      "bird.conf:3:5 syntax error");
        EXPECT_EQ(runs(), i);
    }
}

TEST_F(LbrouteBird2File, file_that_somebody_changed_is_mended) {
    Bird2File file = made();
    EXPECT_EQ(file.put("text\n"), "");
    folder.put("lbroute.conf", "changed\n");
    EXPECT_EQ(file.put("text\n"), "");
    EXPECT_EQ(folder.text("lbroute.conf"), "text\n");
    EXPECT_EQ(runs(), 2U);
}

TEST_F(LbrouteBird2File, missing_folder_is_told_and_nothing_is_run) {
    Bird2File file(folder.file("none/lbroute.conf"), "echo run >> " + folder.file("runs"));
    EXPECT_EQ(file.put("text\n"),
              "cannot write " + folder.file("none/lbroute.conf") + ": No such file or directory");
    EXPECT_EQ(runs(), 0U);
}

TEST(LbrouteCommand, success_is_an_empty_text_whatever_it_wrote) {
    EXPECT_EQ(run_command("echo all is well", 10s), "");
}

TEST(LbrouteCommand, failure_tells_status_and_words_in_one_printable_line) {
    EXPECT_EQ(run_command("printf 'one\\n\\n\\033[2Jtwo\\n'; exit 3", 10s),
              "failed with status 3: one; ?[2Jtwo");
    EXPECT_EQ(run_command("exit 1", 10s), "failed with status 1");
    EXPECT_EQ(run_command("kill -TERM $$", 10s), "ended by Terminated");
    EXPECT_EQ(run_command("/nonexistent-command configure", 10s).substr(0, 24),
              "failed with status 127: ");
}

TEST(LbrouteCommand, of_long_output_the_end_is_shown) {
    const std::string told = run_command(
        "i=0; while [ $i -lt 20000 ]; do echo line; i=$((i+1)); done; echo last; exit 1", 30s);
    EXPECT_TRUE(told.ends_with("; line; last")) << told;
    EXPECT_LT(told.size(), 500U);
}

TEST(LbrouteCommand, one_that_does_not_end_is_killed_with_what_it_started) {
    const TemporaryFolder folder;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(
        run_command("echo slow; sleep 60 & echo $! > " + folder.file("pid") + "; sleep 60", 1s),
        "no end within 1 s, killed: slow");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
    const pid_t started = std::stoi(folder.text("pid"));
    // Orphaned by now: whoever adopted it collects it in its own time.
    std::string state;
    for (int look = 0; look < 500; ++look) {
        std::ifstream stat("/proc/" + std::to_string(started) + "/stat");
        std::string ignored;
        state.clear();
        stat >> ignored >> ignored >> state;
        if (state.empty() || state == "Z") {
            break;
        }
        usleep(10000);
    }
    EXPECT_TRUE(state.empty() || state == "Z") << state;
}

TEST(LbrouteCommand, background_process_that_keeps_the_output_open_is_not_waited_for) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run_command("sleep 30 & exit 0", 20s), "");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

TEST(LbrouteCommand, signals_that_the_caller_blocks_reach_it) {
    sigset_t term;
    sigset_t before;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    sigprocmask(SIG_BLOCK, &term, &before);
    EXPECT_EQ(run_command("kill -TERM $$; sleep 5", 10s), "ended by Terminated");
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace

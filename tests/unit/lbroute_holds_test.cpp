#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "lbroute/holds.h"
#include "unit/support/temporary_folder.h"

namespace {

using lbroute::change_holds;
using lbroute::Family;
using lbroute::Hold;
using lbroute::parse_duration_ms;
using lbroute::read_holds;
using lbroute::StateFolder;

constexpr std::int64_t now_ms = 1000000;

Hold hold(const std::string& interface, Family family = Family::ipv4) {
    return {.namespace_name = "",
            .interface = interface,
            .family = family,
            .until_ms = {},
            .is_forced = false};
}

/// The folder that the tests keep holds in.
class LbrouteHolds : public testing::Test {
  protected:
    static StateFolder opened(const std::string& path) {
        std::string problem;
        StateFolder folder = StateFolder::open(path, StateFolder::IfMissing::make, problem);
        EXPECT_EQ(problem, "");
        return folder;
    }
    bool add(const Hold& added, std::int64_t at_ms = now_ms) const {
        return change_holds(folder, at_ms, [&](auto& holds) { add_hold(holds, added); }).is_written;
    }

    const TemporaryFolder above;
    const StateFolder folder = opened(above.file("state"));
};

TEST(LbrouteDuration, number_and_unit) {
    EXPECT_EQ(parse_duration_ms("90s"), 90000);
    EXPECT_EQ(parse_duration_ms("30m"), 1800000);
    EXPECT_EQ(parse_duration_ms("2h"), 7200000);
    EXPECT_EQ(parse_duration_ms("1d"), 86400000);
    EXPECT_EQ(parse_duration_ms("3650d"), 315360000000);
}

TEST(LbrouteDuration, anything_else_is_none) {
    for (const char* text : {"", "s", "90", "90 s", " 90s", "90S", "0s", "-5m", "1.5h", "1h30m",
                             "3651d", "99999999999999999999s", "9223372036854775807d", "+5m"}) {
        EXPECT_EQ(parse_duration_ms(text), std::nullopt) << text;
    }
}

TEST_F(LbrouteHolds, none_without_a_file_or_a_folder) {
    EXPECT_TRUE(read_holds(folder, now_ms).holds.empty());
    EXPECT_EQ(read_holds(folder, now_ms).problem, "");
    std::string problem;
    const StateFolder missing =
        StateFolder::open(above.file("none"), StateFolder::IfMissing::leave, problem);
    EXPECT_EQ(problem, "");
    EXPECT_TRUE(read_holds(missing, now_ms).holds.empty());
}

TEST_F(LbrouteHolds, written_ones_are_read_back_as_they_were) {
    Hold odd{.namespace_name = "blue \"x\"",
             .interface = "gi1_1",
             .family = Family::ipv6,
             .until_ms = now_ms + 5,
             .is_forced = true};
    ASSERT_TRUE(add(hold("eth0")));
    ASSERT_TRUE(add(odd));
    EXPECT_EQ(read_holds(folder, now_ms).holds, (std::vector<Hold>{hold("eth0"), odd}));
    EXPECT_EQ(read_holds(folder, now_ms).problem, "");
}

TEST_F(LbrouteHolds, hold_of_the_same_uplink_takes_the_earlier_ones_place) {
    Hold later = hold("eth0");
    later.until_ms = now_ms + 1;
    ASSERT_TRUE(add(hold("eth0")));
    ASSERT_TRUE(add(hold("eth0", Family::ipv6)));
    ASSERT_TRUE(add(later));
    EXPECT_EQ(read_holds(folder, now_ms).holds,
              (std::vector<Hold>{hold("eth0", Family::ipv6), later}));
}

TEST_F(LbrouteHolds, released_ones_are_gone_and_others_stay) {
    ASSERT_TRUE(add(hold("eth0")));
    ASSERT_TRUE(add(hold("eth1")));
    bool was_held = false;
    const auto done = change_holds(folder, now_ms, [&](auto& holds) {
        was_held = remove_hold(holds, "", "eth0", Family::ipv4);
    });
    EXPECT_TRUE(was_held);
    EXPECT_TRUE(done.is_written);
    EXPECT_EQ(done.holds, std::vector<Hold>{hold("eth1")});
    EXPECT_EQ(read_holds(folder, now_ms).holds, done.holds);
}

TEST_F(LbrouteHolds, ended_ones_do_not_count) {
    Hold timed = hold("eth0");
    timed.until_ms = now_ms + 100;
    ASSERT_TRUE(add(timed));
    EXPECT_EQ(read_holds(folder, now_ms + 99).holds.size(), 1U);
    EXPECT_TRUE(read_holds(folder, now_ms + 100).holds.empty());
}

TEST_F(LbrouteHolds, next_end_is_the_earliest) {
    Hold soon = hold("eth0");
    soon.until_ms = 7;
    Hold late = hold("eth1");
    late.until_ms = 9;
    EXPECT_EQ(lbroute::next_end_ms({late, soon, hold("eth2")}), 7);
    EXPECT_EQ(lbroute::next_end_ms({hold("eth2")}), std::nullopt);
}

TEST_F(LbrouteHolds, one_family_or_namespace_is_not_the_other) {
    const std::vector<Hold> holds = {hold("eth0")};
    EXPECT_NE(lbroute::hold_of(holds, "", "eth0", Family::ipv4), nullptr);
    EXPECT_EQ(lbroute::hold_of(holds, "", "eth0", Family::ipv6), nullptr);
    EXPECT_EQ(lbroute::hold_of(holds, "blue", "eth0", Family::ipv4), nullptr);
    EXPECT_EQ(lbroute::hold_of(holds, "", "eth1", Family::ipv4), nullptr);
}

TEST_F(LbrouteHolds, garbage_is_told_and_the_next_hold_mends_it) {
    for (const char* garbage : {"", "x", "[]", "{\"holds\": 5}", "\xff\xfe{", "{\"holds\": [{]"}) {
        above.put("state/holds", garbage);
        const auto reading = read_holds(folder, now_ms);
        EXPECT_TRUE(reading.holds.empty()) << garbage;
        EXPECT_EQ(reading.problem, folder.path() +
                                       "/holds is damaged: no hold is in force; "
                                       "hold again what must stay held")
            << garbage;
    }
    const auto done =
        change_holds(folder, now_ms, [](auto& holds) { add_hold(holds, hold("eth0")); });
    EXPECT_TRUE(done.is_written);
    EXPECT_NE(done.problem, "");
    EXPECT_EQ(read_holds(folder, now_ms).problem, "");
    EXPECT_EQ(read_holds(folder, now_ms).holds.size(), 1U);
}

TEST_F(LbrouteHolds, damaged_entry_costs_no_other) {
    above.put("state/holds",
              R"({"holds": [5, {"interface": "eth9"},
                  {"interface": "eth0", "namespace": "", "family": "ipv4",
                   "until_boottime_ms": null, "forced": false},
                  {"interface": "eth1", "namespace": "", "family": "ipx",
                   "until_boottime_ms": null, "forced": false}]})");
    const auto reading = read_holds(folder, now_ms);
    EXPECT_EQ(reading.holds, std::vector<Hold>{hold("eth0")});
    EXPECT_EQ(
        reading.problem,
        folder.path() + "/holds is damaged: some holds are lost; hold again what must stay held");
}

TEST_F(LbrouteHolds, commands_at_the_same_time_lose_nothing) {
    std::vector<std::thread> commands;
    for (int i = 0; i < 8; ++i) {
        commands.emplace_back([this, i] { EXPECT_TRUE(add(hold("eth" + std::to_string(i)))); });
    }
    for (std::thread& command : commands) {
        command.join();
    }
    EXPECT_EQ(read_holds(folder, now_ms).holds.size(), 8U);
}

TEST_F(LbrouteHolds, symbolic_link_in_the_files_place_is_not_followed) {
    above.put("victim", "precious");
    std::filesystem::create_symlink(above.file("victim"), above.file("state/holds"));
    const auto reading = read_holds(folder, now_ms);
    EXPECT_TRUE(reading.holds.empty());
    EXPECT_NE(reading.problem, "");
    EXPECT_TRUE(add(hold("eth0")));
    EXPECT_EQ(above.text("victim"), "precious");
    EXPECT_EQ(read_holds(folder, now_ms).holds.size(), 1U);
}

TEST_F(LbrouteHolds, file_that_others_may_change_is_not_believed) {
    ASSERT_TRUE(add(hold("eth0")));
    std::filesystem::permissions(above.file("state/holds"), std::filesystem::perms(0666));
    const auto reading = read_holds(folder, now_ms);
    EXPECT_TRUE(reading.holds.empty());
    EXPECT_TRUE(reading.is_unread);
    EXPECT_NE(reading.problem.find("can be changed by other users"), std::string::npos);
}

TEST_F(LbrouteHolds, file_of_another_user_is_not_believed) {
    ASSERT_TRUE(add(hold("eth0")));
    if (chown(above.file("state/holds").c_str(), 1, 1) != 0) {
        GTEST_SKIP() << "only root gives a file to somebody else";
    }
    EXPECT_TRUE(read_holds(folder, now_ms).holds.empty());
}

TEST_F(LbrouteHolds, pipe_in_the_files_place_stops_nobody) {
    ASSERT_EQ(mkfifo(above.file("state/holds").c_str(), 0600), 0);
    EXPECT_EQ(read_holds(folder, now_ms).problem, folder.path() + "/holds is no regular file");
}

TEST(LbrouteStateFolder, is_made_enterable_whatever_the_umask) {
    const TemporaryFolder above;
    const mode_t mask = umask(077);
    std::string problem;
    const auto folder =
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem);
    EXPECT_EQ(folder.write("file", "text"), "");
    umask(mask);
    EXPECT_EQ(problem, "");
    struct stat found {};
    ASSERT_EQ(stat(above.file("state").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0755U);
    ASSERT_EQ(stat(above.file("state/file").c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 07777U, 0644U);
}

TEST(LbrouteStateFolder, that_others_can_write_in_is_not_trusted) {
    const TemporaryFolder above;
    ASSERT_EQ(mkdir(above.file("state").c_str(), 0755), 0);
    ASSERT_EQ(chmod(above.file("state").c_str(), 0777), 0);
    std::string problem;
    const auto folder =
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem);
    EXPECT_FALSE(folder.is_open());
    EXPECT_EQ(problem, above.file("state") +
                           " can be changed by other users than root and is not used; remove it: "
                           "rm -r " +
                           above.file("state"));
}

TEST(LbrouteStateFolder, symbolic_link_is_not_trusted) {
    const TemporaryFolder above;
    ASSERT_EQ(mkdir(above.file("other").c_str(), 0755), 0);
    ASSERT_EQ(symlink(above.file("other").c_str(), above.file("state").c_str()), 0);
    std::string problem;
    EXPECT_FALSE(
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem).is_open());
    EXPECT_EQ(problem, above.file("state") + " is no folder and is not used; remove it: rm " +
                           above.file("state"));
}

TEST(LbrouteStateFolder, lock_is_held_by_one_at_a_time) {
    const TemporaryFolder above;
    std::string problem;
    const auto folder =
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem);
    Fd first = folder.lock("lock", StateFolder::Wait::not_at_all, problem);
    EXPECT_TRUE(first.is_open());
    EXPECT_FALSE(folder.lock("lock", StateFolder::Wait::not_at_all, problem).is_open());
    EXPECT_EQ(problem, "");
    first = Fd();
    EXPECT_TRUE(folder.lock("lock", StateFolder::Wait::not_at_all, problem).is_open());
}

TEST(LbrouteStateFolder, lock_can_be_opened_by_its_owner_alone) {
    const TemporaryFolder above;
    std::string problem;
    const auto folder =
        StateFolder::open(above.file("state"), StateFolder::IfMissing::make, problem);
    const std::string path = above.file("state") + "/lock";
    const auto rights = [&path] {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0);
        return found.st_mode & 0777U;
    };
    Fd lock = folder.lock("lock", StateFolder::Wait::not_at_all, problem);
    EXPECT_EQ(rights(), 0600U);
    lock = Fd();
    chmod(path.c_str(), 0644);
    lock = folder.lock("lock", StateFolder::Wait::some_seconds, problem);
    EXPECT_EQ(rights(), 0600U) << "made by an earlier version";
}

}  // namespace

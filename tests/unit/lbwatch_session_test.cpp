// From rewritten files and a process that is or is not there to what the watcher tells.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "lbwatch/session.h"
#include "support/temporary_folder.h"
#include "unit/support/given_dumps.h"
#include "unit/support/lbwatch_items.h"

namespace {

using namespace lbwatch;
using namespace lbwatch_items;
using testing::ElementsAre;
using testing::IsEmpty;

using Evidence = DaemonWatch::Evidence;
using Files = std::set<DumpFile>;

/// The given uplink with its usual probe alone: gi1_1 in blue, active, judged five seconds ago.
given::Bytes uplink() {
    given::Bytes bytes(4312, given::is_big_here);
    bytes.text(0, "gi1_1").text(64, "blue").text(96, "192.0.2.1").text(188, "198.51.100.1");
    bytes.number(234, 3).byte(242, 1).byte(4288, 1).number(4289, 5).number(4293, 0);
    return bytes.number(4301, 3).number(4305, 3).byte(4311, 1);
}

given::Dump failed_uplink() {
    return uplink().number(234, 0).number(238, 3).byte(242, 2).number(4293, 1).byte(4311, 0);
}

class LbwatchSession : public testing::Test {
  protected:
    /// Writes a file, rewritten at that second, and has it read then.
    std::vector<std::string> put(DumpFile file, const given::Dump& dump, double second) {
        folder.put(name_of(file), std::string(dump.begin(), dump.end()));
        const std::int64_t wall_ms = at(second).wall_ms;
        const timespec written{.tv_sec = wall_ms / 1000,
                               .tv_nsec = static_cast<long>(wall_ms % 1000 * 1'000'000)};
        const timespec times[2] = {written, written};
        EXPECT_EQ(utimensat(AT_FDCWD, folder.file(name_of(file)).c_str(), times, 0), 0);
        return lines(session.rewritten({file}, at(second)));
    }
    std::vector<std::string> tick(double second, Evidence evidence = Evidence::alive) {
        return lines(session.tick(
            [&] {
                ++times_asked;
                return evidence;
            },
            at(second)));
    }
    static std::vector<std::string> lines(const std::vector<Event>& events) {
        std::vector<std::string> all;
        for (const Event& event : events) {
            all.push_back(line_of(event));
        }
        return all;
    }
    UplinkState state(int family = 4) {
        return session.world().uplinks().at(key("gi1_1", family, "blue")).state;
    }

    TemporaryFolder folder;
    std::vector<std::string> notices;
    int times_asked = 0;
    Session session{folder.path(), [this](const std::string& line) { notices.push_back(line); }};
};

TEST_F(LbwatchSession, first_dump_tells_the_daemon_and_its_uplinks) {
    EXPECT_THAT(put(DumpFile::outbounds4, uplink(), 0),
                ElementsAre("daemon unknown -> running",
                            "gi1_1 ipv4 (blue) absent -> active: 198.51.100.1 answered (3 in a "
                            "row)"));
    EXPECT_THAT(put(DumpFile::outbounds4, uplink(), 1), IsEmpty());
    EXPECT_THAT(put(DumpFile::outbounds4, failed_uplink(), 2),
                ElementsAre("gi1_1 ipv4 (blue) target 198.51.100.1 success -> failure: no answer "
                            "(3 in a row)",
                            "gi1_1 ipv4 (blue) active -> failed: 198.51.100.1 no answer (3 in a "
                            "row)"));
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(LbwatchSession, file_that_is_not_there_tells_nothing) {
    EXPECT_THAT(session.rewritten({DumpFile::outbounds4, DumpFile::rules}, at(0)), IsEmpty());
    EXPECT_EQ(session.daemon().state(), DaemonState::unknown);
    EXPECT_THAT(session.again(), IsEmpty());
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(LbwatchSession, cut_file_is_read_again_for_two_seconds_and_then_told_once) {
    given::Dump cut = uplink();
    cut.resize(4000);
    EXPECT_THAT(put(DumpFile::outbounds4, cut, 0), IsEmpty());
    EXPECT_THAT(session.again(), ElementsAre(DumpFile::outbounds4));
    put(DumpFile::outbounds4, cut, 1.999);
    EXPECT_THAT(session.again(), ElementsAre(DumpFile::outbounds4));
    EXPECT_THAT(notices, IsEmpty());
    put(DumpFile::outbounds4, cut, 2);
    EXPECT_THAT(session.again(), IsEmpty());
    put(DumpFile::outbounds4, cut, 3);
    EXPECT_THAT(notices, ElementsAre(folder.file("wlb_ipv4_outbounds.bin") +
                                     " is empty or ends within a record; it is not believed, and "
                                     "read again when it is rewritten"));
    EXPECT_EQ(session.daemon().state(), DaemonState::unknown);
    put(DumpFile::outbounds4, uplink(), 4);
    ASSERT_EQ(notices.size(), 2U);
    EXPECT_EQ(notices[1], folder.file("wlb_ipv4_outbounds.bin") + " can be read again");
    // The next one begins anew.
    put(DumpFile::outbounds4, cut, 5);
    EXPECT_THAT(session.again(), ElementsAre(DumpFile::outbounds4));
}

TEST_F(LbwatchSession, file_of_somebody_else_is_not_believed) {
    EXPECT_THAT(put(DumpFile::outbounds4, uplink().byte(4288, 51), 0), IsEmpty());
    ASSERT_EQ(notices.size(), 1U);
    EXPECT_TRUE(notices[0].ends_with("; it is not believed, and read again when it is rewritten"));
    EXPECT_THAT(session.again(), IsEmpty());
    EXPECT_EQ(session.daemon().state(), DaemonState::unknown);
}

TEST_F(LbwatchSession, end_of_the_process_leaves_nothing_known) {
    put(DumpFile::outbounds4, uplink(), 0);
    EXPECT_EQ(state(), UplinkState::active);
    EXPECT_THAT(lines(session.ended("why", at(10))), ElementsAre("daemon running -> stopped: why"));
    EXPECT_EQ(state(), UplinkState::unknown);
    EXPECT_THAT(put(DumpFile::outbounds4, uplink(), 70),
                ElementsAre("daemon stopped -> running after 1m 0s"));
    EXPECT_EQ(state(), UplinkState::active);
    // In between nobody watched.
    const auto spans = session.take_spans();
    ASSERT_EQ(spans.size(), 2U);
    EXPECT_EQ(spans[0].end_ms, at(0).wall_ms);
    EXPECT_EQ(spans[1].begin_ms, at(70).wall_ms);
}

TEST_F(LbwatchSession, daemon_that_has_forgotten_a_judgement_was_started_anew) {
    put(DumpFile::outbounds4, uplink().number(4293, 40), 0);
    EXPECT_THAT(put(DumpFile::outbounds4, uplink().number(4293, 0), 10),
                ElementsAre("daemon running -> stopped: it was started anew",
                            "daemon stopped -> running after 0s"));
}

TEST_F(LbwatchSession, process_is_looked_for_when_files_rest_and_stopped_without_one) {
    put(DumpFile::outbounds4, uplink(), 0);
    tick(2.499);
    EXPECT_EQ(times_asked, 0);
    EXPECT_THAT(tick(2.5, Evidence::none), IsEmpty());
    EXPECT_EQ(times_asked, 1);
    EXPECT_EQ(state(), UplinkState::active);
    EXPECT_THAT(tick(3, Evidence::none),
                ElementsAre("daemon running -> stopped: there is no process of it"));
    EXPECT_EQ(state(), UplinkState::unknown);
    tick(4, Evidence::none);
    EXPECT_EQ(times_asked, 2) << "nobody asks for one that has stopped";
}

TEST_F(LbwatchSession, silent_daemon_is_stale_after_its_patience) {
    put(DumpFile::outbounds4, uplink(), 0);
    EXPECT_THAT(tick(29.999), IsEmpty());
    EXPECT_THAT(tick(30), ElementsAre("daemon running -> stale: no file rewritten for 30s, its "
                                      "process is there"));
    EXPECT_EQ(state(), UplinkState::unknown);
}

TEST_F(LbwatchSession, extended_pings_of_a_worker_lengthen_its_patience_by_a_minute_each) {
    const auto with_extended = [](const given::Bytes& bytes) {
        given::Bytes made = bytes;
        return made.byte(243, 1);
    };
    put(DumpFile::outbounds4, with_extended(uplink()), 0);
    EXPECT_THAT(tick(89.999), IsEmpty());
    EXPECT_EQ(tick(90).size(), 1U);
}

TEST_F(LbwatchSession, family_whose_dump_rests_alone_is_unknown) {
    put(DumpFile::outbounds6, uplink(), 0);
    for (int second = 0; second <= 30; ++second) {
        put(DumpFile::outbounds4, uplink(), second);
        EXPECT_THAT(tick(second), IsEmpty());
    }
    put(DumpFile::outbounds4, uplink(), 31);
    EXPECT_THAT(tick(31), ElementsAre("gi1_1 ipv6 (blue) active -> unknown: "
                                      "wlb_ipv6_outbounds.bin not rewritten for 31s"));
    EXPECT_EQ(state(6), UplinkState::unknown);
    EXPECT_EQ(state(4), UplinkState::active);
    EXPECT_THAT(tick(32), IsEmpty());
}

TEST_F(LbwatchSession, family_that_the_daemon_has_never_written_is_gone_after_a_minute) {
    session.world().remember(key("gi1_1", 6, "blue"), UplinkState::failed);
    for (int second = 0; second < 60; ++second) {
        put(DumpFile::outbounds4, uplink(), second);
        EXPECT_THAT(tick(second), IsEmpty());
    }
    put(DumpFile::outbounds4, uplink(), 60);
    EXPECT_THAT(tick(60), ElementsAre("gi1_1 ipv6 (blue) failed -> absent: no longer in the "
                                      "daemon's configuration"));
    EXPECT_THAT(tick(61), IsEmpty());
}

TEST_F(LbwatchSession, routes_are_told_once_rules_and_routes_were_read) {
    put(DumpFile::outbounds4, uplink(), 0);
    put(DumpFile::routes, given::route(), 0);
    EXPECT_THAT(session.world().rules(), IsEmpty());
    put(DumpFile::rules, given::rule(), 0);
    ASSERT_EQ(session.world().rules().size(), 1U);
    EXPECT_EQ(session.world().rules().begin()->second.used.at("10.0.0.0/8"), "gi1_1");
    // After its end those that lie there may be of the daemon before.
    session.ended("why", at(1));
    put(DumpFile::outbounds4, failed_uplink(), 2);
    EXPECT_EQ(session.world().rules().begin()->second.used.at("10.0.0.0/8"), "gi1_1");
}

TEST_F(LbwatchSession, minutes_and_spans_of_both_families_are_handed_on) {
    put(DumpFile::outbounds4, uplink(), 0);
    put(DumpFile::outbounds6, uplink(), 0);
    put(DumpFile::outbounds4, failed_uplink(), 1);
    const auto spans = session.take_spans();
    ASSERT_EQ(spans.size(), 3U);
    EXPECT_EQ(spans[0].uplink.family, 4);
    EXPECT_EQ(spans[2].uplink.family, 6);
    EXPECT_THAT(session.take_minutes(at(2), false), IsEmpty());
    const auto minutes = session.take_minutes(at(2), true);
    ASSERT_EQ(minutes.size(), 2U);
    EXPECT_EQ(minutes[0].answered, 1);
    EXPECT_EQ(minutes[0].missed, 1);
}

TEST_F(LbwatchSession, clock_that_was_set_is_told_with_its_step) {
    const auto step = [this](double second, std::int64_t set_s) {
        Moment now = at(second);
        now.wall_ms += set_s * 1000;
        session.tick([] { return Evidence::alive; }, now);
    };
    step(0, 0);
    step(1, 3600);
    step(2, 3600);
    step(3, -30);
    EXPECT_THAT(notices,
                ElementsAre("the clock was set forward by 1h 0m; the history has a gap there",
                            "the clock was set back by 1h 0m; the history has a gap there"));
}

}  // namespace

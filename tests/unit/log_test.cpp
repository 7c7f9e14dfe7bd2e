#include "host/log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "unit/support/captured_log.h"
#include "unit/support/child_process.h"

namespace {

using Lines = std::vector<LogLine>;

TEST(Log, error_has_its_prefix_and_severity) {
    const CapturedLog log;
    LOG_ERROR("can't open %s", "blue");
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-ERR: can't open blue"}}));
}

TEST(Log, warning_has_its_prefix_and_severity) {
    const CapturedLog log;
    LOG_WARNING("Can't create new thread for VRF %s", "red");
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-WARN: Can't create new thread for VRF red"}}));
}

TEST(Log, information_has_its_prefix_and_severity) {
    const CapturedLog log;
    LOG_INFO("IP interface %s changed state to inactive", "eth0");
    EXPECT_EQ(log.lines(),
              (Lines{{6, "%WAN-I-INSTANCE: IP interface eth0 changed state to inactive"}}));
}

TEST(Log, text_without_arguments) {
    const CapturedLog log;
    LOG_ERROR("select() failed");
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-ERR: select() failed"}}));
}

TEST(Log, plain_line_has_no_prefix) {
    const CapturedLog log;
    plain_syslog(7, "wan_lb: error on sending icmp packet: %d", 101);
    EXPECT_EQ(log.lines(), (Lines{{7, "wan_lb: error on sending icmp packet: 101"}}));
}

TEST(Log, percent_signs_of_an_argument_stay) {
    const CapturedLog log;
    LOG_ERROR("can't open %s", "%s%n");
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-ERR: can't open %s%n"}}));
}

TEST(Log, lines_of_two_threads_arrive_whole) {
    const CapturedLog log;
    constexpr int lines_each = 100;
    const auto write_lines = [](const char* word) {
        for (int i = 0; i < lines_each; ++i) {
            plain_syslog(7, "%s", word);
        }
    };
    std::thread other(write_lines, "other");
    write_lines("own");
    other.join();
    const Lines lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), LogLine{7, "own"}), lines_each);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), LogLine{7, "other"}), lines_each);
    EXPECT_EQ(lines.size(), 2 * lines_each);
}

TEST(Log, system_log_gets_facility_identity_and_process) {
    const PrivateDevEnd end = run_in_child_with_private_dev([] {
        LOG_INFO("up");
        plain_syslog(3, "down");
    });
    if (!end.permitted) {
        GTEST_SKIP() << "needs the right to have a /dev of its own";
    }
    ASSERT_EQ(end.log.size(), 2U);
    EXPECT_TRUE(end.log[0].starts_with("<30>")) << end.log[0];  // daemon, information
    EXPECT_NE(end.log[0].find(" wan_lb["), std::string::npos) << end.log[0];
    EXPECT_TRUE(end.log[0].ends_with("]: %WAN-I-INSTANCE: up")) << end.log[0];
    EXPECT_TRUE(end.log[1].starts_with("<27>")) << end.log[1];  // daemon, error
    EXPECT_TRUE(end.log[1].ends_with("]: down")) << end.log[1];
}

}  // namespace

#include "base/keep_alive_quorum.h"

#include <gtest/gtest.h>

namespace {

TEST(KeepAliveQuorum, single_worker_goes_on_every_time) {
    KeepAliveQuorum quorum;
    EXPECT_TRUE(quorum.report(1));
    EXPECT_TRUE(quorum.report(1));
}

TEST(KeepAliveQuorum, two_workers_go_on_once_for_both) {
    KeepAliveQuorum quorum;
    quorum.report(1);
    EXPECT_FALSE(quorum.report(2));
    EXPECT_TRUE(quorum.report(1));
    EXPECT_FALSE(quorum.report(1));
    EXPECT_TRUE(quorum.report(2));
}

TEST(KeepAliveQuorum, stuck_worker_is_not_hidden_by_its_siblings) {
    KeepAliveQuorum quorum;
    quorum.report(1);
    quorum.report(2);
    quorum.report(3);
    ASSERT_TRUE(quorum.report(1));
    for (int cycle = 0; cycle < 100; ++cycle) {
        EXPECT_FALSE(quorum.report(1));
        EXPECT_FALSE(quorum.report(2));
    }
    EXPECT_TRUE(quorum.report(3));
}

TEST(KeepAliveQuorum, repeated_reports_do_not_count_twice) {
    KeepAliveQuorum quorum;
    quorum.report(1);
    quorum.report(2);
    ASSERT_TRUE(quorum.report(1));
    EXPECT_FALSE(quorum.report(2));
    EXPECT_FALSE(quorum.report(2));
    EXPECT_TRUE(quorum.report(1));
}

TEST(KeepAliveQuorum, newcomer_joins_the_quorum_with_its_first_report) {
    KeepAliveQuorum quorum;
    quorum.report(1);
    EXPECT_FALSE(quorum.report(9));
    EXPECT_TRUE(quorum.report(1));
    EXPECT_FALSE(quorum.report(1));  // now the newcomer is waited for
}

}  // namespace

#include "probe/pending_probes.h"

#include <gtest/gtest.h>

namespace {

PktData probe(const std::string& interface, const std::string& target) {
    return {.interface = interface, .status = PktData::sent, .send_time = {}, .target = target};
}

TEST(PendingProbes, are_found_by_path_and_by_identifier) {
    PendingProbes probes;
    probes.insert(7, probe("eth0", "a"));
    EXPECT_EQ(probes.find("eth0", "a"), 7);
    ASSERT_NE(probes.find(7), nullptr);
    EXPECT_EQ(probes.find(7)->target, "a");
    EXPECT_EQ(probes.find("eth0", "b"), std::nullopt);
    EXPECT_EQ(probes.find("eth1", "a"), std::nullopt);
    EXPECT_EQ(probes.find(8), nullptr);
}

TEST(PendingProbes, identifier_still_in_flight_keeps_its_entry) {
    PendingProbes probes;
    probes.insert(7, probe("eth0", "a"));
    probes.insert(7, probe("eth1", "b"));
    EXPECT_EQ(probes.find(7)->interface, "eth0");
    EXPECT_EQ(probes.find("eth1", "b"), std::nullopt);
    EXPECT_EQ(probes.size(), 1U);
}

TEST(PendingProbes, answer_marks_only_its_own_entry) {
    PendingProbes probes;
    probes.insert(1, probe("eth0", "a"));
    probes.insert(2, probe("eth0", "b"));
    probes.mark_answered(2);
    probes.mark_answered(2);
    probes.mark_answered(99);
    EXPECT_EQ(probes.find(1)->status, PktData::sent);
    EXPECT_EQ(probes.find(2)->status, PktData::answered);
}

TEST(PendingProbes, erased_entry_is_gone_both_ways) {
    PendingProbes probes;
    probes.insert(1, probe("eth0", "a"));
    probes.erase(1);
    probes.erase(1);
    EXPECT_EQ(probes.find(1), nullptr);
    EXPECT_EQ(probes.find("eth0", "a"), std::nullopt);
    EXPECT_EQ(probes.size(), 0U);
}

}  // namespace

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lbroute/site.h"

namespace {

using lbroute::Site;

class LbrouteSite : public testing::Test {
  protected:
    LbrouteSite() {
        std::filesystem::create_directories(folder_ / "wlb_dump");
        std::ofstream(folder_ / "lb.conf")
            << "health {\n    interface eth0 {\n        nexthop 192.0.2.1\n    }\n}\n";
    }
    ~LbrouteSite() override { std::filesystem::remove_all(folder_); }

    static std::filesystem::path made_folder() {
        std::string name = testing::TempDir() + "lb_site_XXXXXX";
        return mkdtemp(name.data());
    }

    std::filesystem::path folder_ = made_folder();
    Site site_{folder_ / "lb.conf", folder_};
};

TEST_F(LbrouteSite, missing_dumps_are_read) {
    site_.read_dumps(0);
    EXPECT_TRUE(site_.is_read());
}

// A folder opens like a file and fails when it is read.
TEST_F(LbrouteSite, dump_that_cannot_be_read_is_to_be_read_again) {
    std::filesystem::create_directory(folder_ / "wlb_dump/wlb_ipv4_outbounds.bin");
    site_.read_dumps(0);
    EXPECT_FALSE(site_.is_read());
    std::filesystem::remove(folder_ / "wlb_dump/wlb_ipv4_outbounds.bin");
    site_.read_dumps(0);
    EXPECT_TRUE(site_.is_read());
}

TEST_F(LbrouteSite, configuration_that_nobody_can_look_at_leaves_what_was_known) {
    ASSERT_TRUE(site_.read_configuration());
    ASSERT_EQ(site_.uplinks().uplinks.size(), 1U);
    std::filesystem::remove(folder_ / "lb.conf");
    std::filesystem::create_symlink("lb.conf", folder_ / "lb.conf");  // ELOOP
    EXPECT_FALSE(site_.read_configuration());
    EXPECT_EQ(site_.uplinks().uplinks.size(), 1U);
    EXPECT_FALSE(site_.is_read());
    std::filesystem::remove(folder_ / "lb.conf");
    EXPECT_TRUE(site_.read_configuration());
    EXPECT_TRUE(site_.uplinks().uplinks.empty());
    EXPECT_TRUE(site_.is_read());
}

TEST_F(LbrouteSite, configuration_that_was_not_read_whole_is_read_again_though_it_is_the_same) {
    std::ofstream(folder_ / "lb.conf") << "health {\n";
    site_.read_configuration();
    EXPECT_FALSE(site_.is_read());
    site_.read_configuration();
    EXPECT_FALSE(site_.problems().empty());
}

}  // namespace

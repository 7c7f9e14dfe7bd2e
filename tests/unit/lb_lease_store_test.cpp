// The files below /var/db, in a /var of the test's own. Skipped without the right to have one.

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "lb-lease/lease_store.h"
#include "lb-lease/lease_text.h"
#include "unit/support/own_network.h"

namespace {

using lblease::lease_text;
using lblease::remove_lease;
using lblease::write_lease;

constexpr const char* name = "dhclient_wan1.leases";
const std::string path = std::string("/var/db/") + name;

class LbLeaseStore : public testing::Test {
  protected:
    static void in_own_var(const std::function<void()>& body) {
        if (!in_own_network({"/var"}, body)) {
            GTEST_SKIP() << "needs the right to have mounts of its own";
        }
    }
    static std::string text_of(const std::string& file) {
        std::ifstream stream(file);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static std::size_t files() {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator("/var/db"), {}));
    }
    static std::string stays() {
        return path +
               " was not written by lb-lease and stays as it is; unless a DHCP client keeps its "
               "own "
               "leases there: rm " +
               path;
    }

    const std::string one = lease_text("wan1", false, "192.0.2.1");
    const std::string other = lease_text("wan1", false, "192.0.2.2");
};

TEST_F(LbLeaseStore, lease_is_written_readable_by_all_and_replaced_whole) {
    in_own_var([this] {
        EXPECT_EQ(write_lease(name, one), "");
        EXPECT_EQ(text_of(path), one);
        struct stat found {};
        ASSERT_EQ(stat("/var/db", &found), 0);
        EXPECT_EQ(found.st_mode & 0777U, 0755U);
        ASSERT_EQ(stat(path.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 0777U, 0644U);
        EXPECT_EQ(write_lease(name, other), "");
        EXPECT_EQ(text_of(path), other);
        EXPECT_EQ(files(), 1U);
    });
}

TEST_F(LbLeaseStore, same_lease_again_writes_nothing) {
    in_own_var([this] {
        ASSERT_EQ(write_lease(name, one), "");
        struct stat before {};
        ASSERT_EQ(stat(path.c_str(), &before), 0);
        EXPECT_EQ(write_lease(name, one), "");
        struct stat after {};
        ASSERT_EQ(stat(path.c_str(), &after), 0);
        EXPECT_EQ(before.st_ino, after.st_ino);
    });
}

TEST_F(LbLeaseStore, removed_lease_is_gone_and_one_that_is_not_there_is_well) {
    in_own_var([this] {
        EXPECT_EQ(remove_lease(name), "") << "no folder yet";
        EXPECT_FALSE(std::filesystem::exists("/var/db"));
        ASSERT_EQ(write_lease(name, one), "");
        ASSERT_EQ(write_lease("dhclient_wan2.leases", lease_text("wan2", false, "192.0.2.1")), "");
        EXPECT_EQ(remove_lease(name), "");
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_EQ(files(), 1U);
        EXPECT_EQ(remove_lease(name), "");
    });
}

TEST_F(LbLeaseStore, what_somebody_else_wrote_stays) {
    in_own_var([this] {
        std::filesystem::create_directory("/var/db");
        std::ofstream(path) << "lease {\n  option routers 192.0.2.1;\n}\n";
        EXPECT_EQ(write_lease(name, one), stays());
        EXPECT_EQ(remove_lease(name), stays());
        EXPECT_EQ(text_of(path).substr(0, 7), "lease {");
    });
}

TEST_F(LbLeaseStore, link_and_pipe_are_not_followed) {
    in_own_var([this] {
        std::filesystem::create_directory("/var/db");
        std::ofstream("/var/victim") << one;
        std::filesystem::create_symlink("/var/victim", path);
        EXPECT_EQ(write_lease(name, other), stays());
        EXPECT_EQ(text_of("/var/victim"), one);
        std::filesystem::remove(path);
        ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
        EXPECT_EQ(remove_lease(name), stays());
        EXPECT_TRUE(std::filesystem::exists(path));
    });
}

TEST_F(LbLeaseStore, leftover_of_a_killed_call_is_replaced) {
    in_own_var([this] {
        std::filesystem::create_directory("/var/db");
        std::ofstream("/var/victim") << "precious";
        std::filesystem::create_symlink("/var/victim", "/var/db/.lb-lease.new");
        EXPECT_EQ(write_lease(name, one), "");
        EXPECT_EQ(text_of("/var/victim"), "precious");
        EXPECT_EQ(text_of(path), one);
        EXPECT_EQ(files(), 1U);
    });
}

TEST_F(LbLeaseStore, file_in_the_folders_place_is_told_with_what_mends_it) {
    in_own_var([this] {
        std::ofstream("/var/db") << "x";
        EXPECT_EQ(write_lease(name, one),
                  "/var/db cannot be opened: Not a directory; it must be a folder, see: ls -ld "
                  "/var/db");
        EXPECT_EQ(remove_lease(name), write_lease(name, one));
    });
}

TEST_F(LbLeaseStore, file_that_cannot_be_made_leaves_the_lease_that_was) {
    in_own_var([this] {
        ASSERT_EQ(write_lease(name, one), "");
        std::filesystem::create_directory("/var/db/.lb-lease.new");  // in the way of the new file
        EXPECT_EQ(write_lease(name, other), path + " stays as it was: File exists");
        EXPECT_EQ(text_of(path), one);
    });
}

}  // namespace

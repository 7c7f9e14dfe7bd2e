// The files below /var/db, in a /var of the test's own. Skipped without the right to have one.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "base/fd.h"
#include "lb-lease/lease_store.h"
#include "lb-lease/lease_text.h"
#include "unit/support/own_network.h"

namespace {

using lblease::lease_text;
using lblease::remove_lease;
using lblease::remove_leases_of_other_boots;
using lblease::write_lease;

constexpr const char* lock = "/var/db/.lb-lease.lock";
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
    /// Beside the lock.
    static std::size_t files() {
        return static_cast<std::size_t>(
                   std::distance(std::filesystem::directory_iterator("/var/db"), {})) -
               (std::filesystem::exists(lock) ? 1 : 0);
    }
    static std::string text(const std::string& router, const std::string& boot = "") {
        return lease_text({"wan1", false, router, boot});
    }
    static unsigned mode_of(const std::string& file) {
        struct stat found {};
        return stat(file.c_str(), &found) == 0 ? found.st_mode & 07777U : 0;
    }
    static std::string stays() {
        return path +
               " was not written by lb-lease and stays as it is; unless a DHCP client keeps its "
               "own "
               "leases there: rm " +
               path;
    }

    const std::string one = text("192.0.2.1");
    const std::string other = text("192.0.2.2");
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
        ASSERT_EQ(write_lease("dhclient_wan2.leases", one), "");
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

TEST_F(LbLeaseStore, lock_is_open_to_nobody_else) {
    in_own_var([this] {
        ASSERT_EQ(write_lease(name, one), "");
        EXPECT_EQ(mode_of(lock), 0600U);
        ASSERT_EQ(chmod(lock, 0644), 0);
        EXPECT_EQ(write_lease(name, other), "");
        EXPECT_EQ(mode_of(lock), 0600U);
    });
}

TEST_F(LbLeaseStore, folder_or_lease_that_somebody_locked_holds_nobody_up) {
    in_own_var([this] {
        ASSERT_EQ(write_lease(name, one), "");
        for (const char* held : {"/var/db", path.c_str()}) {
            const Fd file(open(held, O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(flock(file.get(), LOCK_EX), 0);
            EXPECT_EQ(write_lease(name, text_of(path) == one ? other : one), "") << held;
        }
    });
}

TEST_F(LbLeaseStore, what_lies_in_the_locks_place_is_neither_followed_nor_taken) {
    in_own_var([this] {
        std::filesystem::create_directory("/var/db");
        std::filesystem::create_symlink("/var/victim", lock);
        EXPECT_EQ(write_lease(name, one),
                  std::string(lock) + " cannot be opened: Too many levels of symbolic links");
        EXPECT_FALSE(std::filesystem::exists("/var/victim"));
        std::filesystem::remove(lock);
        ASSERT_EQ(mkfifo(lock, 0600), 0);
        EXPECT_EQ(
            write_lease(name, one),
            std::string(lock) + " is not a plain file of the caller's; remove it: rm " + lock);
        EXPECT_EQ(files(), 0U);
    });
}

TEST_F(LbLeaseStore, leases_of_other_starts_of_the_machine_are_removed) {
    in_own_var([this] {
        EXPECT_EQ(remove_leases_of_other_boots("0c4b"), "") << "no folder yet";
        ASSERT_EQ(write_lease(name, text("192.0.2.1", "77")), "");
        ASSERT_EQ(write_lease("dhcp6_clientwan1.leases", text("192.0.2.1", "78")), "");
        ASSERT_EQ(write_lease("dhclient_wan2.leases", text("192.0.2.1", "0c4b")), "");
        ASSERT_EQ(write_lease("dhclient_wan3.leases", one), "");
        std::ofstream("/var/db/dhclient_wan4.leases") << "lease {\n}\n";
        EXPECT_EQ(remove_leases_of_other_boots("0c4b"), "");
        EXPECT_EQ(files(), 3U);
        EXPECT_FALSE(std::filesystem::exists(path));
        EXPECT_FALSE(std::filesystem::exists("/var/db/dhcp6_clientwan1.leases"));
    });
}

TEST_F(LbLeaseStore, file_in_the_folders_place_is_told_with_what_mends_it) {
    in_own_var([this] {
        std::ofstream("/var/db") << "x";
        EXPECT_EQ(write_lease(name, one),
                  "/var/db cannot be opened: Not a directory; it must be a folder, see: ls -ld "
                  "/var/db");
        EXPECT_EQ(remove_lease(name), write_lease(name, one));
        EXPECT_EQ(remove_leases_of_other_boots("0c4b"), write_lease(name, one));
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

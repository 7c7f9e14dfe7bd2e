// The daemon's dumps as files.

#include "shared/dump_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "unit/support/temporary_folder.h"

namespace {

using shared::DumpBytes;
using shared::read_dump;

struct DumpFileOnDisk : testing::Test {
    void put(const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

    TemporaryFolder temporary;
    std::string folder = temporary.path();
    std::string path = temporary.file("dump");
};

TEST_F(DumpFileOnDisk, is_read_whole_with_its_date) {
    put("abc");
    const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 250'000'000},
                               {.tv_sec = 1'000'000'000, .tv_nsec = 250'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    const DumpBytes read = read_dump(path, 3);
    EXPECT_EQ(read.problem, DumpBytes::Problem::none);
    EXPECT_EQ(read.bytes, (std::vector<std::uint8_t>{'a', 'b', 'c'}));
    EXPECT_EQ(read.written.tv_sec, 1'000'000'000);
    EXPECT_EQ(read.written.tv_nsec, 250'000'000);
    EXPECT_FALSE(read.is_rewritten);
}

TEST_F(DumpFileOnDisk, takes_the_memory_of_the_dump_before) {
    put("abc");
    std::vector<std::uint8_t> before(100, 'x');
    const auto* const place = before.data();
    const DumpBytes read = read_dump(path, 3, std::move(before));
    EXPECT_EQ(read.bytes, (std::vector<std::uint8_t>{'a', 'b', 'c'}));
    EXPECT_EQ(read.bytes.data(), place);
}

TEST_F(DumpFileOnDisk, may_be_empty) {
    put("");
    const DumpBytes read = read_dump(path, 3);
    EXPECT_EQ(read.problem, DumpBytes::Problem::none);
    EXPECT_TRUE(read.bytes.empty());
}

TEST_F(DumpFileOnDisk, that_cannot_be_read_says_why) {
    EXPECT_EQ(read_dump(path, 3).problem, DumpBytes::Problem::error);
    EXPECT_EQ(read_dump(path, 3).error, ENOENT);
    put("abcd");
    EXPECT_EQ(read_dump(path + "/below", 3).error, ENOTDIR);
    EXPECT_EQ(read_dump(path, 3).problem, DumpBytes::Problem::too_large);
    EXPECT_EQ(read_dump(folder, 3).problem, DumpBytes::Problem::no_regular);
    EXPECT_TRUE(read_dump(folder, 3).is_folder);
    ASSERT_EQ(mkfifo((folder + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(read_dump(folder + "/pipe", 3).problem, DumpBytes::Problem::no_regular);
    EXPECT_FALSE(read_dump(folder + "/pipe", 3).is_folder);
}

TEST(DumpFileNames, are_the_daemons) {
    EXPECT_EQ(shared::dump_folder("/var/run/lb"), "/var/run/lb/wlb_dump");
    EXPECT_STREQ(name_of(shared::outbounds_of(4)), "wlb_ipv4_outbounds.bin");
    EXPECT_STREQ(name_of(shared::outbounds_of(6)), "wlb_ipv6_outbounds.bin");
    EXPECT_STREQ(name_of(shared::DumpFile::rules), "wlb_rules.bin");
    EXPECT_STREQ(name_of(shared::DumpFile::routes), "wlb_routes.bin");
}

}  // namespace

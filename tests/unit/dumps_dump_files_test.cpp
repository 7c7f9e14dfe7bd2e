#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "dumps/dump_files.h"
#include "unit/support/faults.h"
#include "unit/support/given_dumps.h"

namespace {

using given::Dump;
using given::outbound;
using given::route;
using given::rule;

struct Directory : testing::Test {
    Directory() {
        std::string name = "/tmp/lbshow-XXXXXX";
        path = mkdtemp(name.data());
        std::filesystem::create_directory(path + "/wlb_dump");
    }
    ~Directory() override { std::filesystem::remove_all(path); }
    void put(const std::string& name, const Dump& dump) {
        std::ofstream file(path + "/wlb_dump/" + name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(dump.data()), static_cast<long>(dump.size()));
    }
    void put_all() {
        put("wlb_ipv4_outbounds.bin", outbound());
        put("wlb_rules.bin", rule());
        put("wlb_routes.bin", route());
    }
    std::string path;
    dumps::State read;
};

TEST_F(Directory, without_dumps_is_a_clear_error) {
    EXPECT_EQ(dumps::read_state("/nonexistent", false, read),
              "no dumps below /nonexistent: is the daemon running with this directory?");
}

TEST_F(Directory, family_without_a_dump_is_no_error) {
    put_all();
    EXPECT_EQ(dumps::read_state(path, false, read), "");
    EXPECT_EQ(read.interfaces.size(), 1U);
}

TEST_F(Directory, times_of_writing_come_with_the_state) {
    put_all();
    const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 250'000'000},
                               {.tv_sec = 1'000'000'000, .tv_nsec = 250'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, (path + "/wlb_dump/wlb_rules.bin").c_str(), times, 0), 0);
    ASSERT_EQ(dumps::read_state(path, false, read), "");
    ASSERT_EQ(read.files.size(), 3U);
    EXPECT_EQ(read.files[1].name, "wlb_rules.bin");
    EXPECT_EQ(read.files[1].written.time_since_epoch(),
              std::chrono::milliseconds(1'000'000'000'250));
}

TEST_F(Directory, missing_rules_or_routes_are_an_error_with_its_reason) {
    for (const std::string name : {"wlb_rules.bin", "wlb_routes.bin"}) {
        put_all();
        std::filesystem::remove(path + "/wlb_dump/" + name);
        EXPECT_EQ(dumps::read_state(path, false, read),
                  path + "/wlb_dump/" + name + " cannot be read: No such file or directory");
    }
}

TEST_F(Directory, folder_in_a_dumps_place_is_an_error) {
    for (const std::string name : {"wlb_ipv4_outbounds.bin", "wlb_rules.bin", "wlb_routes.bin"}) {
        put_all();
        const std::string place = path + "/wlb_dump/" + name;
        std::filesystem::remove(place);
        std::filesystem::create_directory(place);
        EXPECT_EQ(dumps::read_state(path, false, read), place + " cannot be read: Is a directory");
        std::filesystem::remove(place);
    }
}

TEST_F(Directory, pipe_in_a_dumps_place_is_an_error_and_not_waited_for) {
    put_all();
    const std::string place = path + "/wlb_dump/wlb_rules.bin";
    std::filesystem::remove(place);
    ASSERT_EQ(mkfifo(place.c_str(), 0600), 0);
    EXPECT_EQ(dumps::read_state(path, false, read),
              place + " cannot be read: it is no regular file");
}

TEST_F(Directory, unreadable_dump_is_an_error_with_its_reason) {
    put_all();
    const std::string place = path + "/wlb_dump/wlb_routes.bin";
    const faults::FailCall fail(faults::Call::open, EACCES, 5);
    EXPECT_EQ(dumps::read_state(path, false, read), place + " cannot be read: Permission denied");
}

TEST_F(Directory, file_in_the_dumps_folders_place_is_an_error_with_its_reason) {
    std::filesystem::remove(path + "/wlb_dump");
    std::ofstream(path + "/wlb_dump").put('x');
    EXPECT_EQ(dumps::read_state(path, false, read),
              path + "/wlb_dump cannot be read: Not a directory");
}

TEST_F(Directory, folder_without_any_dump_is_a_clear_error) {
    EXPECT_EQ(dumps::read_state(path, false, read),
              "no dumps below " + path + ": is the daemon running with this directory?");
}

TEST_F(Directory, dump_that_stays_cut_is_an_error) {
    Dump cut = outbound();
    cut.resize(100);
    put("wlb_ipv4_outbounds.bin", cut);
    EXPECT_EQ(dumps::read_state(path, false, read),
              path + "/wlb_dump/wlb_ipv4_outbounds.bin ends within a record");
}

TEST_F(Directory, dump_that_stays_empty_is_an_error_where_there_must_be_records) {
    put("wlb_ipv4_outbounds.bin", outbound());
    put("wlb_rules.bin", {});
    EXPECT_EQ(
        dumps::read_state(path, false, read),
        path + "/wlb_dump/wlb_rules.bin is empty: is the disk full? (df " + path + "/wlb_dump)");
}

TEST_F(Directory, rules_without_destinations_have_an_empty_dump_of_routes) {
    put_all();
    put("wlb_routes.bin", {});
    EXPECT_EQ(dumps::read_state(path, false, read), "");
}

TEST_F(Directory, dump_that_is_just_rewritten_is_read_again) {
    put_all();
    put("wlb_routes.bin", {1, 2, 3});
    std::thread writer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(60));
        put("wlb_routes.bin", route());
    });
    EXPECT_EQ(dumps::read_state(path, false, read), "");
    writer.join();
    EXPECT_EQ(read.routes.size(), 1U);
}

}  // namespace

#include "shared/output_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "shared/file_text.h"
#include "unit/support/temporary_folder.h"

namespace {

class OutputFile : public testing::Test {
  protected:
    OutputFile() { temporary_.put("victim", "precious"); }

    TemporaryFolder temporary_;
    std::filesystem::path folder_ = temporary_.path();
    std::string path_ = temporary_.file("page");
};

TEST_F(OutputFile, holds_the_text_and_nothing_of_what_was_there) {
    std::ofstream(path_) << "something longer";
    EXPECT_EQ(shared::write_output(path_, "text"), "");
    EXPECT_EQ(shared::text_of_file(path_), "text");
}

TEST_F(OutputFile, link_of_the_caller_is_followed) {
    std::filesystem::create_symlink("victim", path_);
    EXPECT_EQ(shared::write_output(path_, "text"), "");
    EXPECT_EQ(shared::text_of_file(folder_ / "victim"), "text");
}

TEST_F(OutputFile, link_of_another_user_is_not_followed) {
    std::filesystem::create_symlink("victim", path_);
    if (lchown(path_.c_str(), 1, 1) != 0) {
        GTEST_SKIP() << "only root gives a link to somebody else";
    }
    EXPECT_EQ(shared::write_output(path_, "text"),
              path_ + " cannot be written: it is a symbolic link of another user; remove it: rm " +
                  path_);
    EXPECT_EQ(shared::text_of_file(folder_ / "victim"), "precious");
}

TEST_F(OutputFile, pipe_that_nobody_reads_is_not_waited_for) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    EXPECT_EQ(shared::write_output(path_, "text"),
              path_ + " cannot be written: it is a pipe that nobody reads");
}

TEST_F(OutputFile, full_disk_is_told) {
    EXPECT_EQ(shared::write_output("/dev/full", "text"),
              "/dev/full cannot be written: No space left on device");
}

}  // namespace

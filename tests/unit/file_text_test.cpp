#include "shared/file_text.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "unit/support/temporary_folder.h"

namespace {

class FileText : public testing::Test {
  protected:
    TemporaryFolder temporary_;
    std::filesystem::path folder_ = temporary_.path();
    int error_ = 0;
};

TEST_F(FileText, is_all_that_the_file_holds) {
    const std::string text = std::string(100'000, 'x') + '\0' + "end";
    std::ofstream(folder_ / "file") << text;
    EXPECT_EQ(shared::text_of_file(folder_ / "file", error_), text);
}

TEST_F(FileText, of_a_missing_file_is_told_as_such) {
    EXPECT_EQ(shared::text_of_file(folder_ / "none", error_), std::nullopt);
    EXPECT_EQ(error_, ENOENT);
    EXPECT_EQ(shared::text_of_file(folder_ / "none"), "");
}

// A folder opens well; only reading it fails.
TEST_F(FileText, of_what_cannot_be_read_is_an_error_and_no_exception) {
    EXPECT_EQ(shared::text_of_file(folder_, error_), std::nullopt);
    EXPECT_EQ(error_, EISDIR);
}

TEST_F(FileText, of_a_pipe_without_a_writer_is_not_waited_for) {
    ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(shared::text_of_file(folder_ / "pipe", error_), "");
}

TEST_F(FileText, of_a_regular_file_has_a_bound) {
    std::ofstream(folder_ / "file") << std::string(20'000, 'x');
    EXPECT_EQ(shared::text_of_regular_file(folder_ / "file", 20'000, error_)->size(), 20'000U);
    EXPECT_EQ(shared::text_of_regular_file(folder_ / "file", 19'999, error_), std::nullopt);
    EXPECT_EQ(error_, EFBIG);
}

TEST_F(FileText, of_what_is_no_regular_file_is_refused_where_one_is_wanted) {
    ASSERT_EQ(mkfifo((folder_ / "pipe").c_str(), 0600), 0);
    for (const auto& [path, error] :
         {std::pair(folder_ / "pipe", EINVAL), {folder_, EISDIR}, {folder_ / "none", ENOENT}}) {
        EXPECT_EQ(shared::text_of_regular_file(path, 100, error_), std::nullopt);
        EXPECT_EQ(error_, error);
    }
}

}  // namespace

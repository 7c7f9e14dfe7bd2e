#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "lbroute/fragment_file.h"
#include "shared/folder_watch.h"

namespace lbroute {

namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr const char* whole =
    "protocol static {\nroute 10.0.0.0/8 multipath via 192.0.2.1 weight 1;\n};\n";

class OnDisk : public ::testing::Test {
  protected:
    OnDisk() {
        std::string pattern = (std::filesystem::temp_directory_path() / "lbrouteXXXXXX").string();
        folder = mkdtemp(pattern.data());
    }
    ~OnDisk() override { std::filesystem::remove_all(folder); }

    void write(const std::string& name, const std::string& text) {
        std::ofstream(folder / name) << text;
    }

    std::filesystem::path folder;
};

class FragmentOnDisk : public OnDisk {
  protected:
    FragmentFile file{folder / "fragment", Family::ipv4};
};

TEST_F(FragmentOnDisk, whole_one_counts_at_once) {
    write("fragment", whole);
    file.read(1000);
    ASSERT_TRUE(file.in_force());
    EXPECT_THAT(file.in_force()->routes, SizeIs(1));
    EXPECT_TRUE(file.is_current());
    EXPECT_FALSE(file.read_again_at_ms());
}

TEST_F(FragmentOnDisk, one_that_is_not_whole_leaves_what_counted_and_is_read_again_once) {
    write("fragment", whole);
    file.read(1000);
    write("fragment", "protocol static {\nroute 10.");
    file.read(2000);
    EXPECT_THAT(file.in_force()->routes, SizeIs(1));
    EXPECT_FALSE(file.is_current());
    EXPECT_EQ(file.read_again_at_ms(), 2200);
    ASSERT_THAT(file.problems(), SizeIs(1));
    EXPECT_THAT(file.problems().begin()->first, ::testing::HasSubstr("fragment line 3"));
    file.read(2200);
    EXPECT_FALSE(file.read_again_at_ms());
    EXPECT_THAT(file.problems(), SizeIs(1));
}

TEST_F(FragmentOnDisk, empty_one_counts_when_it_stays_empty) {
    write("fragment", whole);
    file.read(1000);
    write("fragment", "");
    file.read(2000);
    EXPECT_THAT(file.in_force()->routes, SizeIs(1));
    EXPECT_EQ(file.read_again_at_ms(), 2200);
    file.read(2100);
    EXPECT_THAT(file.in_force()->routes, SizeIs(1));
    file.read(2200);
    EXPECT_THAT(file.in_force()->routes, IsEmpty());
    EXPECT_TRUE(file.is_current());
    EXPECT_FALSE(file.read_again_at_ms());
}

TEST_F(FragmentOnDisk, missing_one_leaves_what_counted_and_is_no_problem) {
    write("fragment", whole);
    file.read(1000);
    std::filesystem::remove(folder / "fragment");
    file.read(2000);
    EXPECT_THAT(file.in_force()->routes, SizeIs(1));
    EXPECT_TRUE(file.is_missing());
    EXPECT_THAT(file.problems(), IsEmpty());
}

TEST_F(FragmentOnDisk, folder_or_pipe_in_its_place_is_a_problem_and_does_not_block) {
    std::filesystem::create_directory(folder / "fragment");
    file.read(1000);
    EXPECT_THAT(file.problems(), SizeIs(1));
    std::filesystem::remove(folder / "fragment");
    ASSERT_EQ(mkfifo((folder / "fragment").c_str(), 0600), 0);
    file.read(2000);
    EXPECT_THAT(file.problems(), SizeIs(1));
    EXPECT_FALSE(file.in_force());
}

class Watch : public OnDisk {
  protected:
    bool has_told(const std::string& name) {
        const shared::FolderWatch::Changes changes = watch.drain();
        return changes.is_all || changes.paths.contains((folder / name).string());
    }

    shared::FolderWatch watch;
};

TEST_F(Watch, file_that_is_written_in_place_or_renamed_over_is_told) {
    watch.watch({folder.string()});
    EXPECT_FALSE(has_told("fragment"));
    write("fragment", "one");
    EXPECT_TRUE(has_told("fragment"));
    write("other", "two");
    EXPECT_FALSE(has_told("fragment"));
    std::filesystem::rename(folder / "other", folder / "fragment");
    EXPECT_TRUE(has_told("fragment"));
    EXPECT_FALSE(has_told("fragment"));
}

TEST_F(Watch, folder_that_comes_into_being_later_is_followed) {
    const std::filesystem::path deep = folder / "a" / "b";
    watch.watch({deep.string()});
    std::filesystem::create_directories(deep);
    EXPECT_TRUE(watch.drain().is_all);
    write("a/b/fragment", "one");
    EXPECT_TRUE(has_told("a/b/fragment"));
}

TEST_F(Watch, folder_that_is_made_anew_is_followed) {
    const std::filesystem::path inner = folder / "a";
    std::filesystem::create_directory(inner);
    watch.watch({inner.string()});
    std::filesystem::remove_all(inner);
    watch.drain();
    std::filesystem::create_directory(inner);
    EXPECT_TRUE(watch.drain().is_all);
    write("a/fragment", "one");
    EXPECT_TRUE(has_told("a/fragment"));
}

}  // namespace

}  // namespace lbroute

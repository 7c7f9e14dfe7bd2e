#include "shared/folder_watch.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "support/temporary_folder.h"

namespace {

using shared::FolderWatch;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class FolderWatches : public testing::Test {
  protected:
    const TemporaryFolder above;
    FolderWatch watch;
};

TEST_F(FolderWatches, tell_files_written_renamed_and_removed) {
    above.put("one/a", "x");
    above.put("one/b", "x");
    watch.watch({above.file("one")});
    EXPECT_TRUE(watch.sees(above.file("one")));
    EXPECT_FALSE(watch.sees(above.path()));
    above.put("one/c", "x");
    EXPECT_THAT(watch.drain().paths, ElementsAre(above.file("one/c")));
    std::filesystem::rename(above.file("one/a"), above.file("one/d"));
    std::filesystem::remove(above.file("one/b"));
    const auto changes = watch.drain();
    EXPECT_THAT(changes.paths, UnorderedElementsAre(above.file("one/a"), above.file("one/b"),
                                                    above.file("one/d")));
    EXPECT_FALSE(changes.is_all);
    EXPECT_THAT(watch.drain().paths, IsEmpty());
}

TEST_F(FolderWatches, tell_of_a_folder_by_each_of_its_names) {
    above.put("one/a", "x");
    std::filesystem::create_directory_symlink(above.file("one"), above.file("other"));
    watch.watch({above.file("one"), above.file("other")});
    EXPECT_TRUE(watch.sees(above.file("one")));
    EXPECT_TRUE(watch.sees(above.file("other")));
    above.put("one/a", "y");
    EXPECT_THAT(watch.drain().paths,
                UnorderedElementsAre(above.file("one/a"), above.file("other/a")));
    watch.watch({above.file("one")});
    above.put("one/a", "z");
    EXPECT_THAT(watch.drain().paths, ElementsAre(above.file("one/a")));
}

TEST_F(FolderWatches, tell_nothing_of_folders_that_are_no_longer_asked_for) {
    above.put("one/a", "x");
    above.put("two/a", "x");
    watch.watch({above.file("one"), above.file("two")});
    watch.watch({above.file("two")});
    above.put("one/a", "y");
    watch.drain();
    above.put("one/a", "z");
    above.put("two/a", "z");
    EXPECT_THAT(watch.drain().paths, ElementsAre(above.file("two/a")));
    EXPECT_FALSE(watch.sees(above.file("one")));
}

TEST_F(FolderWatches, notice_a_folder_that_is_made_deep_below_one_that_is_there) {
    watch.watch({above.file("one/two")});
    EXPECT_FALSE(watch.sees(above.file("one/two")));
    above.put("other", "x");
    EXPECT_FALSE(watch.drain().is_all);
    std::filesystem::create_directories(above.file("one"));
    EXPECT_FALSE(watch.drain().is_all);
    std::filesystem::create_directories(above.file("one/two"));
    EXPECT_TRUE(watch.drain().is_all);
    EXPECT_TRUE(watch.sees(above.file("one/two")));
    above.put("one/two/a", "x");
    EXPECT_THAT(watch.drain().paths, ElementsAre(above.file("one/two/a")));
}

TEST_F(FolderWatches, notice_a_folder_that_is_removed_and_made_again) {
    above.put("one/a", "x");
    watch.watch({above.file("one")});
    std::filesystem::remove_all(above.file("one"));
    EXPECT_TRUE(watch.drain().is_all);
    EXPECT_FALSE(watch.sees(above.file("one")));
    std::filesystem::create_directory(above.file("one"));
    EXPECT_TRUE(watch.drain().is_all);
    EXPECT_TRUE(watch.sees(above.file("one")));
    above.put("one/b", "x");
    EXPECT_THAT(watch.drain().paths, ElementsAre(above.file("one/b")));
}

}  // namespace

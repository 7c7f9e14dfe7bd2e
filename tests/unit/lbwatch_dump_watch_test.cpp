// Which dumps were rewritten, by the kernel's word and by the files' dates.

#include <gmock/gmock.h>

#include <filesystem>

#include "lbwatch/dump_watch.h"
#include "support/temporary_folder.h"

namespace {

using lbwatch::DumpFile;
using lbwatch::DumpWatch;
using testing::ElementsAre;
using testing::IsEmpty;

class LbwatchDumpWatch : public testing::Test {
  protected:
    DumpWatch::Notice notice() {
        return [this](const std::string& line) { notices.push_back(line); };
    }
    const TemporaryFolder above;
    const std::string folder = above.file("wlb_dump");
    std::vector<std::string> notices;
};

TEST_F(LbwatchDumpWatch, tells_each_dump_that_is_rewritten) {
    above.put("wlb_dump/wlb_rules.bin", "x");
    DumpWatch watch(folder, notice());
    EXPECT_GE(watch.fd(), 0);
    EXPECT_THAT(watch.drain(), IsEmpty()) << "found there, not written";
    above.put("wlb_dump/wlb_rules.bin", "y");
    above.put("wlb_dump/wlb_ipv6_outbounds.bin", "y");
    above.put("wlb_dump/other", "y");
    EXPECT_THAT(watch.drain(), ElementsAre(DumpFile::outbounds6, DumpFile::rules));
    EXPECT_THAT(watch.drain(), IsEmpty());
    EXPECT_THAT(watch.tend(), IsEmpty()) << "told already";
    EXPECT_THAT(notices, IsEmpty());
}

TEST_F(LbwatchDumpWatch, waits_for_a_folder_that_is_not_there_and_says_so_once) {
    DumpWatch watch(folder, notice());
    watch.tend();
    EXPECT_THAT(notices,
                ElementsAre("no dumps below " + folder + "; waiting for the daemon to make them"));
    std::filesystem::create_directory(folder);
    watch.drain();
    watch.tend();
    above.put("wlb_dump/wlb_routes.bin", "x");
    EXPECT_THAT(watch.drain(), ElementsAre(DumpFile::routes));
    std::filesystem::remove_all(folder);
    watch.drain();
    watch.tend();
    EXPECT_EQ(notices.size(), 2U) << "gone again";
}

TEST_F(LbwatchDumpWatch, follows_a_folder_that_takes_the_place_of_another) {
    above.put("wlb_dump/wlb_rules.bin", "x");
    DumpWatch watch(folder, notice());
    std::filesystem::rename(folder, above.file("old"));
    std::filesystem::create_directory(folder);
    watch.drain();
    watch.tend();
    above.put("old/wlb_rules.bin", "y");
    EXPECT_THAT(watch.drain(), IsEmpty());
    above.put("wlb_dump/wlb_rules.bin", "y");
    EXPECT_THAT(watch.drain(), ElementsAre(DumpFile::rules));
    EXPECT_THAT(notices, IsEmpty());
}

}  // namespace

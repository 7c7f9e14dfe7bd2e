#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "base/fd.h"
#include "lbwatch/line_output.h"

namespace {

using lbwatch::LineOutput;

class LineOutputTest : public testing::Test {
  protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_IGN);
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), 0);
        reading_ = Fd(ends[0]);
        writing_ = Fd(ends[1]);
    }

    std::string read_all() const {
        std::string text;
        std::array<char, 65536> block{};
        for (ssize_t got = 0; (got = read(reading_.get(), block.data(), block.size())) > 0;) {
            text.append(block.data(), static_cast<std::size_t>(got));
        }
        return text;
    }

    Fd reading_;
    Fd writing_;
};

TEST_F(LineOutputTest, lines_come_out_at_the_flush) {
    LineOutput output(writing_.get());
    output.add("one");
    output.add("two");
    EXPECT_EQ(read_all(), "");
    output.flush();
    EXPECT_EQ(read_all(), "one\ntwo\n");
    EXPECT_FALSE(output.is_waiting());
}

TEST_F(LineOutputTest, what_does_not_fit_waits_and_follows_in_order) {
    LineOutput output(writing_.get());
    std::string told;
    for (int i = 0; i < 200; ++i) {
        const std::string line(1000, static_cast<char>('a' + i % 26));
        output.add(line);
        told += line + "\n";
    }
    output.flush();
    EXPECT_TRUE(output.is_waiting());
    EXPECT_FALSE(output.is_gone());
    std::string found;
    for (int i = 0; i < 10; ++i) {
        found += read_all();
        output.flush();
    }
    EXPECT_EQ(found, told);
    EXPECT_FALSE(output.is_waiting());
}

TEST_F(LineOutputTest, full_disk_loses_nothing) {
    const Fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    LineOutput output(full.get());
    output.add("one");
    output.flush();
    EXPECT_TRUE(output.is_waiting());
    EXPECT_FALSE(output.is_gone());
    EXPECT_EQ(output.problem(),
              "standard output cannot be written: No space left on device; 1 event was not told "
              "there");
}

TEST_F(LineOutputTest, is_gone_with_its_reader_without_a_word) {
    LineOutput output(writing_.get());
    reading_ = Fd();
    output.add("one");
    output.flush();
    EXPECT_TRUE(output.is_gone());
    EXPECT_EQ(output.problem(), "");
}

TEST_F(LineOutputTest, is_gone_when_it_was_closed_and_says_so) {
    const int number = writing_.get();
    writing_ = Fd();
    LineOutput output(number);
    output.add("one");
    output.add("two");
    output.flush();
    EXPECT_TRUE(output.is_gone());
    EXPECT_EQ(output.problem(),
              "standard output cannot be written: Bad file descriptor; 2 events were not told "
              "there");
}

TEST_F(LineOutputTest, reader_that_reads_again_leaves_nothing_to_tell) {
    LineOutput output(writing_.get());
    output.add(std::string(200'000, 'x'));
    output.flush();
    EXPECT_EQ(output.problem(),
              "standard output cannot be written: its reader does not read; 1 event was not told "
              "there");
    for (int i = 0; i < 10; ++i) {
        read_all();
        output.flush();
    }
    EXPECT_EQ(output.problem(), "");
}

TEST_F(LineOutputTest, is_given_up_once_more_waits_than_is_kept) {
    const Fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    LineOutput output(full.get());
    output.add(std::string(LineOutput::most_bytes, 'x'));
    output.flush();
    EXPECT_TRUE(output.is_gone());
    EXPECT_NE(output.problem(), "");
}

}  // namespace

#include "config/str_proc.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<std::string>;

TEST(StrProc, splits_at_runs_of_the_delimiter) {
    EXPECT_EQ(StrProc("  a  bc d ", " ").get(), (Words{"a", "bc", "d"}));
}

TEST(StrProc, tabs_separate_like_blanks) {
    EXPECT_EQ(StrProc("\ta\t\tb", " ").get(), (Words{"a", "b"}));
}

TEST(StrProc, tabs_are_four_blanks_within_a_word_of_another_delimiter) {
    EXPECT_EQ(StrProc("a\tb,c", ",").get(), (Words{"a    b", "c"}));
}

TEST(StrProc, drops_only_the_first_line_feed) {
    EXPECT_EQ(StrProc("a\nb\n", " ").get(), (Words{"ab\n"}));
}

TEST(StrProc, keeps_a_carriage_return_on_the_last_word) {
    EXPECT_EQ(StrProc("a b\r\n", " ").get(), (Words{"a", "b\r"}));
}

TEST(StrProc, a_tilde_in_the_text_separates_words_too) {
    EXPECT_EQ(StrProc("a~b c", " ").get(), (Words{"a", "b", "c"}));
}

TEST(StrProc, a_delimiter_of_several_characters_counts_as_a_whole) {
    EXPECT_EQ(StrProc("a::b:c", "::").get(), (Words{"a", "b:c"}));
}

TEST(StrProc, an_empty_text_has_no_words) {
    EXPECT_TRUE(StrProc("", " ").get().empty());
    EXPECT_TRUE(StrProc("   ", " ").get().empty());
}

TEST(StrProc, a_word_that_is_not_there_is_empty) {
    const StrProc words("a b", " ");
    EXPECT_EQ(words.get(1), "b");
    EXPECT_EQ(words.get(2), "");
}

TEST(StrProc, a_range_is_joined_by_single_blanks) {
    const StrProc words("a  b c d", " ");
    EXPECT_EQ(words.get(1, 3), "b c");
    EXPECT_EQ(words.get(2, 9), "c d");
    EXPECT_EQ(words.get(2, 2), "");
    EXPECT_EQ(words.get(3, 1), "");
    EXPECT_EQ(words.get(4, 5), "");
}

}  // namespace

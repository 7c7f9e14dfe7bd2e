#include <gmock/gmock.h>

#include <algorithm>

#include "lbroute/journal.h"

namespace lbroute {

namespace {

/// What telling these problems writes.
std::string told(Journal& journal, const Journal::Problems& problems) {
    ::testing::internal::CaptureStderr();
    journal.tell("subject", problems);
    return ::testing::internal::GetCapturedStderr();
}

TEST(Journal, problem_is_told_when_it_arises_and_again_after_it_was_gone) {
    Journal journal(false);
    EXPECT_EQ(told(journal, {{"one", Level::error}}), "one\n");
    EXPECT_EQ(told(journal, {{"one", Level::error}, {"two", Level::error}}), "two\n");
    EXPECT_EQ(told(journal, {{"two", Level::error}}), "");
    EXPECT_EQ(told(journal, {{"one", Level::error}, {"two", Level::error}}), "one\n");
}

TEST(Journal, line_for_systemd_begins_with_its_level) {
    Journal journal(true);
    EXPECT_EQ(told(journal, {{"one", Level::warning}}), "<4>one\n");
}

TEST(Journal, whatever_a_text_holds_it_stays_one_line) {
    Journal journal(false);
    EXPECT_EQ(told(journal, {{"a\nb\x1b[1m\x7f", Level::error}}), "a?b?[1m?\n");
}

TEST(Journal, of_very_many_problems_the_rest_is_a_number) {
    Journal journal(false);
    Journal::Problems problems;
    for (int number = 0; number < 1000; ++number) {
        problems["problem " + std::to_string(number)] = Level::error;
    }
    const std::string text = told(journal, problems);
    EXPECT_EQ(std::ranges::count(text, '\n'), 21);
    EXPECT_THAT(text, ::testing::HasSubstr("and 980 more of this kind: lbroute status shows them"));
    EXPECT_EQ(told(journal, problems), "");
}

}  // namespace

}  // namespace lbroute

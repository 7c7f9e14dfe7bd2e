#include "shared/time_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace {

using shared::read_time;

constexpr std::int64_t now_ms = 1'795'262'400'000;  // 2026-11-21T12:00:00Z

class TimeText : public testing::Test {
  protected:
    TimeText() {
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }
    ~TimeText() override {
        unsetenv("TZ");
        tzset();
    }
};

TEST_F(TimeText, is_an_age) {
    EXPECT_EQ(read_time("now", now_ms), now_ms);
    EXPECT_EQ(read_time("90s", now_ms), now_ms - 90'000);
    EXPECT_EQ(read_time("15m", now_ms), now_ms - 900'000);
    EXPECT_EQ(read_time("1.5h", now_ms), now_ms - 5'400'000);
    EXPECT_EQ(read_time("1d", now_ms), now_ms - 86'400'000);
    EXPECT_EQ(read_time("2w", now_ms), now_ms - std::int64_t{14} * 86'400'000);
}

TEST_F(TimeText, is_a_date_local_or_of_utc) {
    EXPECT_EQ(read_time("2026-11-21T12:00:00Z", 0), now_ms);
    EXPECT_EQ(read_time("2026-11-21T12:00Z", 0), now_ms);
    EXPECT_EQ(read_time("2026-11-21T13:00", 0), now_ms);
    EXPECT_EQ(read_time("2026-11-21 13:00:00", 0), now_ms);
    EXPECT_EQ(read_time("2026-11-21", 0), now_ms - std::int64_t{13} * 3'600'000);
}

TEST_F(TimeText, is_a_number_of_seconds_since_the_epoch) {
    EXPECT_EQ(read_time("1795262400", 0), now_ms);
    EXPECT_EQ(read_time("1795262400.5", 0), now_ms + 500);
    EXPECT_EQ(shared::read_epoch("1"), 1000);
    EXPECT_EQ(shared::read_epoch("1s"), std::nullopt);
}

TEST_F(TimeText, is_no_day_that_the_calendar_lacks) {
    for (const char* wrong :
         {"2026-02-31", "2026-02-29", "2026-04-31T10:00", "2026-02-30T10:00Z"}) {
        EXPECT_FALSE(read_time(wrong, now_ms)) << wrong;
    }
    EXPECT_EQ(read_time("2028-02-29T00:00Z", 0), 1'835'395'200'000);
}

TEST_F(TimeText, is_no_local_time_that_the_clocks_are_set_forward_past) {
    for (const char* wrong : {"2026-03-29T02:00", "2026-03-29 02:30:00"}) {
        EXPECT_FALSE(read_time(wrong, now_ms)) << wrong;
    }
    const std::int64_t change_ms = 1'774'746'000'000;  // 2026-03-29T01:00:00Z
    EXPECT_EQ(read_time("2026-03-29T01:59:59", 0), change_ms - 1000);
    EXPECT_EQ(read_time("2026-03-29T03:00", 0), change_ms);
    EXPECT_EQ(read_time("2026-03-29T02:30Z", 0), change_ms + std::int64_t{90} * 60'000);
    EXPECT_EQ(read_time("2026-10-25T02:30", 0).has_value(), true);  // twice: one of both
}

TEST_F(TimeText, begins_a_day_late_where_the_clocks_are_set_forward_at_midnight) {
    setenv("TZ", "EET-2EEST,M4.5.5/0,M10.5.4/24", 1);  // as Cairo
    tzset();
    const std::int64_t change_ms = 1'776'981'600'000;  // 2026-04-23T22:00:00Z
    EXPECT_EQ(read_time("2026-04-24", 0), change_ms);
    EXPECT_FALSE(read_time("2026-04-24T00:30", 0));
    EXPECT_EQ(read_time("2026-04-25", 0), change_ms + std::int64_t{23} * 3'600'000);
}

TEST_F(TimeText, is_nothing_else) {
    for (const char* wrong :
         {"", "1", "d", "-1d", "1y", "yesterday", "2026-13-01", "12:00", "2025-11-31x", "1e9",
          "inf", "nan", "2026-11-21T12:00:00+01:00", "99999999999d", "99999999999999"}) {
        EXPECT_FALSE(read_time(wrong, now_ms)) << wrong;
    }
}

}  // namespace

#include "wire/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "unit/support/hex.h"

namespace {

TEST(Be16, high_byte_comes_first) {
    EXPECT_EQ(to_hex(bytes_of(Be16(0x12fe))), "12fe");
}

TEST(Be16, gives_its_number_back) {
    EXPECT_EQ(static_cast<std::uint16_t>(Be16(0xfe12)), 0xfe12);
}

TEST(Be16, starts_as_zero) {
    EXPECT_EQ(to_hex(bytes_of(Be16{})), "0000");
}

TEST(Be32, highest_byte_comes_first) {
    EXPECT_EQ(to_hex(bytes_of(Be32(0x80ffee01U))), "80ffee01");
}

TEST(Be32, gives_its_number_back) {
    EXPECT_EQ(static_cast<std::uint32_t>(Be32(0xfedcba98U)), 0xfedcba98U);
}

TEST(Be32, starts_as_zero) {
    EXPECT_EQ(to_hex(bytes_of(Be32{})), "00000000");
}

TEST(ReadAt, reads_at_an_odd_offset) {
    const std::array<std::uint8_t, 7> bytes{0, 0x12, 0x34, 0x56, 0x78, 0, 0};
    EXPECT_EQ(static_cast<std::uint32_t>(read_at<Be32>(bytes, 1)), 0x12345678U);
}

}  // namespace

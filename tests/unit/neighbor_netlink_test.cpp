#include "host/linux/neighbor_netlink.h"

#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "unit/support/captured_log.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<LogLine>;

TEST(Attributes, beyond_the_bound_are_refused_on_standard_error) {
    nlmsghdr message{};
    message.nlmsg_len = 1'048'600;
    testing::internal::CaptureStderr();
    EXPECT_EQ(addattr_l(&message, NDA_DST, "", 4), -1);
    fflush(stderr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "addattr_l ERROR: message exceeded bound of 1048604\n");
}

TEST(Attributes, are_appended_with_their_header_and_alignment) {
    alignas(nlmsghdr) std::array<std::uint8_t, 64> buffer{};
    auto* const message = reinterpret_cast<nlmsghdr*>(buffer.data());
    message->nlmsg_len = 28;
    const Bytes mac{2, 0, 0, 0, 0, 9};
    EXPECT_EQ(addattr_l(message, 2, mac.data(), 6), 0);
    EXPECT_EQ(message->nlmsg_len, 40U);
    const Bytes written(buffer.begin() + 32, buffer.begin() + 40);
    EXPECT_EQ(written, (Bytes{2, 0, 0, 0, 0, 9, 0, 0}));
}

/// A message of answers built by hand.
struct Answer {
    Bytes bytes = Bytes(28);

    Answer& attribute(std::uint16_t type, const Bytes& value) {
        const auto length = static_cast<std::uint16_t>(4 + value.size());
        append(&length, 2);
        append(&type, 2);
        bytes.insert(bytes.end(), value.begin(), value.end());
        bytes.resize((bytes.size() + 3) / 4 * 4);
        return *this;
    }
    Bytes done(std::uint16_t type = RTM_NEWNEIGH) {
        const auto length = static_cast<std::uint32_t>(bytes.size());
        std::memcpy(bytes.data(), &length, 4);
        std::memcpy(bytes.data() + 4, &type, 2);
        return bytes;
    }
    void append(const void* data, std::size_t size) {
        const auto* from = static_cast<const std::uint8_t*>(data);
        bytes.insert(bytes.end(), from, from + size);
    }
};

const Bytes address{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
const Bytes some_mac{2, 0, 0, 0, 0, 9};

std::vector<host::Neighbor> neighbours_in(const Bytes& received, NetlinkAnswer& answer) {
    std::vector<host::Neighbor> taken;
    answer = walk_netlink_answers(received, [&taken](const host::Neighbor& neighbor) {
        taken.push_back(neighbor);
        return false;
    });
    return taken;
}

TEST(NetlinkAnswers, entry_is_read_whatever_its_state) {
    NetlinkAnswer answer{};
    const auto taken =
        neighbours_in(Answer().attribute(1, address).attribute(2, some_mac).done(), answer);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0].address, "2001:db8::1");
    EXPECT_EQ(taken[0].mac, (MacAddress{2, 0, 0, 0, 0, 9}));
    EXPECT_EQ(answer, NetlinkAnswer::go_on);
}

TEST(NetlinkAnswers, first_attribute_of_a_type_counts) {
    NetlinkAnswer answer{};
    const auto taken = neighbours_in(
        Answer().attribute(1, address).attribute(1, Bytes(16)).attribute(2, some_mac).done(),
        answer);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0].address, "2001:db8::1");
}

TEST(NetlinkAnswers, entry_without_a_link_layer_address_is_passed_over) {
    NetlinkAnswer answer{};
    EXPECT_TRUE(neighbours_in(Answer().attribute(1, address).done(), answer).empty());
    EXPECT_TRUE(
        neighbours_in(Answer().attribute(1, {1, 2}).attribute(2, some_mac).done(), answer).empty());
}

TEST(NetlinkAnswers, end_and_acknowledgement_end_the_exchange) {
    NetlinkAnswer answer{};
    neighbours_in(Answer().done(NLMSG_DONE), answer);
    EXPECT_EQ(answer, NetlinkAnswer::done);
    neighbours_in(Answer().done(NLMSG_ERROR), answer);  // error 0
    EXPECT_EQ(answer, NetlinkAnswer::acknowledged);
}

TEST(NetlinkAnswers, error_of_the_kernel_is_reported) {
    const CapturedLog log;
    Answer refused;
    const int error = -EPERM;
    std::memcpy(refused.bytes.data() + 16, &error, sizeof error);
    NetlinkAnswer answer{};
    neighbours_in(refused.done(NLMSG_ERROR), answer);
    EXPECT_EQ(answer, NetlinkAnswer::refused);
    EXPECT_EQ(log.lines(), errors({"RTNETLINK answers: Operation not permitted\n"}));
}

TEST(NetlinkAnswers, error_without_a_positive_counterpart_is_reported_as_any_other) {
    const CapturedLog log;
    Answer refused;
    const int error = std::numeric_limits<int>::min();
    std::memcpy(refused.bytes.data() + 16, &error, sizeof error);
    NetlinkAnswer answer{};
    neighbours_in(refused.done(NLMSG_ERROR), answer);
    EXPECT_EQ(answer, NetlinkAnswer::refused);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(NetlinkAnswers, error_without_its_number_is_a_refusal_that_nobody_can_explain) {
    const CapturedLog log;
    Answer cut;
    cut.bytes.resize(19);
    NetlinkAnswer answer{};
    neighbours_in(cut.done(NLMSG_ERROR), answer);
    EXPECT_EQ(answer, NetlinkAnswer::refused);
    EXPECT_TRUE(log.lines().empty());
}

TEST(NetlinkAnswers, entry_shorter_than_its_header_is_passed_over) {
    Answer cut;
    cut.bytes.resize(24);
    NetlinkAnswer answer{};
    EXPECT_TRUE(neighbours_in(cut.done(), answer).empty());
    EXPECT_EQ(answer, NetlinkAnswer::go_on);
}

TEST(NetlinkAnswers, lengths_that_do_not_fit_end_the_walk) {
    const Bytes whole = Answer().attribute(1, address).attribute(2, some_mac).done();
    NetlinkAnswer answer{};
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_TRUE(
            neighbours_in({whole.begin(), whole.begin() + static_cast<long>(length)}, answer)
                .empty());
    }
    Bytes short_header = whole;
    short_header[0] = 15;
    EXPECT_TRUE(neighbours_in(short_header, answer).empty());
    Bytes short_attribute = whole;
    short_attribute[28] = 3;
    EXPECT_TRUE(neighbours_in(short_attribute, answer).empty());
    EXPECT_EQ(answer, NetlinkAnswer::go_on);
}

}  // namespace

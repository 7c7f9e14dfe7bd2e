#include <gmock/gmock.h>
#include <linux/rtnetlink.h>

#include "lbroute/rtnetlink_messages.h"
#include "lbroute/rtnetlink_requests.h"
#include "support/lbroute_scene.h"

namespace lbroute {

namespace {

using namespace scene;
using ::testing::ElementsAre;

/// The bytes of a request after the message's length, in the machine's order. The tables of
/// rtnetlink(7) and linux/nexthop.h give them; this test runs on little-endian machines alone.
std::string hex(const Buffer& buffer) {
    std::string text;
    for (const std::uint8_t byte : buffer) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

Buffer request(const Step& step) {
    Buffer buffer;
    append_request(buffer, step, 5);
    return buffer;
}

class LittleEndian : public ::testing::Test {
  protected:
    void SetUp() override {
        if constexpr (std::endian::native != std::endian::little) {
            GTEST_SKIP() << "the golden bytes are those of a little-endian machine";
        }
    }
};

TEST_F(LittleEndian, hop_object_is_written_as_the_kernel_reads_it) {
    EXPECT_EQ(hex(request(AddHop{{1, address("192.0.2.1"), 11}})),
              "30000000"
              "6800"
              "0506"
              "05000000"
              "00000000"  // new next hop, create, exclusive, ack
              "02004c00"
              "00000000"  // IPv4, protocol 76
              "08000100"
              "01000000"  // its number
              "08000600"
              "c0000201"  // gateway
              "08000500"
              "0b000000");  // link
}

TEST_F(LittleEndian, hop_object_outside_of_all_networks_is_written_on_link) {
    EXPECT_EQ(hex(request(AddHop{{1, address("192.0.2.1"), 11}, true})),
              "30000000"
              "6800"
              "0506"
              "05000000"
              "00000000"
              "02004c00"
              "04000000"  // RTNH_F_ONLINK
              "08000100"
              "01000000"
              "08000600"
              "c0000201"
              "08000500"
              "0b000000");
}

TEST_F(LittleEndian, next_hop_of_a_plain_route_outside_of_all_networks_is_written_on_link) {
    KernelRoute route;
    route.prefix = prefix("10.0.0.0/8");
    route.priority = 20;
    route.hops = {{.gateway = address("192.0.2.1"), .link = 11, .is_on_link = true}};
    const std::string place =
        "00000000"  // RTNH_F_ONLINK goes here where the route has one next hop
        "08000100"
        "0a000000"
        "08000f00"
        "fe000000"
        "08000600"
        "14000000";
    EXPECT_EQ(hex(request(PutRoute{route, false})),
              "4400000018000506050000000000000002080000004c0001"
              "04000000" +
                  place.substr(8) +
                  "08000500"
                  "c0000201"
                  "08000400"
                  "0b000000");
    route.hops.push_back({.gateway = address("192.0.2.2"), .link = 12});
    EXPECT_EQ(hex(request(PutRoute{route, false})),
              "5800000018000506050000000000000002080000004c0001" + place +
                  "24000980"
                  "10000400"  // 16 bytes, on link, weight 1
                  "0b000000"
                  "08000500"
                  "c0000201"
                  "10000000"
                  "0c000000"
                  "08000500"
                  "c0000202");
}

TEST_F(LittleEndian, resilient_group_is_written_as_the_kernel_reads_it) {
    const Group group{.id = 9,
                      .entries = {{1, 1}, {2, 256}},
                      .is_resilient = true,
                      .buckets = 256,
                      .idle_timer_s = 120,
                      .unbalanced_timer_s = 0};
    EXPECT_EQ(hex(request(PutGroup{group, true})),
              "58000000"
              "6800"
              "0505"
              "05000000"
              "00000000"  // create or replace
              "00004c00"
              "00000000"
              "08000100"
              "09000000"
              "14000200"
              "0100000000000000"
              "02000000ff000000"  // weights less 1
              "06000300"
              "01000000"  // resilient
              "1c000c80"
              "06000100"
              "00010000"
              "08000200"
              "e02e0000"
              "08000300"
              "00000000");
}

TEST_F(LittleEndian, route_to_a_group_is_written_as_the_kernel_reads_it) {
    KernelRoute route;
    route.prefix = prefix("10.0.0.0/8");
    route.priority = 20;
    route.group_id = 9;
    EXPECT_EQ(hex(request(PutRoute{route, false})),
              "3c000000"
              "1800"
              "0506"
              "05000000"
              "00000000"
              "02080000"
              "004c0001"
              "00000000"  // IPv4, /8, table by attribute, 76, universe, unicast
              "08000100"
              "0a000000"
              "08000f00"
              "fe000000"
              "08000600"
              "14000000"
              "08001e00"
              "09000000");
}

TEST_F(LittleEndian, removal_names_our_protocol) {
    KernelRoute route;
    route.prefix = prefix("0.0.0.0/0");
    EXPECT_EQ(hex(request(RemoveRoute{route})),
              "34000000"
              "1900"
              "0500"
              "05000000"
              "00000000"
              "02000000"
              "004cff00"
              "00000000"
              "08000100"
              "00000000"
              "08000f00"
              "fe000000"
              "08000600"
              "00000000");
}

const nlmsghdr& head(const Buffer& buffer) {
    return *reinterpret_cast<const nlmsghdr*>(buffer.data());
}

std::string dump_request(Dump what, std::uint32_t selector) {
    Buffer buffer;
    append_dump(buffer, what, selector, 5);
    return hex(buffer);
}

TEST_F(LittleEndian, questions_for_everything_of_a_kind_are_written_as_the_kernel_reads_them) {
    const std::string head =
        "010305000000"
        "00000000";  // request for a dump, number, nobody's port
    const std::string nothing8 = "0000000000000000";
    EXPECT_EQ(dump_request(Dump::links, 3),
              "28000000"
              "1200" +
                  head + nothing8 + nothing8 +
                  "08001d00"
                  "08000000");  // no counters
    EXPECT_EQ(dump_request(Dump::addresses, 3),
              "18000000"
              "1600" +
                  head + nothing8);
    EXPECT_EQ(dump_request(Dump::next_hops, 3),
              "18000000"
              "6a00" +
                  head + nothing8);
    // Family, lengths, service, table, protocol 76: of no table in particular.
    EXPECT_EQ(dump_request(Dump::own_routes4, 3),
              "1c000000"
              "1a00" +
                  head +
                  "02000000"
                  "004c0000"
                  "00000000");
    EXPECT_EQ(dump_request(Dump::own_routes6, 3),
              "1c000000"
              "1a00" +
                  head +
                  "0a000000"
                  "004c0000"
                  "00000000");
    // Of any protocol, in one table.
    EXPECT_EQ(dump_request(Dump::routes4, 254),
              "24000000"
              "1a00" +
                  head +
                  "02000000"
                  "00000000"
                  "00000000"
                  "08000f00"
                  "fe000000");
    EXPECT_EQ(dump_request(Dump::routes6, 254),
              "24000000"
              "1a00" +
                  head +
                  "0a000000"
                  "00000000"
                  "00000000"
                  "08000f00"
                  "fe000000");
    EXPECT_EQ(dump_request(Dump::buckets, 9),
              "20000000"
              "7600" +
                  head + nothing8 +
                  "08000100"
                  "09000000");
}

TEST(Messages, plain_multipath_route_is_read_as_it_was_written) {
    KernelRoute route;
    route.prefix = prefix("2001:db8::/32");
    route.table = 1000;
    route.priority = 1024;
    route.hops = {{address("fe80::1"), 11, 1, false}, {address("fe80::1"), 12, 256, false}};
    const Buffer written = request(PutRoute{route, true});
    EXPECT_EQ(read_route(head(written)), route);
}

TEST(Messages, group_is_read_as_it_was_written) {
    const Group group{.id = 9,
                      .entries = {{1, 1}, {2, 256}},
                      .is_resilient = true,
                      .buckets = 4096,
                      .idle_timer_s = 120,
                      .unbalanced_timer_s = 7};
    const Buffer written = request(PutGroup{group, false});
    const auto read = read_next_hop(head(written));
    ASSERT_TRUE(read && read->group);
    EXPECT_EQ(*read->group, group);
    EXPECT_EQ(read->protocol, own_protocol);
    EXPECT_TRUE(is_own_next_hop(head(written)));
}

TEST(Messages, any_cut_or_altered_message_is_read_without_harm) {
    KernelRoute route;
    route.prefix = prefix("10.0.0.0/8");
    route.hops = {{address("192.0.2.1"), 11, 1, false}, {address("192.0.2.2"), 12, 2, false}};
    const std::vector<Buffer> messages{
        request(PutRoute{route, false}), request(AddHop{{1, address("192.0.2.1"), 11}}),
        request(
            PutGroup{{.id = 1, .entries = {{1, 1}}, .is_resilient = true, .buckets = 8}, false})};
    const auto read_all = [](const Buffer& buffer) {
        const nlmsghdr& message = head(buffer);
        read_link(message);
        read_address(message);
        read_route(message);
        read_next_hop(message);
        is_own_next_hop(message);
        read_bucket(message);
        read_answer(message);
    };
    std::size_t count = 0;
    for (const Buffer& message : messages) {
        for (std::size_t length = sizeof(nlmsghdr); length <= message.size(); ++length) {
            Buffer cut(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(length));
            reinterpret_cast<nlmsghdr*>(cut.data())->nlmsg_len = static_cast<std::uint32_t>(length);
            read_all(cut);
            for (std::size_t at = sizeof(nlmsghdr); at < length; ++at) {
                Buffer altered = cut;
                altered[at] = 0xff;
                read_all(altered);
                ++count;
            }
        }
    }
    EXPECT_GT(count, 1000U);
}

TEST(Messages, refusal_carries_the_kernels_words) {
    // NLMSG_ERROR with EINVAL, a request capped to its head, and NLMSGERR_ATTR_MSG "no way".
    Buffer buffer(sizeof(nlmsghdr) + sizeof(nlmsgerr));
    auto* message = reinterpret_cast<nlmsghdr*>(buffer.data());
    message->nlmsg_type = NLMSG_ERROR;
    message->nlmsg_flags = NLM_F_CAPPED | NLM_F_ACK_TLVS;
    reinterpret_cast<nlmsgerr*>(buffer.data() + sizeof(nlmsghdr))->error = -EINVAL;
    const nlattr attribute{.nla_len = 4 + 7, .nla_type = NLMSGERR_ATTR_MSG};
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&attribute);
    buffer.insert(buffer.end(), bytes, bytes + sizeof attribute);
    for (const char one : std::string("no way\0\0", 8)) {
        buffer.push_back(static_cast<std::uint8_t>(one));
    }
    reinterpret_cast<nlmsghdr*>(buffer.data())->nlmsg_len =
        static_cast<std::uint32_t>(buffer.size());
    const Answer answer = read_answer(head(buffer));
    EXPECT_EQ(answer.error, EINVAL);
    EXPECT_EQ(answer.reason, "no way");
}

}  // namespace

}  // namespace lbroute

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "lbroute/flows.h"
#include "unit/support/faults.h"
#include "unit/support/given_kernel.h"

namespace {

using faults::Call;
using faults::FailCall;
using lbroute::Address;
using lbroute::Family;
using lbroute::FlowTable;
using Bytes = GivenKernel::Bytes;

const std::vector<Address> addresses = {Address::parse("192.0.2.10", Family::ipv4).value()};

TEST(LbrouteFlows, kernel_without_connection_tracking_is_an_answer) {
    for (const int error : {EPROTONOSUPPORT, EAFNOSUPPORT}) {
        const FailCall failed(Call::mnl_socket_open, error);
        const auto result = FlowTable().delete_translated(addresses);
        EXPECT_FALSE(result.is_tracking);
        EXPECT_EQ(result.problem, "");
    }
    for (const int error : {ENOENT, EINVAL, EOPNOTSUPP}) {
        FlowTable table;
        const FailCall failed(Call::mnl_socket_recvfrom, error);
        const auto result = table.delete_translated(addresses);
        EXPECT_FALSE(result.is_tracking);
        EXPECT_EQ(result.problem, "");
        EXPECT_EQ(result.deleted, 0U);
    }
}

TEST(LbrouteFlows, failures_are_told) {
    const FailCall failed(Call::mnl_socket_open, EMFILE);
    EXPECT_EQ(FlowTable().delete_translated(addresses).problem,
              "cannot delete connection-tracking entries: Too many open files");
}

TEST(LbrouteFlows, kernel_that_does_not_answer_is_told) {
    FlowTable table;
    const FailCall failed(Call::mnl_socket_recvfrom, EAGAIN);
    EXPECT_EQ(table.delete_translated(addresses).problem,
              "cannot delete connection-tracking entries: the kernel does not answer");
}

TEST(LbrouteFlows, nothing_is_asked_without_addresses) {
    const FailCall failed(Call::mnl_socket_sendto, EPERM);
    FlowTable table;
    EXPECT_EQ(table.delete_translated({}).problem, "");
    EXPECT_EQ(failed.calls(), 0);
}

/// An attribute (netlink(7)) with what stands in it; nested ones say so in their type.
Bytes attribute(int type, const Bytes& content, bool is_nested = false) {
    const auto length = static_cast<std::uint16_t>(4 + content.size());
    const auto marked = static_cast<std::uint16_t>(type | (is_nested ? 0x8000 : 0));
    Bytes made(4);
    std::copy_n(reinterpret_cast<const std::uint8_t*>(&length), 2, made.begin());
    std::copy_n(reinterpret_cast<const std::uint8_t*>(&marked), 2, made.begin() + 2);
    made.insert(made.end(), content.begin(), content.end());
    made.resize((made.size() + 3) / 4 * 4);
    return made;
}

Bytes operator+(Bytes one, const Bytes& other) {
    one.insert(one.end(), other.begin(), other.end());
    return one;
}

Bytes bytes_of(const Address& address) {
    return {address.used_bytes().begin(), address.used_bytes().end()};
}

/// CTA_TUPLE_ORIG (1) or CTA_TUPLE_REPLY (2) of linux/netfilter/nfnetlink_conntrack.h: addresses,
/// and TCP from port 1024 to port 443.
Bytes tuple(int type, const Address& source, const Address& destination) {
    const int first = source.family == Family::ipv4 ? 1 : 3;
    return attribute(
        type,
        attribute(1,
                  attribute(first, bytes_of(source)) + attribute(first + 1, bytes_of(destination)),
                  true) +
            attribute(2,
                      attribute(1, {6}) + attribute(2, {0x04, 0x00}) + attribute(3, {0x01, 0xbb}),
                      true),
        true);
}

/// An entry of the table: from `source` to `destination`, the answers to `answered`.
struct Flow {
    Address source;
    Address destination;
    Address answered;
    std::uint8_t id = 1;
};

Bytes entry(const Flow& flow, std::uint32_t sequence) {
    const auto family = static_cast<std::uint8_t>(flow.source.family == Family::ipv4 ? 2 : 10);
    return netlink_message(0x0100, sequence,
                           Bytes{family, 0, 0, 0} + tuple(1, flow.source, flow.destination) +
                               tuple(2, flow.destination, flow.answered) +
                               attribute(12, {0xa0, 0xb0, 0xc0, flow.id}));
}

Address four(const char* text) {
    return Address::parse(text, Family::ipv4).value();
}
Address six(const char* text) {
    return Address::parse(text, Family::ipv6).value();
}

/// A kernel that has these flows and deletes what it is asked to.
class LbrouteTranslatedFlows : public testing::Test {
  protected:
    LbrouteTranslatedFlows() {
        kernel.on_request = [this](const Bytes& request) {
            const auto messages = messages_of(request, 4);
            const NetlinkRequest& last = messages.back();
            if (last.type == 0x0101) {
                EXPECT_EQ(last.flags, 0x301);  // the whole table
                for (const Flow& flow : flows) {
                    if ((flow.source.family == Family::ipv4) == (last.family_header.at(0) == 2)) {
                        kernel.answers.push_back(entry(flow, last.sequence));
                    }
                }
                kernel.answers.push_back(netlink_message(3, last.sequence, {0, 0, 0, 0}));
                return;
            }
            for (const NetlinkRequest& message : messages) {
                EXPECT_EQ(message.type, 0x0102);
                const bool is_last = message.sequence == last.sequence;
                EXPECT_EQ(message.flags, is_last ? 0x005 : 0x001);  // the last one acknowledged
                const int error = refuse(deletions.size());
                deletions.push_back(message);
                if (error != 0 || is_last) {
                    kernel.answers.push_back(netlink_answer(message.sequence, error));
                }
            }
        };
    }

    const Flow masqueraded{four("10.0.0.5"), four("203.0.113.7"), four("192.0.2.10"), 9};
    std::vector<Flow> flows;
    std::vector<NetlinkRequest> deletions;
    std::function<int(std::size_t)> refuse = [](std::size_t) { return 0; };
    GivenKernel kernel;
};

TEST_F(LbrouteTranslatedFlows, are_deleted_by_their_first_direction_and_number) {
    flows = {masqueraded};
    const auto result = FlowTable().delete_translated(addresses);
    EXPECT_EQ(result.deleted, 1U);
    EXPECT_EQ(result.problem, "");
    EXPECT_TRUE(result.is_tracking);
    ASSERT_EQ(deletions.size(), 1U);
    EXPECT_EQ(deletions[0].family_header, (Bytes{2, 0, 0, 0}));
    auto attributes = deletions[0].attributes;
    EXPECT_EQ(attributes["1.1.1"], "0a000005");
    EXPECT_EQ(attributes["1.1.2"], "cb007107");
    EXPECT_EQ(attributes["1.2.1"], "06");
    EXPECT_EQ(attributes["1.2.2"], "0400");
    EXPECT_EQ(attributes["1.2.3"], "01bb");
    EXPECT_EQ(attributes["12"], "a0b0c009");
}

TEST_F(LbrouteTranslatedFlows, of_ipv6_are_deleted_as_well) {
    flows = {{six("2001:db8::5"), six("2001:db8:7::7"), six("2001:db8:2::10")}};
    const std::vector<Address> both{addresses[0], six("2001:db8:2::10")};
    EXPECT_EQ(FlowTable().delete_translated(both).deleted, 1U);
    ASSERT_EQ(deletions.size(), 1U);
    EXPECT_EQ(deletions[0].family_header, (Bytes{10, 0, 0, 0}));
    EXPECT_EQ(deletions[0].attributes["1.1.3"], "20010db8000000000000000000000005");
    EXPECT_EQ(kernel.requests.size(), 3U) << "both tables are looked through";
}

TEST_F(LbrouteTranslatedFlows, others_stay) {
    const Address router = addresses[0];
    flows = {{router, four("203.0.113.7"), router},                          // the router's own
             {four("203.0.113.7"), router, four("203.0.113.7")},             // from outside
             {four("10.0.0.5"), four("203.0.113.7"), four("198.51.100.1")},  // another uplink's
             {four("10.0.0.5"), four("203.0.113.7"), four("10.0.0.5")}};     // not translated
    EXPECT_EQ(FlowTable().delete_translated(addresses).deleted, 0U);
    EXPECT_EQ(kernel.requests.size(), 1U);
}

TEST_F(LbrouteTranslatedFlows, that_end_meanwhile_are_no_failure) {
    flows = {masqueraded, masqueraded, masqueraded};
    refuse = [](std::size_t number) { return number == 1 ? ENOENT : 0; };
    const auto result = FlowTable().delete_translated(addresses);
    EXPECT_EQ(result.deleted, 2U);
    EXPECT_EQ(result.problem, "");
}

TEST_F(LbrouteTranslatedFlows, first_that_the_kernel_does_not_delete_is_told) {
    flows = {masqueraded, masqueraded, masqueraded};
    refuse = [](std::size_t number) { return number == 0 ? EPERM : number == 2 ? EBUSY : 0; };
    const auto result = FlowTable().delete_translated(addresses);
    EXPECT_EQ(result.deleted, 1U);
    EXPECT_EQ(result.problem, "cannot delete connection-tracking entries: Operation not permitted");
}

TEST_F(LbrouteTranslatedFlows, that_are_many_go_in_several_messages) {
    flows.assign(400, masqueraded);
    EXPECT_EQ(FlowTable().delete_translated(addresses).deleted, 400U);
    EXPECT_EQ(deletions.size(), 400U);
    for (const Bytes& request : kernel.requests) {
        EXPECT_LE(request.size(), 16384U);
    }
    EXPECT_GT(kernel.requests.size(), 2U);
    EXPECT_LT(kernel.requests.size(), 10U);
}

TEST_F(LbrouteTranslatedFlows, are_found_behind_what_is_no_entry) {
    flows = {masqueraded};
    kernel.answers.push_back(netlink_message(0x0100, 1, {2, 0, 0, 0}));
    EXPECT_EQ(FlowTable().delete_translated(addresses).deleted, 1U);
}

}  // namespace

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "lbroute/flows.h"
#include "unit/support/faults.h"

namespace {

using faults::Call;
using faults::FailCall;
using lbroute::Address;
using lbroute::Family;
using lbroute::FlowTable;

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

}  // namespace

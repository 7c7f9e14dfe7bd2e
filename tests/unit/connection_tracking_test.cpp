#include <gtest/gtest.h>

#include <cerrno>

#include "probe/host_view.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;

/// A record that cannot be entered, and the one line that says so.
struct Conntrack : testing::Test {
    LogLine complaint(context* of) {
        const bool is_ipv6 = of->ipv6;
        EXPECT_EQ(create_conntrack_record(is_ipv6 ? "2001:db8::1" : "192.0.2.1",
                                          is_ipv6 ? "2001:db8::2" : "192.0.2.2", of),
                  -1);
        EXPECT_EQ(log.lines().size(), 1U);
        return log.lines().empty() ? LogLine{} : log.lines().back();
    }
    LogLine error_line(const std::string& text) { return {3, "<create_conntrack_record> " + text}; }
    CapturedLog log;
    TestContext ctx;
    TestContext ctx6{true};
};

TEST_F(Conntrack, without_a_socket) {
    const FailCall failed(Call::mnl_socket_open, EMFILE);
    EXPECT_EQ(complaint(ctx), error_line("mnl_socket_open: Too many open files"));
}

TEST_F(Conntrack, with_a_socket_that_cannot_be_bound) {
    const FailCall failed(Call::mnl_socket_bind, EACCES);
    EXPECT_EQ(complaint(ctx), error_line("mnl_socket_bind: Permission denied"));
}

TEST_F(Conntrack, without_memory_for_the_record) {
    const FailCall failed(Call::nfct_new, ENOMEM);
    EXPECT_EQ(complaint(ctx), error_line("mnl_nlmsg_put_extra_header: Cannot allocate memory"));
}

TEST_F(Conntrack, that_cannot_be_sent) {
    const FailCall failed(Call::mnl_socket_sendto, EPERM);
    EXPECT_EQ(complaint(ctx), error_line("mnl_socket_sendto: Operation not permitted"));
}

TEST_F(Conntrack, that_the_kernel_refuses) {
    const FailCall refused(Call::mnl_socket_recvfrom, EEXIST);
    EXPECT_EQ(complaint(ctx), error_line("mnl_socket_recvfrom for ip version 4: File exists"));
}

TEST_F(Conntrack, that_the_kernel_refuses_for_ipv6) {
    const FailCall refused(Call::mnl_socket_recvfrom, EEXIST);
    EXPECT_EQ(complaint(ctx6), error_line("mnl_socket_recvfrom for ip version 6: File exists"));
}

TEST_F(Conntrack, of_an_ipv6_address_that_is_none) {
    EXPECT_EQ(create_conntrack_record("nonsense", "2001:db8::2", ctx6), -1);
    EXPECT_EQ(
        log.lines(),
        (std::vector<LogLine>{{4, "%WAN-W-ERR: inet_pton() failed.\nError message: Success"}}));
}

}  // namespace

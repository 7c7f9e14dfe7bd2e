// The engine and its workers, up to their threads.

#include "core/workers.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test.h"
#include "unit/support/captured_log.h"
#include "unit/support/faults.h"
#include "unit/support/loaded.h"

namespace {

using faults::Call;
using faults::FailCall;
using Lines = std::vector<LogLine>;

struct Engine : testing::Test {
    std::string folder = "/tmp/lb-engine-unused";
    // Behind a pointer: GoogleTest's fixtures let no exception out of their destructors.
    std::unique_ptr<LoadBalance> lb = std::make_unique<LoadBalance>(folder);
    CapturedLog log;
};

TEST_F(Engine, accepts_a_file_that_does_not_load) {
    EXPECT_TRUE(lb->set_conf("/nonexistent/lb.conf"));
    const TemporaryFile conf("health {\n interface eth0 {\n");
    EXPECT_TRUE(lb->set_conf(conf.path()));
    EXPECT_TRUE(lb->data.health.contains("eth0"));
}

TEST_F(Engine, tells_what_each_namespace_needs) {
    const TemporaryFile conf(
        "health {\n interface a {\n }\n interface6 b {\n namespace blue\n }\n}\n"
        "rule 1_ipv4 {\n}\nrule 2 {\n namespace red\n}\n");
    lb->set_conf(conf.path());
    NamespaceNeeds needs;
    lb->check_before_start(needs);
    EXPECT_EQ(needs,
              (NamespaceNeeds{{{"", 0}, {1, 1}}, {{"blue", 1}, {1, 0}}, {{"red", 1}, {0, 1}}}));
}

TEST_F(Engine, reports_the_workers_interfaces_as_inactive) {
    const TemporaryFile conf(
        "health {\n interface gi1_1 {\n }\n interface eth0 {\n }\n interface gi1_2 {\n namespace "
        "x\n }\n"
        " interface6 po1 {\n }\n}\n");
    lb->set_conf(conf.path());
    TestContext ctx;
    TestContext ctx6(true);
    lb->print_init_interfaces_state(ctx);
    lb->print_init_interfaces_state(ctx6);
    EXPECT_EQ(
        log.lines(),
        (Lines{{6, "%WAN-I-INSTANCE: IP interface unknown interface changed state to inactive"},
               {6, "%WAN-I-INSTANCE: IP interface gigabitethernet 1/0/1 changed state to inactive"},
               {6, "%WAN-I-INSTANCE: IPv6 interface port-channel 1 changed state to inactive"}}));
}

TEST_F(Engine, makes_the_probes_of_both_families_in_the_namespace_ready) {
    const TemporaryFile conf(
        "health {\n interface a {\n namespace init4\n }\n interface6 b {\n"
        " namespace init4\n }\n interface c {\n }\n}\n");
    lb->set_conf(conf.path());
    TestContext ctx(false, "init4");
    LBTest::_initialized.set("init4", true);
    LBTest6::_initialized.set("init4", true);
    lb->init_tests_in_namespace(ctx);
    EXPECT_EQ(lb->data.health.at("a").tests.at(1)->ns_name, "init4");
    EXPECT_EQ(lb->data.health6.at("b").tests6.at(1)->status(), "ping");
    EXPECT_EQ(lb->data.health.at("c").tests.at(1)->status(), "");
}

TEST_F(Engine, worker_has_the_prober_of_its_family_ready) {
    const Worker worker4(*lb, "worker test", false);
    const Worker worker6(*lb, "worker test", true);
    EXPECT_EQ(worker4.ctx.lb, lb.get());
    EXPECT_EQ(*worker6.ctx.ns_name, "worker test");
    EXPECT_NE(worker4.ctx.arp, nullptr);
    EXPECT_EQ(worker4.ctx.neighbor, nullptr);
    EXPECT_NE(worker4.ctx.view, nullptr);
    EXPECT_EQ(worker6.ctx.arp, nullptr);
    EXPECT_NE(worker6.ctx.neighbor, nullptr);
    EXPECT_EQ(worker6.ctx.view, &worker6.ctx.neighbor->view);
    // A socket with root's rights, else the mark of a failed one; 0 is what nobody has set.
    EXPECT_NE(LBArp::_send_sock.get("worker test"), 0);
    EXPECT_NE(LBNeighbor::_send_sock.get("worker test"), 0);
}

TEST_F(Engine, namespace_without_a_file_is_reported) {
    namespace_arg start{lb.get(), "no such namespace"};
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_EQ(log.lines(),
              (Lines{{4, "%WAN-W-ERR: wan_lb, can't open /var/run/netns/no such namespace"}}));
}

TEST_F(Engine, default_namespace_is_not_entered) {
    namespace_arg start{lb.get(), ""};
    const FailCall entered(Call::setns, EPERM);
    work_in_namespace(&start);
    EXPECT_EQ(entered.calls(), 0);
}

/// Stands for open(2) on a system where every namespace has a file.
int open_any_namespace(const char* /*path*/, int flags, ...) {
    return openat(AT_FDCWD, "/proc/self/ns/net", flags);
}

TEST_F(Engine, namespace_that_cannot_be_entered_is_reported) {
    namespace_arg start{lb.get(), "blue"};
    namespaces_check[{"blue", 0}] = {1, 1};
    static constexpr faults::StandIns calls{.open = open_any_namespace};
    faults::set_stand_ins(calls);
    const FailCall refused(Call::setns, EPERM);
    const FailCall no_worker(Call::pthread_create, EAGAIN);
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_EQ(log.lines(), (Lines{{4, "%WAN-W-ERR: wan_lb, setns failed"}}));
    EXPECT_EQ(no_worker.calls(), 0);
    faults::reset_stand_ins();
    namespaces_check.clear();
}

TEST_F(Engine, namespace_thread_without_work_ends_at_once) {
    namespace_arg start{lb.get(), ""};
    namespaces_check.clear();
    namespaces_check[{"", 0}] = {1, 0};
    namespaces_check[{"", 1}] = {0, 1};
    EXPECT_EQ(work_in_namespace(&start), nullptr);
    EXPECT_TRUE(log.lines().empty());
    namespaces_check.clear();
}

TEST_F(Engine, workers_that_cannot_be_created_are_reported_each) {
    namespace_arg start{lb.get(), ""};
    namespaces_check[{"", 0}] = {1, 1};
    namespaces_check[{"", 1}] = {1, 1};
    {
        const FailCall no_thread(Call::pthread_create, EAGAIN);
        EXPECT_EQ(work_in_namespace(&start), nullptr);
    }
    namespaces_check.clear();
    Lines warnings;
    for (const LogLine& line : log.lines()) {
        if (line.text.find("Can't create") != std::string::npos) {
            warnings.push_back(line);
        }
    }
    EXPECT_EQ(warnings, (Lines{{4, "%WAN-W-WARN: Can't create new thread for IPv4 VRF "},
                               {4, "%WAN-W-WARN: Can't create new thread for IPv6 VRF "}}));
}

TEST(WorkerNeeds, are_an_interface_and_a_rule_of_one_family_in_one_namespace) {
    namespaces_check.clear();
    EXPECT_FALSE(is_any_worker_needed());
    namespaces_check[{"", 0}] = {1, 0};
    namespaces_check[{"", 1}] = {0, 1};
    namespaces_check[{"blue", 0}] = {0, 1};
    EXPECT_FALSE(is_any_worker_needed());
    namespaces_check[{"blue", 1}] = {1, 1};
    EXPECT_TRUE(is_any_worker_needed());
    namespaces_check.clear();
}

}  // namespace

#include "probe/lb_test.h"

#include "probe/probe_family.h"
#include "probe/probe_steps.h"

NamespaceTable<bool> LBTest::_initialized;
NamespaceTable<int> LBTest::_send_icmp_sock;
NamespaceTable<int> LBTest::_send_ip_sock;
NamespaceTable<int> LBTest::_recv_icmp_sock;
NamespaceTable<bool> LBTest::_received;
pthread_mutex_t LBTest::_ipv4_result_mutex = PTHREAD_MUTEX_INITIALIZER;
PendingProbes LBTest::_results;
std::atomic<int> LBTest::_packet_id{0};

LBTest::~LBTest() {
    close_namespace(ipv4_probes, ns_name);
}

void LBTest::init(context* ctx) {
    set_up_namespace(ipv4_probes, *ctx->ns_name);
}

void LBTest::set_up(context* ctx) {
    LBTest::init(ctx);
    name_probe(*this, *ctx);
}

void LBTest::recv(LBHealth& health, context* ctx) {
    if (!ctx->ipv6) {
        collect(ipv4_probes, *this, health, ctx);
    }
}

std::string LBTest::status() {
    return status_text;
}

#include "probe/lb_test6.h"

#include "probe/probe_family.h"
#include "probe/probe_steps.h"

NamespaceTable<bool> LBTest6::_initialized;
NamespaceTable<int> LBTest6::_send_icmp6_sock;
NamespaceTable<int> LBTest6::_send_ipv6_sock;
NamespaceTable<int> LBTest6::_recv_icmp6_sock;
NamespaceTable<bool> LBTest6::_received;
pthread_mutex_t LBTest6::_ipv6_result_mutex = PTHREAD_MUTEX_INITIALIZER;
PendingProbes LBTest6::_results;
std::atomic<int> LBTest6::_packet_id{0};

LBTest6::~LBTest6() {
    close_namespace(ipv6_probes, ns_name);
}

void LBTest6::init(context* ctx) {
    set_up_namespace(ipv6_probes, *ctx->ns_name);
}

void LBTest6::set_up(context* ctx) {
    LBTest6::init(ctx);
    name_probe(*this, *ctx);
}

void LBTest6::recv(LBHealth& health, context* ctx) {
    if (ctx->ipv6) {
        collect(ipv6_probes, *this, health, ctx);
    }
}

std::string LBTest6::status() {
    return status_text;
}

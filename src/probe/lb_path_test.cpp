#include "probe/lb_path_test.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "host/link_local_address.h"
#include "host/neighbor_netlink.h"
#include "host/source_address.h"
#include "probe/reply_receiver.h"

void LBPathTest::start(LBData& data, context* ctx) {
    // What the host told in the last pass may no longer hold; within a pass it is asked once.
    forget_interface_addresses();
    forget_link_local_addresses();
    forget_neighbors();

    std::vector<LBHealth*> records;
    for (auto& [name, health] : data.family(ctx->ipv6)) {
        if (health.namespace_name == *ctx->ns_name) {
            records.push_back(&health);
        }
    }
    std::sort(records.begin(), records.end(), std::less<>());
    for (LBHealth* health : records) {
        health->send_test(ctx);
    }
    take_waiting_replies(ctx->ipv6 ? ipv6_probes : ipv4_probes, *ctx->ns_name);
    for (LBHealth* health : records) {
        health->recv_test(ctx);
        health->status_check(data, ctx);
    }
}

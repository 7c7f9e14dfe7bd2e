#include "probe/lb_path_test.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "config/own_records.h"
#include "host/clock.h"
#include "probe/host_view.h"
#include "probe/lb_test.h"
#include "probe/reply_socket.h"

namespace {

/// Calls `act` for every probe in the order of their numbers; the cursor rests on the first one.
template <class Probes, class Act>
void walk(Probes& probes, typename Probes::iterator& cursor, Act act) {
    for (cursor = probes.begin(); cursor != probes.end(); ++cursor) {
        act(*cursor->second);
    }
    cursor = probes.begin();
}

template <class Act>
void walk_probes(LBHealth& health, Act act) {
    if (health.ipv6) {
        walk(health.tests6, health.test6_it, act);
    } else {
        walk(health.tests, health.test_it, act);
    }
}

int count_probes(const std::vector<LBHealth*>& records) {
    std::size_t count = 0;
    for (const LBHealth* health : records) {
        count += health->ipv6 ? health->tests6.size() : health->tests.size();
    }
    return static_cast<int>(count);
}

}  // namespace

void LBHealth::send_test(context* ctx) {
    walk_probes(*this, [this, ctx](auto& probe) { probe.send(*this, ctx); });
}

void LBHealth::recv_test(context* ctx) {
    walk_probes(*this, [this, ctx](auto& probe) { probe.recv(*this, ctx); });
}

void LBPathTest::start(LBData& data, context* ctx) {
    ctx->view->begin_pass();

    const auto own = ctx->own->interfaces(data, *ctx);
    std::vector<LBHealth*> records(own.begin(), own.end());
    std::sort(records.begin(), records.end(), std::less<>());  // B90: by their place in memory
    const ProbeFamily& family = ctx->ipv6 ? ipv6_probes : ipv4_probes;
    ReplyRoom& reply_room = ctx->view->reply_room;
    reply_room.make(family, *ctx->ns_name, count_probes(records));
    {
        const Outbox::Collecting collecting(ctx->view->outbox);
        for (LBHealth* health : records) {
            health->send_test(ctx);
        }
    }
    // No probe is judged as late whose answer has come, however long the process stands still
    // before or behind this.
    ctx->view->drained_at = monotonic_now();
    drain(family, *ctx->ns_name, std::max(reply_room.most_replies(), datagrams_at_once));
    reply_room.report_drops(family, *ctx->ns_name);
    for (LBHealth* health : records) {
        health->recv_test(ctx);
        health->status_check(data, ctx);
    }
    ctx->view->drained_at.reset();
}

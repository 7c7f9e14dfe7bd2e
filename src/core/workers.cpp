#include "core/workers.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "host/lb_arp.h"
#include "host/lb_neighbor.h"
#include "net/fd.h"
#include "platform/log.h"

NamespaceNeeds namespaces_check;
bool g_check_path = false;
wd_record wd_timeout{};
wd_record wd_shift{};

namespace {

/// Moves the calling thread, and so the threads that it starts, into the namespace.
bool enter_namespace(const std::string& ns_name) {
    if (ns_name.empty()) {
        return true;
    }
    const std::string path = "/var/run/netns/" + ns_name;
    const Fd opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened.is_open()) {
        LOG_ERROR("wan_lb, can't open %s", path.c_str());
        return false;
    }
    if (setns(opened.get(), 0) != 0) {
        LOG_ERROR("wan_lb, setns failed");
        return false;
    }
    return true;
}

bool needs_worker(const std::string& ns_name, int family) {
    const auto found = namespaces_check.find({ns_name, family});
    return found != namespaces_check.end() &&
           NamespaceWork{.interfaces = found->second.first, .rules = found->second.second}
               .needs_worker();
}

std::optional<pthread_t> start_worker(context& ctx) {
    pthread_t worker{};
    if (pthread_create(&worker, nullptr, main_work, &ctx) != 0) {
        LOG_WARNING("Can't create new thread for IPv%d VRF %s", ctx.ipv6 ? 6 : 4,
                    ctx.ns_name->c_str());
        return std::nullopt;
    }
    return worker;
}

void join(const std::optional<pthread_t>& worker) {
    if (worker) {
        pthread_join(*worker, nullptr);
    }
}

}  // namespace

bool is_any_worker_needed() {
    return std::any_of(namespaces_check.begin(), namespaces_check.end(), [](const auto& entry) {
        return needs_worker(entry.first.first, entry.first.second);
    });
}

void* work_in_namespace(void* arg) {
    const auto& start = *static_cast<const namespace_arg*>(arg);
    if (!enter_namespace(start.ns_name)) {
        return nullptr;
    }
    // The workers never end, so this frame holds what they use for the life of the process.
    std::string name4 = start.ns_name;
    std::string name6 = start.ns_name;
    context ctx4{.lb = start.lb, .ipv6 = false, .ns_name = &name4};
    context ctx6{.lb = start.lb, .ipv6 = true, .ns_name = &name6};
    std::unique_ptr<LBArp> arp;
    std::unique_ptr<LBNeighbor> neighbor;
    std::optional<pthread_t> worker4;
    std::optional<pthread_t> worker6;

    if (needs_worker(start.ns_name, 0)) {
        arp = std::make_unique<LBArp>();
        arp->init(start.ns_name);
        ctx4.arp = arp.get();
        worker4 = start_worker(ctx4);
    }
    if (needs_worker(start.ns_name, 1)) {
        neighbor = std::make_unique<LBNeighbor>();
        neighbor->init(start.ns_name);
        ctx6.neighbor = neighbor.get();
        worker6 = start_worker(ctx6);
    }
    join(worker4);
    arp.reset();
    join(worker6);
    neighbor.reset();
    return nullptr;
}

void* main_work(void* argument) {
    auto* ctx = static_cast<context*>(argument);
    LoadBalance& lb = *ctx->lb;
    lb.print_init_interfaces_state(ctx);
    lb.init_tests_in_namespace(ctx);
    do {
        lb.health_test(ctx);
        lb.apply_rules(ctx);
        lb.output(ctx);
        lb.sleep(ctx);
        send_and_shift_timeout(&wd_timeout, &wd_shift, 2);
    } while (lb.start_cycle(ctx));
    return nullptr;
}

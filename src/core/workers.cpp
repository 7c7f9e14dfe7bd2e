#include "core/workers.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "base/thread.h"
#include "host/log.h"
#include "host/namespaces.h"

NamespaceNeeds namespaces_check;
bool g_check_path = false;
wd_record wd_timeout{};
wd_record wd_shift{};

namespace {

/// B17: once, for the life of the process.
bool enter(const std::string& ns_name) {
    if (ns_name.empty()) {  // B18: the one that the process was started in
        return true;
    }
    const std::string path = namespace_file(ns_name);
    switch (host::enter_namespace(path)) {
        case host::NamespaceEntry::entered:
            return true;
        case host::NamespaceEntry::not_opened:
            LOG_ERROR("wan_lb, can't open %s", path.c_str());
            return false;
        case host::NamespaceEntry::refused:
            LOG_ERROR("wan_lb, setns failed");
            return false;
    }
    return false;
}

bool needs_worker(const std::string& ns_name, int family) {
    const auto found = namespaces_check.find({ns_name, family});
    return found != namespaces_check.end() &&
           NamespaceWork{.interfaces = found->second.first, .rules = found->second.second}
               .needs_worker();
}

/// A worker and its thread, where the family needs one (B12). The workers never end, so the
/// namespace thread's frame holds what they use for the life of the process.
struct WorkerThread {
    WorkerThread(LoadBalance& lb, const std::string& ns_name, bool is_ipv6) {
        if (!needs_worker(ns_name, is_ipv6 ? 1 : 0)) {
            return;
        }
        worker = std::make_unique<Worker>(lb, ns_name, is_ipv6);
        thread = JoinedThread::start(main_work, &worker->ctx);
        if (!thread) {
            LOG_WARNING("Can't create new thread for IPv%d VRF %s", is_ipv6 ? 6 : 4,
                        ns_name.c_str());
        }
    }
    void join() {
        if (thread) {
            thread->join();
        }
        worker.reset();
    }

    std::unique_ptr<Worker> worker;
    std::optional<JoinedThread> thread;
};

}  // namespace

bool is_any_worker_needed() {
    return std::any_of(namespaces_check.begin(), namespaces_check.end(), [](const auto& entry) {
        return needs_worker(entry.first.first, entry.first.second);
    });
}

std::string namespace_file(const std::string& ns_name) {
    return "/var/run/netns/" + ns_name;
}

Worker::Worker(LoadBalance& lb, const std::string& ns_name, bool is_ipv6) : name_(ns_name) {
    ctx = {.lb = &lb, .ipv6 = is_ipv6, .ns_name = &name_, .own = &own_};
    if (is_ipv6) {
        neighbor_ = std::make_unique<LBNeighbor>();
        neighbor_->init(ns_name);
        ctx.neighbor = neighbor_.get();
        ctx.view = &neighbor_->view;
    } else {
        arp_ = std::make_unique<LBArp>();
        arp_->init(ns_name);
        ctx.arp = arp_.get();
        view_ = std::make_unique<HostView>();
        ctx.view = view_.get();
    }
}

void begin_work(context* ctx) {
    ctx->lb->print_init_interfaces_state(ctx);
    ctx->lb->init_tests_in_namespace(ctx);
}

void work_once(context* ctx) {
    ctx->lb->health_test(ctx);
    ctx->lb->apply_rules(ctx);
    ctx->lb->output(ctx);
}

bool begin_next_cycle(context* ctx) {
    send_and_shift_timeout(&wd_timeout, &wd_shift, 2);
    return ctx->lb->start_cycle(ctx);
}

void* work_in_namespace(void* arg) {
    const auto& start = *static_cast<const namespace_arg*>(arg);
    if (enter(start.ns_name)) {
        WorkerThread worker4(*start.lb, start.ns_name, false);
        WorkerThread worker6(*start.lb, start.ns_name, true);
        worker4.join();
        worker6.join();
    }
    return nullptr;
}

void* main_work(void* argument) {
    auto* ctx = static_cast<context*>(argument);
    begin_work(ctx);
    do {
        work_once(ctx);
        ctx->lb->sleep(ctx);
    } while (begin_next_cycle(ctx));
    return nullptr;
}

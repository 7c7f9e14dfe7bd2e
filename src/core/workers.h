#pragma once

#include <memory>
#include <string>

#include "config/own_records.h"
#include "core/load_balance.h"
#include "host/watchdog.h"
#include "probe/host_view.h"
#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"

/// What each namespace needs. Complete before the first namespace thread starts; read-only then.
extern NamespaceNeeds namespaces_check;
/// A flag of the process that nothing uses (B132).
extern bool g_check_path;
/// Records of the watchdog service; their contents are its own.
extern wd_record wd_timeout;
extern wd_record wd_shift;

/// Whether any namespace has both an interface and a rule of one family.
bool is_any_worker_needed();

/// What a namespace thread starts with. Allocated per thread, read by it, lives with the process.
struct namespace_arg {
    LoadBalance* lb = nullptr;
    std::string ns_name;
};

/// The file of a namespace that has a name.
std::string namespace_file(const std::string& ns_name);

/// The thread of one namespace: enters it, starts the workers of the families that have both
/// interfaces and rules there, and waits for them. Ends early, with a message, where the namespace
/// cannot be entered. The argument is a `namespace_arg*`.
void* work_in_namespace(void* arg);

/// A worker: the endless balancing cycle of one namespace and family. The argument is its
/// `context*`.
void* main_work(void* ctx);

/// What a worker consists of, made in its namespace.
class Worker {
  public:
    Worker(LoadBalance& lb, const std::string& ns_name, bool is_ipv6);
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    context ctx;

  private:
    std::string name_;
    OwnRecords own_;
    std::unique_ptr<LBArp> arp_;            // of an IPv4 worker
    std::unique_ptr<HostView> view_;        // of an IPv4 worker; an IPv6 worker's is its prober's
    std::unique_ptr<LBNeighbor> neighbor_;  // of an IPv6 worker
};

/// The steps of `main_work`, for whoever drives a worker without a thread: `begin_work` once, then
/// `work_once` and, after the second's sleep, `begin_next_cycle`, round and round.
void begin_work(context* ctx);
void work_once(context* ctx);
/// The keep-alive and the refresh of next hops, of which the first cycle so knows nothing (B97);
/// false would end the worker.
bool begin_next_cycle(context* ctx);

#pragma once

#include <string>

#include "core/load_balance.h"
#include "platform/watchdog.h"

/// What each namespace needs. Complete before the first namespace thread starts; read-only then.
extern NamespaceNeeds namespaces_check;
/// A flag of the process that nothing uses.
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

/// The thread of one namespace: enters it, starts the workers of the families that have both
/// interfaces and rules there, and waits for them. Ends early, with a message, where the namespace
/// cannot be entered. The argument is a `namespace_arg*`.
void* work_in_namespace(void* arg);

/// A worker: the endless balancing cycle of one namespace and family. The argument is its
/// `context*`.
void* main_work(void* ctx);

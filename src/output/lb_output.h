#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "config/context.h"
#include "config/lb_data.h"

/// Publishes the daemon's view as files: a status report per family for people, binary dumps for
/// the router's management shell and `lbshow`. Files are rewritten in place, whole, in every cycle
/// (B117), for all namespaces (B119); every failure is logged, ends that worker's write, and the
/// next cycle tries again.
///
/// One object serves all workers. Records are read one by one under a `LiveStateReader` and written
/// after it is released. A family's files, and the rules' files, have one writer at a time: a
/// worker that finds a sibling writing the same file leaves it to that one (B118) and never waits
/// for a disk. A worker that finds that a sibling has rewritten a file since its own last cycle
/// leaves it too, unless an interface of its own has changed state since.
class LBOutput {
  public:
    explicit LBOutput(std::string& output_dir);
    LBOutput(const LBOutput&) = delete;
    LBOutput& operator=(const LBOutput&) = delete;
    /// Ends the calling thread, as the constructor does, where the mutex cannot be given back; the
    /// unwinding of a thread's end must be let through.
    ~LBOutput() noexcept(false);

    /// One cycle's output for the worker's family. Makes the dumps' folder, but not the one above
    /// it (B116).
    void write(const LBData& data, context* ctx);
    /// Writes one interface's record of the report.
    void single_write(std::map<std::string, LBHealth>::const_iterator entry, FILE* file,
                      timeval now, context* ctx);
    /// Writes the outbounds dump of a family (1: IPv6); nothing without a context.
    void dump_outbounds(const LBData& data, timeval now, context* ctx, int ipv6);
    /// Writes the dumps of rules and routes; the caller holds `mutex`. Nothing without a context.
    void dump_rules_and_routes(const LBData& data, context* ctx);
    /// Removes every file that was written (B16).
    void shutdown();

    pthread_mutex_t mutex;  ///< held by the worker that writes the rules and routes
    std::string out_dir;
    std::string dump_dir;          ///< empty until the first write; guarded by names_lock_
    std::set<std::string> files;   ///< written for IPv4 and for both; guarded by names_lock_
    std::set<std::string> files6;  ///< written for IPv6 only; guarded by names_lock_

  private:
    /// How often a file was rewritten without a fault, and what of that each worker knows.
    struct Rewrites {
        std::uint64_t count = 0;
        struct Known {
            std::uint64_t count = 0;
            bool has_news = true;  ///< its own state may not be in the file yet
        };
        std::map<const context*, Known> by_worker;
    };
    enum class Shared : std::size_t { report4, report6, outbounds4, outbounds6, rules, count };

    /// Makes the directory of the dumps and notes what will be written; false, logged, where there
    /// can be none.
    bool prepare_files(bool ipv6);
    bool dump_shared_files(const LBData& data, context* ctx);
    /// Each tells whether the file was rewritten to its end, which also a sibling's writing is not.
    bool write_report(const LBData& data, context* ctx);
    bool write_outbounds(const LBData& data, timeval now, bool is_ipv6);
    bool write_rules_and_routes(const LBData& data);

    /// Whether the worker has to rewrite the file in this cycle.
    bool is_due(Shared file, const context* ctx, bool has_changed);
    void note_rewritten(Shared file, const context* ctx);

    std::mutex names_lock_;
    std::mutex rewrites_lock_;
    std::array<Rewrites, static_cast<std::size_t>(Shared::count)>
        rewrites_;                                 // guarded by rewrites_lock_
    std::array<std::mutex, 2> report_writers_;     // IPv4, IPv6; taken with try_lock only
    std::array<std::mutex, 2> outbounds_writers_;  // IPv4, IPv6; taken with try_lock only
};

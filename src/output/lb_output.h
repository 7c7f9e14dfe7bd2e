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
#include <unordered_map>

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
    /// Writes the outbounds dump of a family (1: IPv6); the caller is its only writer. Nothing
    /// without a context.
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
    /// What all workers of a family, or all workers, write.
    enum class Shared : std::size_t { report, outbounds, rules, count };
    template <class Value>
    using ByFile = std::array<Value, static_cast<std::size_t>(Shared::count)>;
    /// What a worker knows of a file that it shares.
    struct Known {
        std::uint64_t rewrites = 0;  ///< how many there had been at its last look
        bool has_news = true;        ///< its own state may not be in the file yet
    };

    /// Makes the directory of the dumps and notes what will be written; false, logged, where there
    /// can be none.
    bool prepare_files(bool ipv6);
    /// False where the mutex cannot be given back.
    bool dump_shared_files(const LBData& data, context* ctx);
    /// Each tells whether the file was rewritten to its end; the caller is its only writer.
    bool write_report(const LBData& data, context* ctx);
    bool write_outbounds(const LBData& data, timeval now, bool is_ipv6) const;
    bool write_rules_and_routes(const LBData& data) const;

    /// Which files the worker has to rewrite in this cycle.
    ByFile<bool> look_for_due_files(const context* ctx, bool has_changed);
    /// Has a due file rewritten by `write`, unless a sibling has done it since the worker's look.
    /// The caller is the file's only writer.
    template <class Write>
    void rewrite(Shared file, const context* ctx, Write write);

    std::mutex names_lock_;
    std::array<std::mutex, 2> report_writers_;     // IPv4, IPv6; taken with try_lock only
    std::array<std::mutex, 2> outbounds_writers_;  // IPv4, IPv6; taken with try_lock only

    /// How often a file was rewritten without a fault.
    std::uint64_t& rewrites_of(Shared file, const context* ctx);
    std::mutex rewrites_lock_;
    std::array<ByFile<std::uint64_t>, 2> rewrites_{};          // guarded by rewrites_lock_
    std::unordered_map<const context*, ByFile<Known>> known_;  // guarded by rewrites_lock_
};

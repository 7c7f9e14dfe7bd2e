#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "base/namespace_table.h"

/// One probe in flight.
struct PktData {
    static constexpr int sent = -2;
    static constexpr int answered = 0;

    std::string interface;  ///< kernel name of the interface it was sent through
    int status = sent;
    timespec send_time{};  ///< monotonic clock
    std::string target;
};

/// The probes in flight of one family, in all namespaces: by packet identifier, which a reply
/// carries, and by interface and target, of which at most one probe is in flight.
/// The caller holds the family's result mutex.
class PendingProbes {
  public:
    /// The identifier of the probe of that interface and target.
    std::optional<int> find(const std::string& interface, const std::string& target) const;
    /// The probe of an identifier, or null.
    const PktData* find(int packet_id) const;

    /// Adds a probe. An identifier that is still in flight, after a full wrap, keeps its entry
    /// (B50).
    void insert(int packet_id, const PktData& probe);
    void erase(int packet_id);
    void clear();
    /// Marks the probe of that identifier as answered; an unknown identifier changes nothing.
    void mark_answered(int packet_id);

    std::size_t size() const { return by_id_.size(); }

  private:
    /// The texts are those of the probe in `by_id_`, whose entries stay where they are.
    struct Path {
        std::string_view interface;
        std::string_view target;

        bool operator==(const Path&) const = default;
    };
    struct HashPath {
        std::size_t operator()(const Path& path) const;
    };

    std::unordered_map<int, PktData> by_id_;
    std::unordered_map<Path, int, HashPath> by_path_;
};

/// The two families of probes are twins: this record names all in which they differ and points to
/// the tables that each keeps (static members of `LBTest` and `LBTest6`).
struct ProbeFamily {
    bool is_ipv6;
    const char* word;           ///< "ipv4" or "ipv6", as messages say it
    const char* protocol_word;  ///< "icmp" or "icmp6"
    const char* receiver_name;  ///< "recv_icmp" or "recv_icmp6"
    void* (*receiver)(void*);   ///< the receiver thread's body; its argument is a std::string*

    std::uint8_t reply_type;  ///< echo reply
    std::size_t type_offset;  ///< of the ICMP type in what the reply socket delivers
    std::size_t id_offset;    ///< of the packet identifier in it

    NamespaceTable<bool>& initialized;
    NamespaceTable<int>& send_raw_sock;
    NamespaceTable<int>& send_frame_sock;
    NamespaceTable<int>& recv_sock;
    NamespaceTable<bool>& received;
    std::atomic<int>& packet_id;
    pthread_mutex_t& result_mutex;
    PendingProbes& results;  ///< guarded by result_mutex
};

extern const ProbeFamily ipv4_probes;
extern const ProbeFamily ipv6_probes;

/// Holds a family's table of probes in flight. A lock that fails is logged with the function's
/// name; what it should have guarded goes on, unless its owner looks.
class ResultsLock {
  public:
    ResultsLock(const ProbeFamily& family, const char* function);
    ~ResultsLock() { release(); }
    ResultsLock(const ResultsLock&) = delete;
    ResultsLock& operator=(const ResultsLock&) = delete;

    bool is_held() const { return is_locked_; }
    /// Leaves the mutex as it is: the lock failed, and its owner does nothing.
    void give_up() { is_released_ = true; }
    /// Unlocks before the end of the scope; false, logged, where that fails.
    bool release();

  private:
    const ProbeFamily& family_;
    const char* function_;
    bool is_locked_;
    bool is_released_ = false;
};

/// Identifiers run from 0 to this number less one, and round again (B50).
inline constexpr int packet_id_count = 32767;

/// The next identifier: one more than the last one, modulo 32767. Any thread.
int next_packet_id(const ProbeFamily& family);

/// Enters a probe into the table of probes in flight and gives its identifier, or nothing when one
/// for the same interface and target is still in flight (B52, B53) or the table cannot be locked.
/// `last_sent` receives the moment, unless the probe was refused for one of these reasons.
std::optional<int> register_probe(const ProbeFamily& family, const std::string& interface,
                                  const std::string& target, timespec& last_sent);

enum class ProbeOutcome { nothing, answered, timed_out };

/// Looks once at the probe in flight of that interface and target: takes it out of the table when
/// it was answered or is older than `timeout_ms` (B55) at the monotonic clock's `now`, before which
/// all answers were marked. Never waits.
ProbeOutcome collect_probe(const ProbeFamily& family, const std::string& interface,
                           const std::string& target, int timeout_ms, const timespec& now);

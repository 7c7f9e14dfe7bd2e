#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "config/context.h"
#include "net/namespace_table.h"
#include "probe/pending_probes.h"

/// The two families of probes are twins: this record names all in which they differ and points to
/// the tables that each keeps (static members of `LBTest` and `LBTest6`); the functions below are
/// the steps that they share.
struct ProbeFamily {
    const char* word;           ///< "ipv4" or "ipv6", as messages say it
    const char* protocol_word;  ///< "icmp" or "icmp6"
    const char* receiver_name;  ///< "recv_icmp" or "recv_icmp6"
    void* (*receiver)(void*);   ///< the receiver thread's body; its argument is a std::string*

    int domain;               ///< AF_INET or AF_INET6
    int protocol;             ///< IPPROTO_ICMP or IPPROTO_ICMPV6
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

/// Identifiers run from 0 to this number less one, and round again.
inline constexpr int packet_id_count = 32767;

/// Opens the namespace's three sockets, once in the life of the process; the calling thread is in
/// that namespace. A socket that cannot be had is logged and leaves descriptor 0 in its table, on
/// which later sends fail: the daemon keeps 0 on something that is no socket.
void set_up_namespace(const ProbeFamily& family, const std::string& ns_name);
/// Closes the namespace's sockets; they are not opened again.
void close_namespace(const ProbeFamily& family, const std::string& ns_name);

/// Locks and unlocks the table of probes in flight; a failure is logged with the function's name.
bool lock_results(const ProbeFamily& family, const char* function);
bool unlock_results(const ProbeFamily& family, const char* function);

/// The next identifier: one more than the last one, modulo 32767. Any thread.
int next_packet_id(const ProbeFamily& family);

/// Enters a probe into the table of probes in flight and gives its identifier, or nothing when one
/// for the same interface and target is still in flight or the table cannot be locked.
/// `last_sent` receives the moment, unless the probe was refused for one of these reasons.
std::optional<int> register_probe(const ProbeFamily& family, const std::string& interface,
                                  const std::string& target, timespec& last_sent);

enum class ProbeOutcome { nothing, answered, timed_out };

/// Looks once at the probe in flight of that interface and target: takes it out of the table when
/// it was answered or is older than `timeout_ms`. Never waits.
ProbeOutcome collect_probe(const ProbeFamily& family, const std::string& interface,
                           const std::string& target, int timeout_ms);

/// Starts the namespace's receiver thread unless it runs. A thread that could not be created is
/// not tried again.
void start_receiver(const ProbeFamily& family, const std::string& ns_name);

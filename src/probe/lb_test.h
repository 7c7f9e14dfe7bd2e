#pragma once

#include <pthread.h>

#include <atomic>
#include <string>

#include "config/context.h"
#include "net/namespace_table.h"
#include "probe/pending_probes.h"

class LBHealth;

/// An IPv4 probe. Lives for the whole process; owned by nobody, driven by the worker of its
/// interface's namespace. Fields that change while the daemon runs follow the rule of
/// config/live_state.h.
///
/// What all IPv4 probes share stands in the static members: sockets per namespace (each table
/// guards itself) and the one table of probes in flight.
class LBTest {
  public:
    LBTest() = default;
    LBTest(const LBTest&) = delete;
    LBTest& operator=(const LBTest&) = delete;
    /// Closes the sockets of the probe's namespace for good.
    virtual ~LBTest();

    /// Opens the namespace's sockets, once. Every worker of the namespace calls it for every probe.
    virtual void init(context* ctx);
    /// One probe, if it is due.
    virtual void send(LBHealth& health, context* ctx) = 0;
    virtual std::string dump(context* ctx) = 0;
    /// Collects what became of the probe in flight and records it; never waits.
    virtual void recv(LBHealth& health, context* ctx);
    /// The probe's type word.
    virtual std::string name() = 0;
    virtual std::string status();

    std::string target;       ///< address or host name; empty until taken from the next hop
    int timeout = 5000;       ///< ms that a probe may stay unanswered
    bool spare_flag = false;  ///< an extended ping
    int last_result = 0;      ///< 0 none collected yet, 1 answered, 2 timed out
    std::string status_text;  ///< one line for people
    std::string ns_name;      ///< set by the first init

    static NamespaceTable<bool> _initialized;
    static NamespaceTable<int> _send_icmp_sock;  ///< raw ICMP, for tunnels
    static NamespaceTable<int> _send_ip_sock;    ///< packet socket, for Ethernet-like interfaces
    static NamespaceTable<int> _recv_icmp_sock;  ///< raw ICMP, read by the receiver thread
    static NamespaceTable<bool> _received;       ///< the receiver thread runs
    static pthread_mutex_t _ipv4_result_mutex;
    static PendingProbes _results;  ///< in all namespaces; guarded by _ipv4_result_mutex
    static std::atomic<int> _packet_id;

  protected:
    /// The part of `init` that every kind of probe shares: sockets, then the status line and the
    /// namespace, which only the first worker to come sets.
    void set_up(context* ctx);
};

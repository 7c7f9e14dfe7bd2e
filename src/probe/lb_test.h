#pragma once

#include <pthread.h>

#include <atomic>
#include <ctime>
#include <optional>
#include <string>

#include "base/namespace_table.h"
#include "config/context.h"
#include "config/lb_health.h"
#include "host/packets.h"
#include "probe/probes_in_flight.h"

/// A probe of either family. Lives for the whole process; owned by nobody, driven by the worker of
/// its interface's namespace. Fields that change while the daemon runs follow the rule of
/// config/live_state.h.
class Probe {
  public:
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;
    /// Closes the sockets of the probe's namespace for good (B135).
    virtual ~Probe();

    /// Opens the namespace's sockets, once. Every worker of the namespace calls it for every probe.
    virtual void init(context* ctx);
    /// One probe, if it is due.
    virtual void send(LBHealth& health, context* ctx) = 0;
    virtual std::string dump(context* ctx) = 0;
    /// Collects what became of the probe in flight and records it; never waits. Nothing in the
    /// context of the other family.
    virtual void recv(LBHealth& health, context* ctx);
    /// The probe's type word.
    virtual std::string name() = 0;
    virtual std::string status();

    std::string target;       ///< address or host name; empty until taken from the next hop
    int timeout = 5000;       ///< ms that a probe may stay unanswered
    int last_result = 0;      ///< 0 none collected yet, 1 answered, 2 timed out
    std::string status_text;  ///< one line for people
    std::string ns_name;      ///< set by the first init

  protected:
    explicit Probe(const ProbeFamily& family) : family_(family) {}

    /// Names the probe and its namespace, unless the sibling worker did so already: that one may be
    /// using them by now.
    void name_once(const context& ctx);
    /// The target. A probe without one takes the interface's next hop for good as soon as that is
    /// known (B58), and the interface counts as down until this target is proven (B86).
    const std::string& resolve_target(LBHealth& health);
    std::string status_line();
    void publish_status();
    std::string dump_line() const;
    /// Hands an outcome to the interface: 0 success, -1 failure.
    void record(LBHealth& health, context* ctx, int result, const std::string& of_target);
    /// Target, status line and place in flight of one echo: its identifier, or nothing where none
    /// is to be sent in this cycle.
    std::optional<int> begin_echo(LBHealth& health, timespec& last_sent);

    const ProbeFamily& family_;
};

/// An IPv4 probe. The static members are what all IPv4 probes share: sockets per namespace (each
/// table guards itself) and the one table of probes in flight.
class LBTest : public Probe {
  public:
    LBTest() : Probe(ipv4_probes) {}

    bool spare_flag = false;  ///< an extended ping

    static NamespaceTable<bool> _initialized;
    static NamespaceTable<int> _send_icmp_sock;  ///< raw ICMP, for tunnels
    static NamespaceTable<int> _send_ip_sock;    ///< packet socket, for Ethernet-like interfaces
    static NamespaceTable<int> _recv_icmp_sock;  ///< raw ICMP, read by the receiver thread
    static NamespaceTable<bool> _received;       ///< the receiver thread runs
    static pthread_mutex_t _ipv4_result_mutex;   ///< made ready with the first namespace
    static PendingProbes _results;  ///< in all namespaces; guarded by _ipv4_result_mutex
    static std::atomic<int> _packet_id;
};

/// An IPv6 probe: the twin of `LBTest`.
class LBTest6 : public Probe {
  public:
    LBTest6() : Probe(ipv6_probes) {}

    static NamespaceTable<bool> _initialized;
    static NamespaceTable<int> _send_icmp6_sock;
    static NamespaceTable<int> _send_ipv6_sock;
    static NamespaceTable<int> _recv_icmp6_sock;
    static NamespaceTable<bool> _received;
    static pthread_mutex_t _ipv6_result_mutex;
    static PendingProbes _results;  ///< in all namespaces; guarded by _ipv6_result_mutex
    static std::atomic<int> _packet_id;
};

/// Calls `act(number, probe)` for every probe of the record's family, in the order of their
/// numbers.
template <class Act>
void for_each_probe(const LBHealth& health, Act act) {
    if (health.ipv6) {
        for (const auto& [number, probe] : health.tests6) {
            act(number, static_cast<Probe&>(*probe));
        }
        return;
    }
    for (const auto& [number, probe] : health.tests) {
        act(number, static_cast<Probe&>(*probe));
    }
}

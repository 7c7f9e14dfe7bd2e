#pragma once

#include <pthread.h>

#include <atomic>
#include <string>

#include "config/context.h"
#include "net/namespace_table.h"
#include "probe/pending_probes.h"

class LBHealth;

/// An IPv6 probe: the twin of `LBTest`.
class LBTest6 {
  public:
    LBTest6() = default;
    LBTest6(const LBTest6&) = delete;
    LBTest6& operator=(const LBTest6&) = delete;
    virtual ~LBTest6();

    virtual void init(context* ctx);
    virtual void send(LBHealth& health, context* ctx) = 0;
    virtual std::string dump(context* ctx) = 0;
    virtual void recv(LBHealth& health, context* ctx);
    virtual std::string name() = 0;
    virtual std::string status();

    std::string target;
    int timeout = 5000;   ///< ms
    int last_result = 0;  ///< 0 none collected yet, 1 answered, 2 timed out
    std::string status_text;
    std::string ns_name;

    static NamespaceTable<bool> _initialized;
    static NamespaceTable<int> _send_icmp6_sock;
    static NamespaceTable<int> _send_ipv6_sock;
    static NamespaceTable<int> _recv_icmp6_sock;
    static NamespaceTable<bool> _received;
    static pthread_mutex_t _ipv6_result_mutex;
    static PendingProbes _results;  ///< in all namespaces; guarded by _ipv6_result_mutex
    static std::atomic<int> _packet_id;

  protected:
    void set_up(context* ctx);
};

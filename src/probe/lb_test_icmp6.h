#pragma once

#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip6.h>

#include <ctime>
#include <string>

#include "probe/lb_test.h"

/// The IPv6 echo probe, type "ping": the twin of `LBTestICMP` (RFC 4443). It differs in this: every
/// interface gets a hand-built frame (B46), the source is a link-local address where none is
/// configured, and the neighbour prober is handed the next hop as configured, not the learnt one.
class LBTestICMP6 : public LBTest6 {
  public:
    void init(context* ctx) override;
    void send(LBHealth& health, context* ctx) override;
    std::string dump(context* ctx) override;
    std::string name() override;

    void send(const std::string& ifname, const std::string& target,
              const std::string& source_address, const std::string& nexthop, int packet_id,
              context* ctx);
    /// What failed before the sending itself has been logged.
    host::Transfer send_frame(int sock, const std::string& ifname, const std::string& to,
                              const std::string& source_address, const std::string& nexthop,
                              int packet_id, context* ctx);

    /// The first address of an interface whose name begins with `ifname` that looks link-local (one
    /// of the first two bytes of fe80 suffices, B60).
    /// 0 with the address in `out`; -2 when there is none; -1, logged, when the list is unreadable.
    int get_link_local_addr(const std::string& ifname, sockaddr_in6* out, context* ctx);

    timespec last_sent{};

    /// What nothing in the daemon calls (B132), as in `LBTestICMP`. The dispatcher sends no echo
    /// into a tunnel, since the receiver would not match its replies.
    int send_for_interfaces(int sock, const std::string& ifname, const std::string& target,
                            const std::string& source_address, const std::string& nexthop,
                            int packet_id, context* ctx);
    int send_for_tunnel(int sock, const std::string& ifname, const std::string& target,
                        int packet_id, context* ctx);
    using LBTest6::status;
    std::string status(context* ctx);
    unsigned short checksum(unsigned short* data, int length);
    /// RFC 2460, section 8.1: over the pseudo-header, the ICMPv6 header with a checksum of 0 and
    /// the data.
    unsigned short in_checksum(ip6_hdr ip, icmp6_hdr header, unsigned char* data, int length);

  private:
    host::Transfer send_into_tunnel(int sock, const std::string& ifname, const std::string& to,
                                    int packet_id, context* ctx);
    bool choose_source(LBHealth& health, context* ctx);
};

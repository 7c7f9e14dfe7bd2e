#pragma once

#include <netinet/ip_icmp.h>

#include <ctime>
#include <string>

#include "probe/lb_test.h"

/// The IPv4 echo probe, type "ping": one ICMP echo request (RFC 792) a cycle through one particular
/// interface, collected later by `LBTest::recv`.
///
/// Tunnels and modems send through the namespace's raw ICMP socket, bound to the interface; all
/// other interfaces get a whole Ethernet frame, addressed to the next hop's MAC, so that routes do
/// not matter. Runs on the worker of the interface's namespace.
class LBTestICMP : public LBTest {
  public:
    void init(context* ctx) override;
    void send(LBHealth& health, context* ctx) override;
    std::string dump(context* ctx) override;
    std::string name() override;
    using LBTest::status;
    /// The line for people, made anew.
    std::string status(context* ctx);

    /// Chooses the path by the interface's name and reports a failed send. A probe that did not go
    /// out stays in flight and times out.
    void send(const std::string& ifname, const std::string& target,
              const std::string& source_address, const std::string& nexthop, int packet_id,
              context* ctx);
    /// Each path gives what sendto(2) returned, or -1 with errno set after logging why.
    int send_for_interfaces(int sock, const std::string& ifname, const std::string& target,
                            const std::string& source_address, const std::string& nexthop,
                            int packet_id, context* ctx);
    int send_for_tunnel(int sock, const std::string& ifname, const std::string& target,
                        int packet_id, context* ctx);

    /// RFC 1071 over `length` bytes in network order; the result is a host number.
    unsigned short in_checksum(unsigned short* data, int length) const;
    /// The same over the header with a checksum of 0 and the data behind it.
    unsigned short icmp4_checksum(icmphdr header, unsigned char* data, int length);

    timespec last_sent{};  ///< monotonic clock; of the latest registered probe
};

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

    /// Chooses the path by the interface's name (B44) and reports a failed send. A probe that did
    /// not go out stays in flight and times out (B54).
    void send(const std::string& ifname, const std::string& target,
              const std::string& source_address, const std::string& nexthop, int packet_id,
              context* ctx);
    /// The two paths. What failed before the sending itself has been logged.
    host::Transfer send_frame(int sock, const std::string& ifname, const std::string& to,
                              const std::string& source_address, const std::string& nexthop,
                              int packet_id, context* ctx);
    host::Transfer send_into_tunnel(int sock, const std::string& ifname, const std::string& to,
                                    int packet_id, context* ctx);

    timespec last_sent{};  ///< monotonic clock; of the latest registered probe

    /// What nothing in the daemon calls (B132): the two paths, with what sendto(2) returned and the
    /// error in errno; the line for people, made anew; and checksums (RFC 1071) over bytes in
    /// network order, which the frame builders have of their own.
    int send_for_interfaces(int sock, const std::string& ifname, const std::string& target,
                            const std::string& source_address, const std::string& nexthop,
                            int packet_id, context* ctx);
    int send_for_tunnel(int sock, const std::string& ifname, const std::string& target,
                        int packet_id, context* ctx);
    using LBTest::status;
    std::string status(context* ctx);
    unsigned short in_checksum(unsigned short* data, int length) const;
    unsigned short icmp4_checksum(icmphdr header, unsigned char* data, int length);
};

#pragma once

#include <netinet/ip_icmp.h>

#include <ctime>
#include <string>

#include "probe/lb_test.h"
#include "probe/ping_run.h"

/// The extended ping, type "ping_ext", IPv4 only: a burst of echoes to its target, judged by loss,
/// mean round-trip time and jitter. It waits for each answer in turn, so a run blocks its worker
/// for up to `count` x `ping_timeout` (B65); no lock is held meanwhile. Its verdict goes to the
/// interface at once; nothing is left to collect.
class LBTestPING : public LBTest {
  public:
    LBTestPING();

    void init(context* ctx) override;
    /// One run, if the period has passed.
    void send(LBHealth& health, context* ctx) override;
    std::string dump(context* ctx) override;
    /// Nothing: a run is judged when it ends.
    void recv(LBHealth& health, context* ctx) override;
    std::string name() override;

    /// Chooses the path by the interface's name and reports a failed send.
    void send(LBHealth& health, const std::string& target, const std::string& nexthop, int id,
              context* ctx);

    timespec ping_timeout{.tv_sec = 1, .tv_nsec = 0};  ///< how long one echo may take
    int period = 240;         ///< s before the second run; after that every cycle runs
    int jitter = 50;          ///< ms; at or above it the run fails
    int count = 10;           ///< echoes per run; 0 or less: every run fails
    int loss = 1;             ///< percent; at or above it the run fails
    int rtt = 200;            ///< ms; a mean at or above it fails the run
    int last_jitter = 0;      ///< ms, of the last run that was judged
    int last_loss = 0;        ///< percent
    int last_rtt = 0;         ///< ms, mean
    timespec period_start{};  ///< monotonic clock; the first run

    /// What nothing in the daemon calls (B132), as in `LBTestICMP`; the two paths give 0 after a
    /// verdict.
    int send_for_interfaces(int sock, LBHealth& health, const std::string& target,
                            const std::string& nexthop, int id, context* ctx);
    int send_for_tunnel(int sock, LBHealth& health, const std::string& target, int id,
                        context* ctx);
    using LBTest::status;
    std::string status(context* ctx);
    unsigned short in_checksum(unsigned short* data, int length);
    unsigned short icmp4_checksum(icmphdr header, unsigned char* payload, int length);

  private:
    struct Run;
    /// The two paths: 0 after a verdict, else the error.
    host::Transfer ping_by_frames(int sock, LBHealth& health, const std::string& to,
                                  const std::string& nexthop, int id, context* ctx);
    host::Transfer ping_into_tunnel(int sock, LBHealth& health, const std::string& to, int id,
                                    context* ctx);
    host::Transfer run_echoes(const Run& run);
    host::Transfer fail_run(LBHealth& health, context* ctx, const std::string& to,
                            const host::Transfer& reason);
    host::Transfer judge_run(const Run& run, const PingRun& measured);
};

/// Milliseconds of a time, rounded down.
int ts2msecs(const timespec* time);

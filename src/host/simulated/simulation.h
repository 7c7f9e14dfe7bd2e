#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "base/keep_alive_quorum.h"
#include "host/addresses.h"
#include "host/packets.h"
#include "wire/bytes.h"

/// A machine with its network under a virtual clock, which answers what host/'s headers ask. No
/// thread and no system call: time passes only where the daemon sleeps or waits, or where the
/// driver lets it, and what is due then happens in the order of its moments. One run with the same
/// steps gives the same result, always.
///
/// One lives at a time; the daemon's calls reach it from the one thread there is. A driver fills
/// it, runs the daemon's steps (core/workers.h) and changes it in between.
class Simulation {
  public:
    Simulation();
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;
    /// The one that lives.
    static Simulation& current();

    // ---- what the driver sets up and changes

    /// A next hop on a link: it answers for its address, and forwards echoes to targets behind it.
    struct NextHop {
        MacAddress mac{};
        bool answers = true;   ///< ARP requests or neighbour solicitations
        bool forwards = true;  ///< what is sent to its MAC, or into its tunnel
    };
    /// What happens to the echoes of one family behind a link. Shares are drawn from the seed, the
    /// link, the target and the moment alone: whoever asks at one moment meets the same, in
    /// whatever order uplinks are served and whatever was asked before.
    struct Impairments {
        bool passes = true;
        double loss_percent = 0;       ///< requests without an answer
        std::int64_t delay_ms = 0;     ///< on top of the target's
        std::int64_t jitter_ms = 0;    ///< the delay is that much longer or shorter at most
        double duplicate_percent = 0;  ///< answers that come a second time
        double reorder_percent = 0;    ///< answers that those of the next cycle overtake
    };
    /// A link with what lies behind it. Names of next hops and addresses are texts as the host
    /// prints them.
    struct Link {
        int index = 0;
        MacAddress mac{};
        std::vector<std::string> addresses;  ///< of the interface itself; both families
        std::string peer;                    ///< of a point-to-point link; empty for none
        bool is_up = true;                   ///< else nothing passes, and sends fail
        bool takes_frames = true;            ///< else they are lost: a tunnel or modem
        std::map<std::string, NextHop> next_hops;
        std::array<Impairments, 2> impairments{};  ///< of IPv4, of IPv6
    };
    /// Who answers echo requests, and how. A next hop is a target too where it is entered here.
    struct Target {
        std::int64_t delay_ms = 10;  ///< of the round trip
        std::int64_t jitter_ms = 0;  ///< as of the impairments, added to it
        double loss_percent = 0;     ///< requests without an answer, by the seed
        bool answers = true;
        std::set<std::string> cut_links;            ///< links through which no answer comes
        std::map<std::string, double> lossy_links;  ///< link -> requests of 100 lost through it
    };
    /// The part of the machine that lies in one network namespace; the empty name is the default.
    struct Namespace {
        std::map<std::string, Link> links;
        std::map<std::string, Target> targets;
    };
    std::map<std::string, Namespace> namespaces{{"", {}}};
    /// Adds a link to a namespace, with an index and a MAC of its own.
    Link& add_link(const std::string& name, const std::string& ns_name = "");
    /// Tells the daemon that links, addresses or neighbours changed: it asks for them again.
    void announce_change();

    /// The files of the machine by path. A routing daemon reads what it finds there.
    std::map<std::string, std::string> files;
    /// A process that takes the reload signal: the fragment is copied, as the routes in force.
    struct RoutingDaemon {
        std::string fragment_path;
        std::string routes_in_force;
        int reloads = 0;
    };
    std::map<int, RoutingDaemon> routing_daemons;  ///< by process number
    /// A routing daemon of a namespace and family, with its pid file and folder as the daemon
    /// expects them.
    RoutingDaemon& add_routing_daemon(int process, bool is_ipv6, const std::string& ns_name = "");

    /// For all that is drawn. Set it before the first step.
    void set_seed(std::uint64_t seed) { seed_ = seed; }

    /// The calls of the host that can be made to fail.
    enum class Call {
        open_socket,
        send_frame,
        send_echo,
        bind,
        receive_reply,   ///< to an echo
        receive_answer,  ///< of a next hop
        link,
        primary_address,
        peer,
        addresses,
        resolve,
        arp_entry,
        write_arp_entry,
        neighbours,
        write_neighbour,
        track,
        read_file,
        write_file,
        make_directory,
        command,
    };
    struct Faults {
        std::set<Call> calls;
        double percent = 0;  ///< of these calls fail, by the seed
    };
    Faults faults;  ///< none at first; a driver changes it at any moment
    /// Draws whether this call fails.
    bool fails(Call call);

    // ---- what the driver reads

    struct LoggedLine {
        std::int64_t at_ms = 0;  ///< monotonic
        int severity = 0;
        std::string text;
    };
    std::vector<LoggedLine> log;
    std::vector<std::string> commands;  ///< that the daemon ran, oldest first
    int keep_alives = 0;                ///< that went on to the watchdog
    int echoes_sent = 0;
    int solicitations_sent = 0;  ///< ARP requests and neighbour solicitations
    /// Called for each answer that the network will deliver, with its delay; none at first.
    struct Answer {
        const std::string& ns_name;
        const std::string& link;
        const std::string& target;
        bool is_ipv6 = false;
        std::int64_t delay_us = 0;
    };
    std::function<void(const Answer&)> on_answer;
    /// How often files were opened for writing, by path.
    std::map<std::string, int> writings;

    // ---- time

    std::int64_t now_us() const { return now_us_; }
    /// Lets time pass; what is due meanwhile happens.
    void pass_us(std::int64_t duration_us);
    void pass_s(std::int64_t duration_s) { pass_us(duration_s * 1'000'000); }
    /// Enters what is to happen after that time. What is entered first happens first within one
    /// moment. It may happen while the daemon waits within one of its steps.
    void after_us(std::int64_t delay_us, std::function<void()> happens);
    static constexpr std::int64_t epoch_s = 1'800'000'000;  ///< wall clock when the machine began
    /// Sets the wall clock forward, or back where it is negative; nothing else notices.
    void step_wall_clock(std::int64_t step_us) { wall_offset_us_ += step_us; }
    std::int64_t wall_us() const { return now_us_ + epoch_s * 1'000'000 + wall_offset_us_; }

    /// The namespace that the daemon's calls belong to; `host::enter_namespace` moves it. A driver
    /// of several workers sets it before each one's steps.
    std::string namespace_in_force;

    // ---- what the host's implementations use (host/simulated/*.cpp)

    struct Socket {
        enum class Kind { frame_sender, echo_sender, reply_receiver, arp_receiver, na_receiver };
        Kind kind{};
        bool is_ipv6 = false;
        std::string ns_name{};
        std::string bound_to{};  ///< interface; empty for any
        std::deque<std::vector<std::uint8_t>> waiting{};
        std::optional<host::ReceiverWatch> watch{};
    };
    int open(Socket socket);
    void close(int number) { sockets_.erase(number); }
    Socket* find(int number);
    /// Takes a frame off the daemon's hands. 0, or the error.
    int take_frame(const Socket& socket, int index, std::span<const std::uint8_t> frame);
    int take_echo(const Socket& socket, const std::string& to,
                  std::span<const std::uint8_t> message);

    Namespace& in_force() { return namespaces[namespace_in_force]; }
    Link* find_link(const std::string& name);
    /// Moments of the next thing that happens, or nothing.
    std::optional<std::int64_t> next_moment() const;
    /// Goes to that moment and lets the one thing happen that is due first, if it is not later.
    void go_to(std::int64_t moment_us);

    /// Link-layer addresses that the machine knows: (namespace, interface, address) -> MAC.
    std::map<std::tuple<std::string, std::string, std::string>, MacAddress> neighbours;
    /// Enters one in the namespace in force, and announces it.
    void set_neighbour(const std::string& ifname, const std::string& address,
                       const MacAddress& mac);
    std::uint64_t changes = 0;  ///< announced so far
    KeepAliveQuorum quorum;
    std::set<std::pair<std::string, std::string>> tracked_echoes;  ///< (source, destination)

  private:
    void deliver(const std::string& ns_name, Socket::Kind kind, bool is_ipv6,
                 const std::vector<std::uint8_t>& packet);
    template <class Reply>
    void answer_echo(const std::string& ns_name, const std::string& link, const std::string& target,
                     Reply reply, bool is_ipv6);

    std::int64_t now_us_ = 1'000'000'000;
    std::int64_t wall_offset_us_ = 0;
    std::uint64_t seed_ = 1;
    std::uint64_t fault_draws_ = 0;
    std::map<int, Socket> sockets_;
    int last_socket_ = 100;
    /// What will happen, by moment and, within one, in the order of its entering.
    std::multimap<std::int64_t, std::function<void()>> events_;
};

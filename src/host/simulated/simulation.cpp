#include "host/simulated/simulation.h"

#include <algorithm>
#include <cerrno>
#include <span>
#include <stdexcept>

#include "base/address_text.h"
#include "wire/checksum.h"
#include "wire/frames.h"

namespace {

Simulation* the_simulation = nullptr;

using Packet = std::vector<std::uint8_t>;

template <class Wire>
Packet packet_of(const Wire& wire) {
    const auto bytes = bytes_of(wire);
    return {bytes.begin(), bytes.end()};
}

/// The reply to an echo request: its identifier, sequence and payload come back.
IcmpEcho reply_to(IcmpEcho request, std::uint8_t type) {
    request.type = type;
    request.checksum = 0;
    request.checksum = internet_checksum(bytes_of(request));
    return request;
}

/// What a raw socket delivers of an IPv4 reply: the datagram from its IP header on.
Packet reply_datagram(const Ipv4Bytes& from, const IcmpEcho& request) {
    struct {
        Ipv4Header ip;
        IcmpEcho icmp;
    } datagram;
    datagram.ip.total_length = sizeof datagram;
    datagram.ip.source = from;
    datagram.icmp = reply_to(request, icmp_echo_reply);
    return packet_of(datagram);
}

}  // namespace

Simulation::Simulation() {
    if (the_simulation != nullptr) {
        throw std::logic_error("two simulations at a time");
    }
    the_simulation = this;
}

Simulation::~Simulation() {
    the_simulation = nullptr;
}

Simulation& Simulation::current() {
    if (the_simulation == nullptr) {
        throw std::logic_error("the daemon asked its host, and there is no simulation");
    }
    return *the_simulation;
}

// The machine

Simulation::Link& Simulation::add_link(const std::string& name, const std::string& ns_name) {
    int highest = 0;
    for (const auto& [ns, space] : namespaces) {
        for (const auto& [ifname, link] : space.links) {
            highest = std::max(highest, link.index);
        }
    }
    Link& link = namespaces[ns_name].links[name];
    link.index = highest + 1;
    link.mac = {2,
                0,
                0,
                1,
                static_cast<std::uint8_t>(link.index >> 8),
                static_cast<std::uint8_t>(link.index)};
    return link;
}

void Simulation::announce_change() {
    ++changes;
}

void Simulation::set_neighbour(const std::string& ifname, const std::string& address,
                               const MacAddress& mac) {
    neighbours[{namespace_in_force, ifname, address}] = mac;
    announce_change();
}

Simulation::RoutingDaemon& Simulation::add_routing_daemon(int process, bool is_ipv6,
                                                          const std::string& ns_name) {
    const std::string root = ns_name.empty() ? "" : "/var/vrfs/" + ns_name + "/usr";
    const std::string pid_folder = ns_name.empty() ? "/var/run/" : root + "/var/run/";
    const std::string etc = ns_name.empty() ? "/usr/etc/" : root + "/etc/";
    files[pid_folder + (is_ipv6 ? "routing6.pid" : "routing.pid")] = std::to_string(process) + "\n";
    RoutingDaemon& added = routing_daemons[process];
    added.fragment_path = etc + (is_ipv6 ? "routing6-wlb.conf" : "routing-wlb.conf");
    return added;
}

Simulation::Link* Simulation::find_link(const std::string& name) {
    auto& links = in_force().links;
    const auto found = links.find(name);
    return found == links.end() ? nullptr : &found->second;
}

// Time

std::optional<std::int64_t> Simulation::next_moment() const {
    return events_.empty() ? std::nullopt : std::make_optional(events_.begin()->first);
}

void Simulation::go_to(std::int64_t moment_us) {
    if (!events_.empty() && events_.begin()->first <= moment_us) {
        const auto event = events_.extract(events_.begin());
        now_us_ = std::max(now_us_, event.key());
        event.mapped()();
        return;
    }
    now_us_ = std::max(now_us_, moment_us);
}

void Simulation::pass_us(std::int64_t duration_us) {
    const std::int64_t end_us = now_us_ + duration_us;
    while (next_moment() && *next_moment() <= end_us) {
        go_to(end_us);
    }
    go_to(end_us);
}

void Simulation::after_us(std::int64_t delay_us, std::function<void()> happens) {
    events_.emplace(now_us_ + delay_us, std::move(happens));
}

// Sockets

int Simulation::open(Socket socket) {
    socket.ns_name = namespace_in_force;
    sockets_.emplace(++last_socket_, std::move(socket));
    return last_socket_;
}

Simulation::Socket* Simulation::find(int number) {
    const auto found = sockets_.find(number);
    return found == sockets_.end() ? nullptr : &found->second;
}

/// Puts a packet into every socket that takes it; those that are watched are told at once, in the
/// namespace of the socket, as their threads would.
void Simulation::deliver(const std::string& ns_name, Socket::Kind kind, bool is_ipv6,
                         const Packet& packet) {
    std::vector<int> takers;
    for (auto& [number, socket] : sockets_) {
        if (socket.kind == kind && socket.is_ipv6 == is_ipv6 && socket.ns_name == ns_name) {
            socket.waiting.push_back(packet);
            takers.push_back(number);
        }
    }
    const std::string before = std::exchange(namespace_in_force, ns_name);
    for (const int number : takers) {
        Socket* const socket = find(number);
        if (socket == nullptr || !socket->watch) {
            continue;
        }
        const auto watch = *socket->watch;  // the socket may be closed by what is called
        if (!watch.on_readable()) {
            if (Socket* const still_open = find(number)) {
                still_open->watch.reset();
            }
        }
    }
    namespace_in_force = before;
}

// Packets that leave

namespace {

/// Scatters the bits of a number (the finalizer of SplitMix64): the same in every build.
std::uint64_t mixed(std::uint64_t bits) {
    bits = (bits ^ (bits >> 30U)) * 0xbf58476d1ce4e5b9ULL;
    bits = (bits ^ (bits >> 27U)) * 0x94d049bb133111ebULL;
    return bits ^ (bits >> 31U);
}

/// The draws of one echo: a number from its seed, its way and its moment, mixed anew for each.
class Draws {
  public:
    Draws(std::uint64_t seed, const std::string& link, const std::string& target,
          std::int64_t moment_us)
        : state_(mixed(seed + 0x9e3779b97f4a7c15ULL)) {
        for (const std::string* text : {&link, &target}) {
            for (const char character : *text) {
                state_ = (state_ ^ static_cast<std::uint8_t>(character)) * 0x100000001b3ULL;
            }
            state_ = mixed(state_);
        }
        state_ = mixed(state_ ^ static_cast<std::uint64_t>(moment_us));
    }
    /// True for that share of the draws. Each call is a draw of its own, also where none is needed,
    /// so that a share that changes moves no other draw.
    bool is_within(double percent) {
        return static_cast<double>(next() % 1'000'000) < percent * 10'000;
    }
    /// From -`most` to `most`.
    std::int64_t spread(std::int64_t most) {
        const auto width = static_cast<std::uint64_t>(2 * most + 1);
        return static_cast<std::int64_t>(next() % width) - most;
    }

  private:
    std::uint64_t next() { return mixed(state_ += 0x9e3779b97f4a7c15ULL); }

    std::uint64_t state_;
};

}  // namespace

bool Simulation::fails(Call call) {
    if (faults.percent <= 0 || !faults.calls.contains(call)) {
        return false;
    }
    const std::uint64_t drawn = mixed(seed_ ^ mixed(++fault_draws_));
    return static_cast<double>(drawn % 1'000'000) < faults.percent * 10'000;
}

template <class Reply>
void Simulation::answer_echo(const std::string& ns_name, const std::string& link,
                             const std::string& target, Reply reply, bool is_ipv6) {
    ++echoes_sent;
    const Namespace& space = namespaces[ns_name];
    const auto found = space.targets.find(target);
    const Impairments& impairments = space.links.at(link).impairments[is_ipv6 ? 1 : 0];
    if (found == space.targets.end() || !found->second.answers || !impairments.passes ||
        found->second.cut_links.contains(link)) {
        return;
    }
    Draws draws(seed_, link, target, now_us_);
    if (draws.is_within(found->second.loss_percent) || draws.is_within(impairments.loss_percent)) {
        return;
    }
    const auto lossy = found->second.lossy_links.find(link);
    if (lossy != found->second.lossy_links.end() && draws.is_within(lossy->second)) {
        return;
    }
    const std::int64_t jitter_us =
        draws.spread(found->second.jitter_ms * 1000) + draws.spread(impairments.jitter_ms * 1000);
    const bool is_doubled = draws.is_within(impairments.duplicate_percent);
    constexpr std::int64_t held_back_us = 1'100'000;  // the next cycle's answer passes it
    const std::int64_t held_us = draws.is_within(impairments.reorder_percent) ? held_back_us : 0;
    const std::int64_t delay_us =
        std::max<std::int64_t>(0,
                               (found->second.delay_ms + impairments.delay_ms) * 1000 + jitter_us) +
        held_us;
    if (on_answer) {
        on_answer({ns_name, link, target, is_ipv6, delay_us});
    }
    const auto arrive = [this, ns_name, link, is_ipv6, packet = reply()] {
        const auto& links = namespaces[ns_name].links;
        const auto way_back = links.find(link);
        if (way_back != links.end() && way_back->second.is_up) {
            deliver(ns_name, Socket::Kind::reply_receiver, is_ipv6, packet);
        }
    };
    after_us(delay_us, arrive);
    if (is_doubled) {
        after_us(delay_us + 1000, arrive);
    }
}

int Simulation::take_frame(const Socket& socket, int index, std::span<const std::uint8_t> frame) {
    auto& links = namespaces[socket.ns_name].links;
    const auto found = std::find_if(links.begin(), links.end(), [index](const auto& entry) {
        return entry.second.index == index;
    });
    if (found == links.end()) {
        return ENXIO;
    }
    const auto& name = found->first;
    const auto& link = found->second;
    if (!link.is_up) {
        return ENETDOWN;
    }
    if (!link.takes_frames) {
        return 0;
    }
    constexpr std::int64_t link_us = 1000;
    const std::string ns_name = socket.ns_name;
    const auto ethernet = read_at<EthernetHeader>(frame, 0);
    const auto is_reachable = [&link, &ethernet] {
        return std::any_of(link.next_hops.begin(), link.next_hops.end(),
                           [&ethernet](const auto& hop) {
                               return hop.second.mac == ethernet.destination && hop.second.forwards;
                           });
    };
    if (ethernet.ethertype == ethertype_arp && frame.size() == sizeof(ArpFrame)) {
        ++solicitations_sent;
        auto reply = read_at<ArpFrame>(frame, 0);
        const auto hop = link.next_hops.find(to_text(reply.target_address));
        if (hop != link.next_hops.end() && hop->second.answers) {
            std::swap(reply.sender_address, reply.target_address);
            reply.target_mac = reply.sender_mac;
            reply.sender_mac = hop->second.mac;
            reply.ethernet = {.destination = reply.target_mac,
                              .source = hop->second.mac,
                              .ethertype = ethertype_arp};
            reply.operation = arp_reply;
            after_us(link_us, [this, ns_name, packet = packet_of(reply)] {
                deliver(ns_name, Socket::Kind::arp_receiver, false, packet);
            });
        }
    } else if (ethernet.ethertype == ethertype_ipv4 && frame.size() == sizeof(EchoFrame4)) {
        const auto echo = read_at<EchoFrame4>(frame, 0);
        if (is_reachable()) {
            answer_echo(
                ns_name, name, to_text(echo.ip.destination),
                [&echo] { return reply_datagram(echo.ip.destination, echo.icmp); }, false);
        }
    } else if (ethernet.ethertype == ethertype_ipv6 && frame.size() == sizeof(EchoFrame6)) {
        const auto echo = read_at<EchoFrame6>(frame, 0);
        if (is_reachable()) {
            answer_echo(
                ns_name, name, to_text(echo.ip.destination).text,
                [&echo] { return packet_of(reply_to(echo.icmp, icmp6_echo_reply)); }, true);
        }
    } else if (ethernet.ethertype == ethertype_ipv6 &&
               frame.size() == sizeof(NeighborSolicitation)) {
        ++solicitations_sent;
        const auto asked = read_at<NeighborSolicitation>(frame, 0);
        const auto hop = link.next_hops.find(to_text(asked.target).text);
        if (hop != link.next_hops.end() && hop->second.answers) {
            NeighborAdvertisement answer;
            answer.ethernet = {
                .destination = link.mac, .source = hop->second.mac, .ethertype = ethertype_ipv6};
            answer.ip.source = asked.target;
            answer.ip.destination = asked.ip.source;
            answer.type = icmp6_neighbor_advertisement;
            answer.target = asked.target;
            answer.option_type = 2;
            answer.option_length = 1;
            answer.option_mac = hop->second.mac;
            after_us(link_us, [this, ns_name, packet = packet_of(answer)] {
                deliver(ns_name, Socket::Kind::na_receiver, true, packet);
            });
        }
    }
    return 0;
}

int Simulation::take_echo(const Socket& socket, const std::string& to,
                          std::span<const std::uint8_t> message) {
    const auto& links = namespaces[socket.ns_name].links;
    const auto link = links.find(socket.bound_to);
    if (link == links.end() || !link->second.is_up) {
        return ENETUNREACH;
    }
    const auto from = parse_ipv4(to);
    const auto request = read_at<IcmpEcho>(message, 0);
    // No MAC tells which next hop is meant: one of the family that forwards is enough, and a
    // tunnel that was given none leads to its targets by itself.
    bool has_next_hop = false;
    bool is_forwarded = false;
    for (const auto& [address, hop] : link->second.next_hops) {
        const bool is_of_family = parse_ipv4(address).has_value();
        has_next_hop = has_next_hop || is_of_family;
        is_forwarded = is_forwarded || (is_of_family && hop.forwards);
    }
    if (from && (is_forwarded || !has_next_hop)) {
        answer_echo(
            socket.ns_name, socket.bound_to, to,
            [&from, &request] { return reply_datagram(*from, request); }, false);
    }
    return 0;
}

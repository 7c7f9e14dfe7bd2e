#include "lbcheck/live_echo.h"

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <span>
#include <sstream>
#include <utility>

#include "base/address_text.h"
#include "base/fd.h"
#include "config/context.h"
#include "config/probe_maker.h"
#include "host/clock.h"
#include "lbcheck/live_machine.h"
#include "probe/host_view.h"
#include "probe/lb_arp.h"
#include "probe/lb_neighbor.h"
#include "probe/lb_test_icmp.h"
#include "probe/lb_test_icmp6.h"
#include "probe/send_path.h"
#include "shared/quiet_log.h"
#include "wire/frames.h"

namespace lbcheck {

namespace {

/// Above all that a daemon uses, whose sockets so never see our answers, nor ours its.
constexpr std::uint32_t first_id = 0x4c420000;

constexpr std::int64_t patience_ms = 3500;  ///< in all
constexpr std::int64_t answer_ms = 1500;    ///< for each echo
constexpr std::int64_t unsent_ms = 2000;    ///< for a next hop to be found
constexpr std::int64_t delivery_ms = 500;   ///< from an uplink to a socket
constexpr std::int64_t pause_ms = 50;

/// Sees echo replies as they come in by any interface, before anything can drop them.
OpenedFd open_witness(bool is_ipv6) {
    OpenedFd witness = just_opened(socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!witness.is_open()) {
        return witness;
    }
    // Protocol and type; the header of IPv4 is as long as its first byte tells, that of IPv6
    // has 40.
    std::array<sock_filter, 7> of_ipv4{
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(Ipv4Header, protocol)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 4, IPPROTO_ICMP},
        sock_filter{BPF_LDX | BPF_B | BPF_MSH, 0, 0, 0},
        sock_filter{BPF_LD | BPF_B | BPF_IND, 0, 0, 0},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, icmp_echo_reply},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0},
    };
    std::array<sock_filter, 6> of_ipv6{
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, offsetof(Ipv6Header, next_header)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 3, IPPROTO_ICMPV6},
        sock_filter{BPF_LD | BPF_B | BPF_ABS, 0, 0, sizeof(Ipv6Header)},
        sock_filter{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, icmp6_echo_reply},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0xffffffffU},
        sock_filter{BPF_RET | BPF_K, 0, 0, 0},
    };
    const sock_fprog filter = is_ipv6 ? sock_fprog{of_ipv6.size(), of_ipv6.data()}
                                      : sock_fprog{of_ipv4.size(), of_ipv4.data()};
    sockaddr_ll place{};
    place.sll_family = AF_PACKET;
    place.sll_protocol = htons(is_ipv6 ? ETH_P_IPV6 : ETH_P_IP);
    const int number = witness.fd.get();
    if (setsockopt(number, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
        bind(number, reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
        return {.fd = Fd(), .error = errno};
    }
    return witness;
}

/// The packet identifier of an echo reply, whose header begins at `offset`.
std::optional<std::uint32_t> identifier_in(std::span<const std::uint8_t> packet,
                                           std::size_t offset) {
    if (packet.size() < offset + sizeof(IcmpEcho)) {
        return std::nullopt;
    }
    return read_at<IcmpEcho>(packet, offset).packet_id;
}

/// The identifier of a whole IPv4 datagram, whose header may be longer than usual.
std::optional<std::uint32_t> identifier_in_datagram(std::span<const std::uint8_t> datagram) {
    constexpr std::size_t word_bytes = 4;
    return datagram.empty() ? std::nullopt
                            : identifier_in(datagram, (datagram[0] & 0x0fU) * word_bytes);
}

std::uint64_t reverse_path_drops() {
    std::ifstream counters("/proc/thread-self/net/netstat");
    return reverse_path_drops_in(counters);
}

struct Pending {
    std::string source;
    int interface_index = 0;
    int sent = 0;  ///< echoes that left
    std::int64_t sent_at_ms = 0;
    bool came_in = false;
    bool was_delivered = false;
    int error = 0;  ///< of the latest try
};

std::int64_t now_ms() {
    const timespec zero{};
    return elapsed_ms(zero, monotonic_now());
}

class Echoes {
  public:
    Echoes(const std::string& ns_name, bool is_ipv6, const std::vector<EchoRequest>& requests)
        : ns_name_(ns_name), is_ipv6_(is_ipv6), requests_(requests), pending_(requests.size()) {
        ctx_.ipv6 = is_ipv6;
        ctx_.ns_name = &ns_name_;
        if (is_ipv6) {
            neighbor_.init(ns_name);
            ctx_.neighbor = &neighbor_;
            ctx_.view = &neighbor_.view;
            probe6_->init(&ctx_);
        } else {
            arp_.init(ns_name);
            ctx_.arp = &arp_;
            ctx_.view = &view_;
            probe4_->init(&ctx_);
        }
    }

    std::string open_sockets() {
        OpenedFd witness = open_witness(is_ipv6_);
        witness_ = std::move(witness.fd);
        const host::OpenedSocket receiver = host::open_reply_receiver(is_ipv6_, 0xffffffffU);
        receiver_ = Fd(receiver.number);
        if (!witness_.is_open() || !receiver_.is_open()) {
            return std::string("no socket for it: ") +
                   strerror(receiver.is_open() ? witness.error : receiver.error);
        }
        return "";
    }

    std::vector<Echo> run() {
        const std::uint64_t drops_before = reverse_path_drops();
        began_ms_ = now_ms();
        const std::int64_t end_ms = began_ms_ + patience_ms;
        while (now_ms() < end_ms && !all_ended()) {
            ctx_.view->begin_pass();
            for (std::size_t i = 0; i < pending_.size(); ++i) {
                send_if_due(i);
            }
            sleep_ms(pause_ms);
            take_witnessed();
            take_delivered();
        }
        const std::uint64_t drops = reverse_path_drops() - drops_before;
        std::vector<Echo> echoes;
        for (std::size_t i = 0; i < pending_.size(); ++i) {
            echoes.push_back(outcome(i, drops));
        }
        return echoes;
    }

  private:
    static constexpr int most_sent = 2;

    bool has_ended(const Pending& one) const {
        const std::int64_t waited_ms = now_ms() - one.sent_at_ms;
        return one.was_delivered || (one.came_in && waited_ms >= delivery_ms) ||
               (one.sent == most_sent && waited_ms >= answer_ms) ||
               (one.sent == 0 && now_ms() - began_ms_ >= unsent_ms);
    }
    bool all_ended() const {
        return std::all_of(pending_.begin(), pending_.end(),
                           [this](const Pending& one) { return has_ended(one); });
    }

    void send_if_due(std::size_t at) {
        Pending& one = pending_[at];
        const bool waits = one.sent > 0 && now_ms() - one.sent_at_ms < answer_ms;
        if (one.came_in || one.was_delivered || waits || one.sent == most_sent) {
            return;
        }
        const EchoRequest& request = requests_[at];
        one.interface_index = static_cast<int>(if_nametoindex(request.interface.c_str()));
        const int id = static_cast<int>(first_id + at);
        const host::Transfer sent = send(request, id);
        if (sent.count >= 0) {
            ++one.sent;
            one.sent_at_ms = now_ms();
        }
        one.error = sent.count >= 0 ? 0 : sent.error;
    }

    host::Transfer send(const EchoRequest& request, int id) {
        if (is_ipv6_) {
            return probe6_->send_frame(LBTest6::_send_ipv6_sock.get(ns_name_), request.interface,
                                       request.target, source6_of(request), request.next_hop, id,
                                       &ctx_);
        }
        if (echoes_through_tunnel(request.interface)) {
            return probe4_->send_into_tunnel(LBTest::_send_icmp_sock.get(ns_name_),
                                             request.interface, request.target, id, &ctx_);
        }
        return probe4_->send_frame(LBTest::_send_ip_sock.get(ns_name_), request.interface,
                                   request.target, request.source_address, request.next_hop, id,
                                   &ctx_);
    }

    /// B61: the link-local address where none is configured.
    std::string source6_of(const EchoRequest& request) {
        if (!request.source_address.empty()) {
            return request.source_address;
        }
        const HostView::LinkLocal found = ctx_.view->find_link_local(request.interface);
        return found.address ? to_text(found.address->ipv6).text : "::";
    }

    Pending* find(std::optional<std::uint32_t> id) {
        const bool is_ours = id && *id >= first_id && *id < first_id + pending_.size();
        return is_ours ? &pending_[*id - first_id] : nullptr;
    }

    void take_witnessed() {
        std::array<std::uint8_t, 256> packet{};
        sockaddr_ll from{};
        for (int taken = 0; taken < most_at_once; ++taken) {
            socklen_t length = sizeof from;
            const ssize_t count =
                recvfrom(witness_.get(), packet.data(), packet.size(), MSG_DONTWAIT,
                         reinterpret_cast<sockaddr*>(&from), &length);
            if (count < 0) {
                return;
            }
            const std::span read(packet.data(), static_cast<std::size_t>(count));
            Pending* one = find(is_ipv6_ ? identifier_in(read, sizeof(Ipv6Header))
                                         : identifier_in_datagram(read));
            if (one != nullptr && from.sll_pkttype == PACKET_HOST &&
                from.sll_ifindex == one->interface_index) {
                one->came_in = true;
            }
        }
    }

    void take_delivered() {
        std::array<std::uint8_t, 256> packet{};
        for (int taken = 0; taken < most_at_once; ++taken) {
            const host::Transfer read = host::receive(receiver_.get(), packet);
            if (read.count < 0) {
                return;
            }
            const std::span datagram(packet.data(), static_cast<std::size_t>(read.count));
            Pending* one =
                find(is_ipv6_ ? identifier_in(datagram, 0) : identifier_in_datagram(datagram));
            const std::size_t type_at =
                is_ipv6_ || datagram.empty() ? 0 : (datagram[0] & 0x0fU) * 4U;
            const std::uint8_t reply = is_ipv6_ ? icmp6_echo_reply : icmp_echo_reply;
            if (one != nullptr && datagram[type_at] == reply) {
                one->was_delivered = true;
            }
        }
    }

    Echo outcome(std::size_t at, std::uint64_t drops) const {
        const Pending& one = pending_[at];
        Echo echo;
        echo.target = requests_[at].target;
        echo.reverse_path_drops = drops;
        if (one.was_delivered) {
            echo.end = Echo::End::answered;
        } else if (one.came_in) {
            echo.end = Echo::End::not_delivered;
        } else if (one.sent == 0) {
            echo.end = Echo::End::not_sent;
            echo.reason = strerror(one.error);
        }
        return echo;
    }

    static constexpr int most_at_once = 4096;

    std::string ns_name_;
    bool is_ipv6_;
    const std::vector<EchoRequest>& requests_;
    std::vector<Pending> pending_;
    std::int64_t began_ms_ = 0;
    context ctx_;
    LBArp arp_;
    HostView view_;
    LBNeighbor neighbor_;
    // Kept by their maker to the end of the process, as the daemon's are.
    LBTestICMP* probe4_ = dynamic_cast<LBTestICMP*>(make_probe("ping"));
    LBTestICMP6* probe6_ = dynamic_cast<LBTestICMP6*>(make_probe6("ping"));
    Fd witness_;
    Fd receiver_;
};

}  // namespace

std::uint64_t reverse_path_drops_in(std::istream& netstat) {
    std::string names;
    std::string numbers;
    while (std::getline(netstat, names) && std::getline(netstat, numbers)) {
        std::istringstream name_words(names);
        std::istringstream number_words(numbers);
        std::string name;
        std::string number;
        while (name_words >> name && number_words >> number) {
            if (name == "IPReversePathFilter") {
                return strtoull(number.c_str(), nullptr, 10);
            }
        }
    }
    return 0;
}

std::vector<Echo> send_echoes(const std::string& ns_name, bool is_ipv6,
                              const std::vector<EchoRequest>& requests, std::string& problem) {
    const shared::QuietLog quiet;
    Echoes echoes(ns_name, is_ipv6, requests);
    problem = echoes.open_sockets();
    return problem.empty() ? echoes.run() : std::vector<Echo>();
}

}  // namespace lbcheck

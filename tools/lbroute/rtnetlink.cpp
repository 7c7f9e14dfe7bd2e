#include "lbroute/rtnetlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>

#include "host/linux/netlink.h"
#include "lbroute/rtnetlink_messages.h"

namespace lbroute {

namespace {

constexpr std::size_t receive_size = 256 * 1024;
/// So many requests go out before their answers are read: all answers of one go fit the queue.
constexpr std::size_t batch_bytes = 96 * 1024;
constexpr std::size_t batch_count = 512;
constexpr int receive_queue_bytes = 8 * 1024 * 1024;

/// 0, or the error.
template <class Value>
int set_option(int socket, int level, int name, const Value& value) {
    return setsockopt(socket, level, name, &value, sizeof value) == 0 ? 0 : errno;
}

Fd open_bound(const std::vector<unsigned int>& groups, int flags, std::string& problem) {
    Fd opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE));
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    if (!opened.is_open() ||
        bind(opened.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        problem = std::string("no route netlink socket: ") + strerror(errno);
        return Fd();
    }
    // Beyond the usual limit with CAP_NET_ADMIN; without it, what can be had.
    if (set_option(opened.get(), SOL_SOCKET, SO_RCVBUFFORCE, receive_queue_bytes) != 0) {
        set_option(opened.get(), SOL_SOCKET, SO_RCVBUF, receive_queue_bytes);
    }
    for (const unsigned int group : groups) {
        // A kernel without next-hop objects has no group of their announcements, and no need.
        const int error = set_option(opened.get(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, group);
        if (error != 0 && group != RTNLGRP_NEXTHOP) {
            problem = std::string("no announcements of the kernel: ") + strerror(error);
            return Fd();
        }
    }
    return opened;
}

}  // namespace

RouteSocket RouteSocket::open(std::string& problem) {
    RouteSocket made;
    made.socket_ = open_bound({}, 0, problem);
    if (!made.is_open()) {
        return made;
    }
    const int on = 1;
    const int socket = made.socket_.get();
    set_option(socket, SOL_NETLINK, NETLINK_EXT_ACK, on);
    set_option(socket, SOL_NETLINK, NETLINK_CAP_ACK, on);
    // Where the kernel does not filter listings (before 4.20), the reader does.
    set_option(socket, SOL_NETLINK, NETLINK_GET_STRICT_CHK, on);
    sockaddr_nl own{};
    socklen_t length = sizeof own;
    if (getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length) == 0) {
        made.port_ = own.nl_pid;
    }
    made.received_.resize(receive_size);
    return made;
}

int RouteSocket::send(const Buffer& buffer) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    long sent = -1;
    do {
        sent = sendto(socket_.get(), buffer.data(), buffer.size(), 0,
                      reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errno : 0;
}

RouteSocket::Received RouteSocket::receive() {
    while (true) {
        const long length = recv(socket_.get(), received_.data(), received_.size(), 0);
        if (length >= 0) {
            return {.length = length, .error = 0};
        }
        if (errno != EINTR) {
            return {.length = -1, .error = errno};
        }
    }
}

std::vector<Answer> RouteSocket::take(std::span<const Step> steps) {
    std::vector<Answer> answers(steps.size());
    std::size_t at = 0;
    while (at < steps.size()) {
        Buffer buffer;
        const std::uint32_t first = sequence_ + 1;
        std::size_t count = 0;
        while (at + count < steps.size() && count < batch_count && buffer.size() < batch_bytes) {
            append_request(buffer, steps[at + count], ++sequence_);
            ++count;
        }
        const auto fail_rest = [&](std::size_t from, int error) {
            for (std::size_t i = from; i < at + count; ++i) {
                answers[i] = {.error = error, .reason = strerror(error)};
            }
        };
        std::size_t answered = 0;
        if (const int error = send(buffer); error != 0) {
            fail_rest(at, error);
            answered = count;
        }
        while (answered < count) {
            const Received datagram = receive();
            if (datagram.length < 0) {
                fail_rest(at + answered, datagram.error);
                break;
            }
            auto left = static_cast<int>(datagram.length);
            const auto* message = reinterpret_cast<const nlmsghdr*>(received_.data());
            for (; is_whole(message, left); message = mnl_nlmsg_next(message, &left)) {
                const std::uint32_t place = message->nlmsg_seq - first;
                if (message->nlmsg_type == NLMSG_ERROR && place < count) {
                    answers[at + place] = read_answer(*message);
                    answered = std::max<std::size_t>(answered, place + 1);
                }
            }
        }
        at += count;
    }
    return answers;
}

Answer RouteSocket::list(Dump what, std::uint32_t selector,
                         const std::function<void(const nlmsghdr&)>& take_message,
                         const std::function<void()>& restart) {
    constexpr int tries = 10;
    for (int attempt = 0; attempt < tries; ++attempt) {
        restart();
        Buffer buffer;
        append_dump(buffer, what, selector, ++sequence_);
        if (const int error = send(buffer); error != 0) {
            return {.error = error, .reason = strerror(error)};
        }
        bool is_done = false;
        bool was_interrupted = false;
        while (!is_done) {
            const Received datagram = receive();
            if (datagram.length < 0) {
                return {.error = datagram.error, .reason = strerror(datagram.error)};
            }
            auto left = static_cast<int>(datagram.length);
            const auto* message = reinterpret_cast<const nlmsghdr*>(received_.data());
            for (; is_whole(message, left); message = mnl_nlmsg_next(message, &left)) {
                if (message->nlmsg_seq != sequence_) {
                    continue;  // the rest of a listing that was given up
                }
                was_interrupted |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
                if (message->nlmsg_type == NLMSG_ERROR) {
                    return read_answer(*message);
                }
                if (message->nlmsg_type == NLMSG_DONE) {
                    is_done = true;
                } else {
                    take_message(*message);
                }
            }
        }
        if (!was_interrupted) {
            return {};
        }
    }
    return {.error = EAGAIN, .reason = "the kernel's tables change faster than they can be read"};
}

Listing list_kernel_state(RouteSocket& socket) {
    Listing listing;
    KernelState& state = listing.state;
    const auto fill = [&](Dump what, const char* name, auto& into, auto read) {
        const Answer answer = socket.list(
            what, 0,
            [&](const nlmsghdr& message) {
                if (auto item = read(message)) {
                    into.push_back(std::move(*item));
                }
            },
            [&] { into.clear(); });
        if (answer.error != 0 && listing.problem.empty()) {
            listing.problem = std::string(name) + ": " + answer.reason;
        }
    };
    fill(Dump::links, "links", state.links, read_link);
    fill(Dump::addresses, "addresses", state.addresses, read_address);
    const auto own_route = [](const nlmsghdr& message) {
        auto route = message.nlmsg_type == RTM_NEWROUTE ? read_route(message) : std::nullopt;
        return route && route->protocol == own_protocol ? route : std::nullopt;
    };
    std::vector<KernelRoute> routes6;
    fill(Dump::own_routes4, "IPv4 routes", state.routes, own_route);
    fill(Dump::own_routes6, "IPv6 routes", routes6, own_route);
    std::ranges::move(routes6, std::back_inserter(state.routes));
    const Answer answer = socket.list(
        Dump::next_hops, 0,
        [&](const nlmsghdr& message) {
            auto read = read_next_hop(message);
            if (!read) {
                return;
            }
            if (read->protocol != own_protocol) {
                state.foreign_ids.push_back(read->id);
            } else if (read->group) {
                state.groups.push_back(std::move(*read->group));
            } else if (read->hop) {
                state.hops.push_back(*read->hop);
            } else {
                state.foreign_ids.push_back(read->id);  // none that this program makes
            }
        },
        [&] {
            state.foreign_ids.clear();
            state.groups.clear();
            state.hops.clear();
        });
    if (answer.error == EOPNOTSUPP) {
        listing.has_next_hops = false;
    } else if (answer.error != 0 && listing.problem.empty()) {
        listing.problem = "next-hop objects: " + answer.reason;
    }
    return listing;
}

std::vector<KernelRoute> list_foreign_routes(RouteSocket& socket, std::uint32_t table,
                                             const std::set<Prefix>& prefixes,
                                             std::string& problem) {
    std::vector<KernelRoute> found;
    for (const Family family : {Family::ipv4, Family::ipv6}) {
        const bool is_needed = std::ranges::any_of(
            prefixes, [family](const Prefix& prefix) { return prefix.address.family == family; });
        if (!is_needed) {
            continue;
        }
        std::vector<KernelRoute> of_family;
        const Answer answer = socket.list(
            family == Family::ipv4 ? Dump::routes4 : Dump::routes6, table,
            [&](const nlmsghdr& message) {
                auto route =
                    message.nlmsg_type == RTM_NEWROUTE ? read_route(message) : std::nullopt;
                if (route && route->protocol != own_protocol && route->table == table &&
                    prefixes.contains(route->prefix)) {
                    of_family.push_back(std::move(*route));
                }
            },
            [&] { of_family.clear(); });
        // A table that nothing was ever written into is not there.
        if (answer.error != 0 && answer.error != ENOENT) {
            problem = "routes of others: " + answer.reason;
        }
        std::ranges::move(of_family, std::back_inserter(found));
    }
    return found;
}

std::vector<std::pair<std::uint32_t, int>> count_buckets(RouteSocket& socket, std::uint32_t group) {
    std::map<std::uint32_t, int> counts;
    socket.list(
        Dump::buckets, group, [&](const nlmsghdr& message) { ++counts[read_bucket(message)]; },
        [&] { counts.clear(); });
    counts.erase(0);
    return {counts.begin(), counts.end()};
}

namespace {

/// A socket filter for announcements, which are one a datagram. It reads in network order. Gives 0,
/// or the error.
int filter_announcements(int socket, std::uint32_t own_port) {
    constexpr std::uint32_t type_at = offsetof(nlmsghdr, nlmsg_type);
    constexpr std::uint32_t port_at = offsetof(nlmsghdr, nlmsg_pid);
    constexpr std::array<std::uint16_t, 8> wanted{RTM_NEWLINK,    RTM_DELLINK,   RTM_NEWADDR,
                                                  RTM_DELADDR,    RTM_NEWROUTE,  RTM_DELROUTE,
                                                  RTM_NEWNEXTHOP, RTM_DELNEXTHOP};
    const auto instruction = [](std::uint32_t code, std::uint32_t value, std::size_t if_so,
                                std::size_t if_not) {
        return sock_filter{static_cast<std::uint16_t>(code), static_cast<std::uint8_t>(if_so),
                           static_cast<std::uint8_t>(if_not), value};
    };
    std::vector<sock_filter> program{
        instruction(BPF_LD | BPF_W | BPF_ABS, port_at, 0, 0),
        instruction(BPF_JMP | BPF_JEQ | BPF_K, htonl(own_port), wanted.size() + 1, 0),
        instruction(BPF_LD | BPF_H | BPF_ABS, type_at, 0, 0)};
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        program.push_back(
            instruction(BPF_JMP | BPF_JEQ | BPF_K, htons(wanted[i]), wanted.size() - i, 0));
    }
    program.push_back(instruction(BPF_RET | BPF_K, 0, 0, 0));
    program.push_back(instruction(BPF_RET | BPF_K, 0xffffffff, 0, 0));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return set_option(socket, SOL_SOCKET, SO_ATTACH_FILTER, filter);
}

}  // namespace

RouteMonitor RouteMonitor::open(std::uint32_t own_port, std::string& problem) {
    RouteMonitor made;
    made.socket_ = open_bound({RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR,
                               RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE, RTNLGRP_NEXTHOP},
                              SOCK_NONBLOCK, problem);
    const int error = problem.empty() ? filter_announcements(made.socket_.get(), own_port) : 0;
    if (error != 0) {
        problem = std::string("no filter for the announcements of the kernel: ") + strerror(error);
    }
    made.received_.resize(receive_size);
    return made;
}

void RouteMonitor::drain(const std::function<void(const nlmsghdr*)>& take_message) {
    while (true) {
        const long length = recv(socket_.get(), received_.data(), received_.size(), 0);
        if (length < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != ENOBUFS) {
                return;
            }
            take_message(nullptr);
            continue;
        }
        auto left = static_cast<int>(length);
        const auto* message = reinterpret_cast<const nlmsghdr*>(received_.data());
        for (; is_whole(message, left); message = mnl_nlmsg_next(message, &left)) {
            take_message(message);
        }
    }
}

}  // namespace lbroute

#include "host/connection_tracking.h"

#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <utility>

#include "base/address_text.h"
#include "host/linux/netlink.h"
#include "host/log.h"
#include "wire/frames.h"

namespace {

constexpr std::size_t largest_buffer = 8192;
constexpr std::uint32_t record_lifetime_s = 32;
constexpr std::uint16_t new_record_type = NFNL_SUBSYS_CTNETLINK << 8U | IPCTNL_MSG_CT_NEW;
// Request, acknowledge, replace, create: a record that exists already is renewed, not refused
// (B85).
constexpr std::uint16_t new_record_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE | NLM_F_CREATE;
static_assert(new_record_type == 0x0100 && new_record_flags == 0x0505);

constexpr const char* function_name = "create_conntrack_record";

struct DestroyRecord {
    void operator()(nf_conntrack* record) const { nfct_destroy(record); }
};
using Record = std::unique_ptr<nf_conntrack, DestroyRecord>;

bool open_handle(Netlink& handle) {
    if (handle) {
        return true;
    }
    handle.reset(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC));
    if (!handle) {
        plain_syslog(3, "<%s> mnl_socket_open: %s", function_name, strerror(errno));
        return false;
    }
    if (mnl_socket_bind(handle.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        plain_syslog(3, "<%s> mnl_socket_bind: %s", function_name, strerror(errno));
        handle.reset();
        return false;
    }
    return true;
}

void put_headers(nlmsghdr* message, bool ipv6, std::uint32_t sequence) {
    message->nlmsg_type = new_record_type;
    message->nlmsg_flags = new_record_flags;
    message->nlmsg_seq = sequence;
    auto* extra = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    extra->nfgen_family = static_cast<std::uint8_t>(ipv6 ? AF_INET6 : AF_INET);
    extra->version = NFNETLINK_V0;
    extra->res_id = 0;
}

bool set_ipv6_address(nf_conntrack* record, nf_conntrack_attr attribute,
                      const std::string& address) {
    const auto binary = parse_ipv6(address);
    if (!binary) {
        // B128: the message has the text of the conversion's result, 0, and not of an error.
        LOG_ERROR("inet_pton() failed.\nError message: %s", strerror(0));
        return false;
    }
    nfct_set_attr(record, attribute, binary->data());
    return true;
}

bool set_addresses(nf_conntrack* record, const std::string& source, const std::string& destination,
                   bool ipv6) {
    if (ipv6) {
        nfct_set_attr_u8(record, ATTR_ORIG_L3PROTO, AF_INET6);
        return set_ipv6_address(record, ATTR_ORIG_IPV6_SRC, source) &&
               set_ipv6_address(record, ATTR_ORIG_IPV6_DST, destination);
    }
    nfct_set_attr_u8(record, ATTR_ORIG_L3PROTO, AF_INET);
    nfct_set_attr_u32(record, ATTR_ORIG_IPV4_SRC,
                      std::bit_cast<std::uint32_t>(parse_ipv4_or_all_ones(source)));
    nfct_set_attr_u32(record, ATTR_ORIG_IPV4_DST,
                      std::bit_cast<std::uint32_t>(parse_ipv4_or_all_ones(destination)));
    return true;
}

void set_echo(nf_conntrack* record, bool ipv6, std::uint16_t identifier) {
    nfct_set_attr_u8(record, ATTR_ORIG_L4PROTO, ipv6 ? protocol_icmp6 : protocol_icmp);
    nfct_set_attr_u8(record, ATTR_ICMP_TYPE, ipv6 ? icmp6_echo_request : icmp_echo_request);
    nfct_set_attr_u8(record, ATTR_ICMP_CODE, 0);
    nfct_set_attr_u16(record, ATTR_ICMP_ID, htons(identifier));
    nfct_setobjopt(record, NFCT_SOPT_SETUP_REPLY);
    nfct_set_attr_u32(record, ATTR_TIMEOUT, record_lifetime_s);
}

/// Reads until the acknowledgement or an error. 0, or the error.
int read_answer(mnl_socket* handle, void* buffer, std::size_t size, unsigned sequence) {
    const unsigned port = mnl_socket_get_portid(handle);
    ssize_t last = mnl_socket_recvfrom(handle, buffer, size);
    while (last > 0) {
        last = mnl_cb_run(buffer, static_cast<std::size_t>(last), sequence, port, nullptr, nullptr);
        if (last > 0) {
            last = mnl_socket_recvfrom(handle, buffer, size);
        }
    }
    return last == -1 ? errno : 0;
}

bool exchange(mnl_socket* handle, const std::string& source, const std::string& destination,
              bool ipv6, std::uint16_t identifier) {
    alignas(nlmsghdr) std::array<char, largest_buffer> buffer{};
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
    put_headers(message, ipv6, static_cast<std::uint32_t>(time(nullptr)));

    const Record record(nfct_new());
    if (!record) {
        // B128: the text names the extra header, though the allocation failed.
        plain_syslog(3, "<%s> mnl_nlmsg_put_extra_header: %s", function_name, strerror(errno));
        return false;
    }
    if (!set_addresses(record.get(), source, destination, ipv6)) {
        return false;
    }
    set_echo(record.get(), ipv6, identifier);
    nfct_nlmsg_build(message, record.get());
    if (mnl_socket_sendto(handle, message, message->nlmsg_len) < 0) {
        plain_syslog(3, "<%s> mnl_socket_sendto: %s", function_name, strerror(errno));
        return false;
    }
    const unsigned sequence = message->nlmsg_seq;
    if (const int error =
            read_answer(handle, buffer.data(), std::min(page, buffer.size()), sequence);
        error != 0) {
        plain_syslog(3, "<%s> mnl_socket_recvfrom for ip version %d: %s", function_name,
                     ipv6 ? 6 : 4, strerror(error));
        return false;
    }
    return true;
}

/// Appends the request for one record; its end, or null without memory for the record.
char* put_request(char* at, const host::TrackedEcho& echo, std::uint16_t identifier,
                  std::uint32_t sequence) {
    const Record record(nfct_new());
    if (!record) {
        return nullptr;
    }
    nlmsghdr* message = mnl_nlmsg_put_header(at);
    put_headers(message, echo.is_ipv6, sequence);
    nfct_set_attr_u8(record.get(), ATTR_ORIG_L3PROTO, echo.is_ipv6 ? AF_INET6 : AF_INET);
    const auto source = echo.is_ipv6 ? ATTR_ORIG_IPV6_SRC : ATTR_ORIG_IPV4_SRC;
    const auto destination = echo.is_ipv6 ? ATTR_ORIG_IPV6_DST : ATTR_ORIG_IPV4_DST;
    nfct_set_attr(record.get(), source, echo.source.data());
    nfct_set_attr(record.get(), destination, echo.destination.data());
    set_echo(record.get(), echo.is_ipv6, identifier);
    nfct_nlmsg_build(message, record.get());
    return at + MNL_ALIGN(message->nlmsg_len);
}

/// An acknowledgement, or the head of a refusal: its request need not be read again.
struct Answer {
    nlmsghdr header;
    int error;
};

/// The largest request: two tuples of IPv6 addresses and what stands around them.
constexpr std::size_t request_size = 512;
constexpr std::size_t requests_at_once = 64;

/// Reads the answers that the kernel gave while it was asked, and notes which records are entered.
/// False where they are not all there, or not all good.
bool read_answers(int netlink, std::span<host::TrackedEcho> echoes, std::uint32_t first_sequence) {
    std::array<Answer, requests_at_once> answers{};
    std::array<iovec, requests_at_once> places;
    std::array<mmsghdr, requests_at_once> messages{};
    for (std::size_t i = 0; i < echoes.size(); ++i) {
        places[i] = {&answers[i], sizeof answers[i]};
        messages[i].msg_hdr.msg_iov = &places[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(netlink, messages.data(), static_cast<unsigned>(echoes.size()),
                               MSG_DONTWAIT, nullptr);
    std::size_t entered = 0;
    for (std::size_t i = 0; std::cmp_less(i, count); ++i) {
        const std::uint32_t number = answers[i].header.nlmsg_seq - first_sequence;
        const bool is_acknowledged = messages[i].msg_len >= sizeof(Answer) &&
                                     answers[i].header.nlmsg_type == NLMSG_ERROR &&
                                     answers[i].error == 0;
        if (is_acknowledged && number < echoes.size()) {
            echoes[number].is_entered = true;
            ++entered;
        }
    }
    return entered == echoes.size();
}

/// False where not every record was acknowledged.
bool exchange_many(mnl_socket* handle, std::span<host::TrackedEcho> echoes,
                   std::uint16_t identifier) {
    alignas(nlmsghdr) std::array<char, requests_at_once * request_size> buffer;
    const auto first_sequence = static_cast<std::uint32_t>(time(nullptr));
    char* end = buffer.data();
    std::uint32_t sequence = first_sequence;
    for (const host::TrackedEcho& echo : echoes) {
        end = put_request(end, echo, identifier, sequence++);
        if (end == nullptr) {
            return true;  // nothing was asked
        }
    }
    const auto size = static_cast<std::size_t>(end - buffer.data());
    return mnl_socket_sendto(handle, buffer.data(), size) >= 0 &&
           read_answers(mnl_socket_get_fd(handle), echoes, first_sequence);
}

}  // namespace

namespace host {

struct ConnectionTracking::Handle {
    Netlink netlink;
};

ConnectionTracking::ConnectionTracking() : handle_(std::make_unique<Handle>()) {}
ConnectionTracking::~ConnectionTracking() = default;
ConnectionTracking::ConnectionTracking(ConnectionTracking&&) noexcept = default;
ConnectionTracking& ConnectionTracking::operator=(ConnectionTracking&&) noexcept = default;

bool ConnectionTracking::enter_echo(const std::string& source, const std::string& destination,
                                    bool is_ipv6, std::uint16_t identifier) {
    Netlink& netlink = handle_->netlink;
    if (!open_handle(netlink)) {
        return false;
    }
    if (!exchange(netlink.get(), source, destination, is_ipv6, identifier)) {
        netlink.reset();  // the next call opens a fresh one
        return false;
    }
    return true;
}

void ConnectionTracking::enter_echoes(std::span<TrackedEcho> echoes, std::uint16_t identifier) {
    Netlink& netlink = handle_->netlink;
    while (!echoes.empty() && netlink) {
        const auto some = echoes.first(std::min(echoes.size(), requests_at_once));
        if (!exchange_many(netlink.get(), some, identifier)) {
            netlink.reset();  // answers may still wait in it
        }
        echoes = echoes.subspan(some.size());
    }
}

}  // namespace host

#include "host/conntrack_record.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "config/context.h"
#include "net/frames.h"
#include "platform/log.h"

namespace {

constexpr std::size_t largest_buffer = 8192;
constexpr std::uint32_t record_lifetime_s = 32;
constexpr std::uint16_t new_record_type = NFNL_SUBSYS_CTNETLINK << 8U | IPCTNL_MSG_CT_NEW;
// Request, acknowledge, replace, create: a record that exists already is renewed, not refused.
constexpr std::uint16_t new_record_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_REPLACE | NLM_F_CREATE;
static_assert(new_record_type == 0x0100 && new_record_flags == 0x0505);

constexpr const char* function_name = "create_conntrack_record";

struct CloseNetlink {
    void operator()(mnl_socket* handle) const { mnl_socket_close(handle); }
};
using Netlink = std::unique_ptr<mnl_socket, CloseNetlink>;

struct DestroyRecord {
    void operator()(nf_conntrack* record) const { nfct_destroy(record); }
};
using Record = std::unique_ptr<nf_conntrack, DestroyRecord>;

/// The worker's own handle: a worker is one namespace and one family, so no lock is needed and the
/// record lands where the probe runs.
Netlink& kept_handle() {
    thread_local Netlink handle;
    return handle;
}

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

bool set_ipv6_address(nf_conntrack* record, nf_conntrack_attr attribute,
                      const std::string& address) {
    in6_addr binary{};
    const int converted = inet_pton(AF_INET6, address.c_str(), &binary);
    if (converted != 1) {
        // The text of the conversion's result, not of errno: routers' operators know it so.
        LOG_ERROR("inet_pton() failed.\nError message: %s", strerror(converted));
        return false;
    }
    nfct_set_attr(record, attribute, &binary);
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
    nfct_set_attr_u32(record, ATTR_ORIG_IPV4_SRC, inet_addr(source.c_str()));
    nfct_set_attr_u32(record, ATTR_ORIG_IPV4_DST, inet_addr(destination.c_str()));
    return true;
}

void set_echo(nf_conntrack* record, bool ipv6) {
    const auto identifier = static_cast<std::uint16_t>(getpid());
    nfct_set_attr_u8(record, ATTR_ORIG_L4PROTO,
                     ipv6 ? std::uint8_t{IPPROTO_ICMPV6} : std::uint8_t{IPPROTO_ICMP});
    nfct_set_attr_u8(record, ATTR_ICMP_TYPE, ipv6 ? icmp6_echo_request : icmp_echo_request);
    nfct_set_attr_u8(record, ATTR_ICMP_CODE, 0);
    nfct_set_attr_u16(record, ATTR_ICMP_ID, htons(identifier));
    nfct_setobjopt(record, NFCT_SOPT_SETUP_REPLY);
    nfct_set_attr_u32(record, ATTR_TIMEOUT, record_lifetime_s);
}

/// Reads until the acknowledgement or an error; false with errno set on an error.
bool read_answer(mnl_socket* handle, void* buffer, std::size_t size, unsigned sequence) {
    const unsigned port = mnl_socket_get_portid(handle);
    ssize_t last = mnl_socket_recvfrom(handle, buffer, size);
    while (last > 0) {
        last = mnl_cb_run(buffer, static_cast<std::size_t>(last), sequence, port, nullptr, nullptr);
        if (last > 0) {
            last = mnl_socket_recvfrom(handle, buffer, size);
        }
    }
    return last != -1;
}

bool exchange(mnl_socket* handle, const std::string& source, const std::string& destination,
              bool ipv6) {
    alignas(nlmsghdr) std::array<char, largest_buffer> buffer{};
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    nlmsghdr* message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = new_record_type;
    message->nlmsg_flags = new_record_flags;
    message->nlmsg_seq = static_cast<std::uint32_t>(time(nullptr));
    auto* extra = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    extra->nfgen_family = static_cast<std::uint8_t>(ipv6 ? AF_INET6 : AF_INET);
    extra->version = NFNETLINK_V0;
    extra->res_id = 0;

    const Record record(nfct_new());
    if (!record) {
        // The text names another step; log filters on routers rely on it.
        plain_syslog(3, "<%s> mnl_nlmsg_put_extra_header: %s", function_name, strerror(errno));
        return false;
    }
    if (!set_addresses(record.get(), source, destination, ipv6)) {
        return false;
    }
    set_echo(record.get(), ipv6);
    nfct_nlmsg_build(message, record.get());
    if (mnl_socket_sendto(handle, message, message->nlmsg_len) < 0) {
        plain_syslog(3, "<%s> mnl_socket_sendto: %s", function_name, strerror(errno));
        return false;
    }
    const unsigned sequence = message->nlmsg_seq;
    if (!read_answer(handle, buffer.data(), std::min(page, buffer.size()), sequence)) {
        plain_syslog(3, "<%s> mnl_socket_recvfrom for ip version %d: %s", function_name,
                     ipv6 ? 6 : 4, strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

int create_conntrack_record(const std::string& source, const std::string& destination,
                            context* ctx) {
    Netlink& handle = kept_handle();
    if (!open_handle(handle)) {
        return -1;
    }
    if (!exchange(handle.get(), source, destination, ctx->ipv6)) {
        handle.reset();
        return -1;
    }
    return 0;
}

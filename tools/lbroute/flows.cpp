#include "lbroute/flows.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

namespace lbroute {

namespace {

constexpr std::size_t receive_size = 65536;
/// So small that the kernel's complaints about every message of a batch fit into a socket's buffer.
constexpr std::size_t batch_size = 16384;
constexpr std::size_t largest_message = 1024;
constexpr time_t longest_wait_s = 2;

struct DestroyEntry {
    void operator()(nf_conntrack* entry) const { nfct_destroy(entry); }
};
using Entry = std::unique_ptr<nf_conntrack, DestroyEntry>;

std::uint8_t protocol_family(Family family) {
    return family == Family::ipv4 ? AF_INET : AF_INET6;
}

/// The errors of a kernel that lacks connection tracking, or its netlink interface.
bool means_no_tracking(int error) {
    return error == EPROTONOSUPPORT || error == EAFNOSUPPORT || error == EOPNOTSUPP ||
           error == ENOENT || error == EINVAL;
}

FlowTable::Result failed(int error) {
    if (means_no_tracking(error)) {
        return {.deleted = 0, .problem = "", .is_tracking = false};
    }
    return {.deleted = 0,
            .problem = std::string("cannot delete connection-tracking entries: ") +
                       (error == EAGAIN ? "the kernel does not answer" : strerror(error)),
            .is_tracking = true};
}

nlmsghdr* put_header(char* buffer, std::uint16_t type, std::uint16_t flags, std::uint32_t sequence,
                     std::uint8_t family) {
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8U | type);
    message->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    message->nlmsg_seq = sequence;
    auto* extra = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    extra->nfgen_family = family;
    extra->version = NFNETLINK_V0;
    extra->res_id = 0;
    return message;
}

/// An address of an entry; none where the entry has none of the family.
std::optional<Address> address_of(const nf_conntrack* entry, Family family, nf_conntrack_attr ipv4,
                                  nf_conntrack_attr ipv6) {
    const auto* bytes = static_cast<const std::uint8_t*>(
        nfct_get_attr(entry, family == Family::ipv4 ? ipv4 : ipv6));
    if (bytes == nullptr) {
        return std::nullopt;
    }
    Address address{.family = family, .bytes = {}};
    std::copy_n(bytes, address.used_bytes().size(), address.bytes.begin());
    return address;
}

/// What a dump gathers: enough of each translated entry to name it again.
struct Search {
    std::span<const Address> addresses;
    Family family;
    std::vector<Entry> found;

    void look_at(const nf_conntrack* entry) {
        const auto source = address_of(entry, family, ATTR_ORIG_IPV4_SRC, ATTR_ORIG_IPV6_SRC);
        const auto answered = address_of(entry, family, ATTR_REPL_IPV4_DST, ATTR_REPL_IPV6_DST);
        if (!source || !answered || *source == *answered ||
            std::ranges::find(addresses, *answered) == addresses.end()) {
            return;
        }
        Entry name(nfct_new());
        if (!name) {
            return;
        }
        nfct_copy(name.get(), entry, NFCT_CP_ORIG);
        for (const auto attribute : {ATTR_ID, ATTR_ZONE, ATTR_ORIG_ZONE}) {
            if (nfct_attr_is_set(entry, attribute) > 0) {
                nfct_copy_attr(name.get(), entry, attribute);
            }
        }
        found.push_back(std::move(name));
    }
};

int on_entry(const nlmsghdr* message, void* data) {
    const Entry entry(nfct_new());
    if (entry && nfct_nlmsg_parse(message, entry.get()) == 0) {
        static_cast<Search*>(data)->look_at(entry.get());
    }
    return MNL_CB_OK;
}

/// Throws away what an exchange that failed has left unread: its answers would be taken for those
/// of the next one, and refused for their number.
void drain(const mnl_socket* socket, std::vector<char>& buffer) {
    while (recv(mnl_socket_get_fd(socket), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
}

/// Gives 0 or the error.
int dump(const mnl_socket* socket, std::uint32_t sequence, Search& search) {
    std::vector<char> buffer(receive_size);
    drain(socket, buffer);
    const nlmsghdr* request = put_header(buffer.data(), IPCTNL_MSG_CT_GET, NLM_F_DUMP, sequence,
                                         protocol_family(search.family));
    if (mnl_socket_sendto(socket, request, request->nlmsg_len) < 0) {
        return errno;
    }
    for (;;) {
        const ssize_t size = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (size < 0) {
            return errno;
        }
        const int state = mnl_cb_run(buffer.data(), static_cast<std::size_t>(size), sequence,
                                     mnl_socket_get_portid(socket), on_entry, &search);
        if (state == MNL_CB_ERROR) {
            return errno;
        }
        if (state == MNL_CB_STOP) {
            return 0;
        }
    }
}

/// A batch of deletions on its way to the kernel. Only the last one is acknowledged; of the others
/// the kernel tells those that fail.
class Batch {
  public:
    explicit Batch(const mnl_socket* socket) : socket_(socket), buffer_(batch_size) {}

    bool has_room() const { return used_ + largest_message <= buffer_.size(); }

    void add(const nf_conntrack* entry, std::uint8_t family, std::uint32_t sequence) {
        last_ = put_header(buffer_.data() + used_, IPCTNL_MSG_CT_DELETE, 0, sequence, family);
        nfct_nlmsg_build(last_, entry);
        // A new flow of the same addresses and ports has another identifier.
        mnl_attr_put_u32(last_, CTA_ID, htonl(nfct_get_attr_u32(entry, ATTR_ID)));
        used_ += MNL_ALIGN(last_->nlmsg_len);
        ++count_;
    }

    /// Sends the batch and empties it. Adds to `deleted`; gives 0 or the first error.
    int send(std::size_t& deleted) {
        last_->nlmsg_flags |= NLM_F_ACK;
        const std::uint32_t last_sequence = last_->nlmsg_seq;
        if (mnl_socket_sendto(socket_, buffer_.data(), used_) < 0) {
            return errno;
        }
        std::size_t failed = 0;
        const int error = read_answers(last_sequence, failed);
        deleted += count_ - std::min(failed, count_);
        used_ = 0;
        count_ = 0;
        return error;
    }

  private:
    int read_answers(std::uint32_t last_sequence, std::size_t& failed) {
        alignas(nlmsghdr) std::array<char, batch_size> answers{};
        int first_error = 0;
        for (;;) {
            const ssize_t received = mnl_socket_recvfrom(socket_, answers.data(), answers.size());
            if (received < 0) {
                return errno;
            }
            int left = static_cast<int>(received);
            const auto* answer = reinterpret_cast<const nlmsghdr*>(answers.data());
            for (; is_whole(answer, left); answer = mnl_nlmsg_next(answer, &left)) {
                if (answer->nlmsg_type != NLMSG_ERROR ||
                    mnl_nlmsg_get_payload_len(answer) < sizeof(nlmsgerr)) {
                    continue;
                }
                const int error =
                    -static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(answer))->error;
                failed += error == 0 ? 0 : 1;
                // Entries end by themselves all the time.
                const bool is_told = error != 0 && error != ENOENT;
                first_error = is_told && first_error == 0 ? error : first_error;
                if (answer->nlmsg_seq == last_sequence) {
                    return first_error;
                }
            }
        }
    }

    const mnl_socket* socket_;
    std::vector<char> buffer_;
    nlmsghdr* last_ = nullptr;
    std::size_t used_ = 0;
    std::size_t count_ = 0;
};

}  // namespace

FlowTable::FlowTable() : socket_(mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC)) {
    const bool is_open = socket_ && mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) == 0;
    if (!is_open) {
        open_error_ = errno;
        return;
    }
    const timeval limit{.tv_sec = longest_wait_s, .tv_usec = 0};
    setsockopt(mnl_socket_get_fd(socket_.get()), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

FlowTable::Result FlowTable::delete_translated(std::span<const Address> addresses) {
    if (open_error_ != 0) {
        return failed(open_error_);
    }
    Result all;
    for (const Family family : {Family::ipv4, Family::ipv6}) {
        const auto is_of_family = [family](const Address& a) { return a.family == family; };
        if (std::ranges::none_of(addresses, is_of_family)) {
            continue;
        }
        const Result result = delete_translated(addresses, family);
        all.deleted += result.deleted;
        all.is_tracking = all.is_tracking && result.is_tracking;
        all.problem = all.problem.empty() ? result.problem : all.problem;
    }
    return all;
}

FlowTable::Result FlowTable::delete_translated(std::span<const Address> addresses, Family family) {
    Search search{.addresses = addresses, .family = family, .found = {}};
    if (const int error = dump(socket_.get(), ++sequence_, search); error != 0) {
        return failed(error);
    }
    Result result;
    Batch batch(socket_.get());
    for (std::size_t i = 0; i < search.found.size(); ++i) {
        batch.add(search.found[i].get(), protocol_family(family), ++sequence_);
        if (batch.has_room() && i + 1 < search.found.size()) {
            continue;
        }
        if (const int error = batch.send(result.deleted); error != 0) {
            result.problem = failed(error).problem;
            return result;
        }
    }
    return result;
}

}  // namespace lbroute

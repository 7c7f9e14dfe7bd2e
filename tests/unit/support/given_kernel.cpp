#include "unit/support/given_kernel.h"

#include <linux/netlink.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <span>

#include "unit/support/faults.h"
#include "unit/support/hex.h"

namespace {

using Bytes = GivenKernel::Bytes;

GivenKernel* current = nullptr;

constexpr std::size_t align(std::size_t length) {
    return (length + NLA_ALIGNTO - 1) / NLA_ALIGNTO * NLA_ALIGNTO;
}

template <class Value>
Value value_at(const Bytes& bytes, std::size_t offset) {
    Value value{};
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

template <class Value>
void append(Bytes& to, const Value& value) {
    const auto* first = reinterpret_cast<const std::uint8_t*>(&value);
    to.insert(to.end(), first, first + sizeof value);
}

void read_attributes(const Bytes& bytes, std::size_t at, std::size_t end, const std::string& inside,
                     std::map<std::string, std::string>& found) {
    while (at + sizeof(nlattr) <= end) {
        const auto attribute = value_at<nlattr>(bytes, at);
        const std::size_t last = at + std::max<std::size_t>(attribute.nla_len, sizeof(nlattr));
        const std::string name = inside + std::to_string(attribute.nla_type & NLA_TYPE_MASK);
        if ((attribute.nla_type & NLA_F_NESTED) != 0) {
            read_attributes(bytes, at + sizeof(nlattr), last, name + ".", found);
        } else {
            const std::size_t first = at + sizeof(nlattr);
            found[name] = to_hex(std::span(bytes).subspan(first, std::min(last, end) - first));
        }
        at = align(last);
    }
}

}  // namespace

struct GivenKernel::Calls {
    static void take(Bytes request) {
        current->requests.push_back(std::move(request));
        current->on_request(current->requests.back());
    }

    static ssize_t give(void* data, std::size_t size) {
        if (current->answers.empty()) {
            errno = ENODATA;
            return -1;
        }
        const Bytes answer = current->answers.front();
        current->answers.pop_front();
        std::copy_n(answer.begin(), std::min(size, answer.size()),
                    static_cast<std::uint8_t*>(data));
        return static_cast<ssize_t>(std::min(size, answer.size()));
    }

    static ssize_t send(const mnl_socket* /*socket*/, const void* data, size_t size) {
        const auto* first = static_cast<const std::uint8_t*>(data);
        take({first, first + size});
        return static_cast<ssize_t>(size);
    }

    static ssize_t send_parts(int /*fd*/, const msghdr* message, int /*flags*/) {
        Bytes whole;
        for (std::size_t i = 0; i < message->msg_iovlen; ++i) {
            const auto* first = static_cast<const std::uint8_t*>(message->msg_iov[i].iov_base);
            whole.insert(whole.end(), first, first + message->msg_iov[i].iov_len);
        }
        // Only with an address of the family does the message reach the kernel.
        const auto* to = static_cast<const sockaddr_nl*>(message->msg_name);
        if (message->msg_namelen != sizeof *to || to->nl_family != AF_NETLINK || to->nl_pid != 0) {
            errno = EINVAL;
            return -1;
        }
        take(whole);
        return static_cast<ssize_t>(whole.size());
    }

    static ssize_t receive(const mnl_socket* /*socket*/, void* data, size_t size) {
        return give(data, size);
    }

    static int receive_many(int /*fd*/, mmsghdr* messages, unsigned count, int /*flags*/,
                            timespec* /*patience*/) {
        unsigned taken = 0;
        for (; taken < count && !current->answers.empty(); ++taken) {
            const iovec& place = *messages[taken].msg_hdr.msg_iov;
            messages[taken].msg_len = static_cast<unsigned>(give(place.iov_base, place.iov_len));
        }
        errno = EAGAIN;
        return taken > 0 ? static_cast<int>(taken) : -1;
    }

    static int control(int /*fd*/, unsigned long request, ...) {
        va_list arguments;
        va_start(arguments, request);
        void* const argument = va_arg(arguments, void*);
        va_end(arguments);
        errno = current->on_ioctl(request, argument);
        return errno == 0 ? 0 : -1;
    }
};

GivenKernel::GivenKernel() {
    static constexpr faults::StandIns calls{.ioctl = Calls::control,
                                            .mnl_socket_sendto = Calls::send,
                                            .mnl_socket_recvfrom = Calls::receive,
                                            .sendmsg = Calls::send_parts,
                                            .recvmmsg = Calls::receive_many};
    current = this;
    faults::set_stand_ins(calls);
}

GivenKernel::~GivenKernel() {
    faults::reset_stand_ins();
    current = nullptr;
}

std::vector<NetlinkRequest> messages_of(const Bytes& request, std::size_t header_size) {
    std::vector<NetlinkRequest> messages;
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= request.size();) {
        const auto header = value_at<nlmsghdr>(request, at);
        const std::size_t length = std::max<std::size_t>(header.nlmsg_len, sizeof header);
        const std::size_t end = std::min(at + length, request.size());
        const std::size_t attributes = std::min(at + sizeof header + align(header_size), end);
        NetlinkRequest& message = messages.emplace_back();
        message.type = header.nlmsg_type;
        message.flags = header.nlmsg_flags;
        message.sequence = header.nlmsg_seq;
        message.family_header.assign(
            request.begin() + static_cast<std::ptrdiff_t>(at + sizeof header),
            request.begin() + static_cast<std::ptrdiff_t>(attributes));
        read_attributes(request, attributes, end, "", message.attributes);
        at += align(length);
    }
    return messages;
}

Bytes netlink_message(std::uint16_t type, std::uint32_t sequence, const Bytes& body) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_seq = sequence;
    Bytes message;
    append(message, header);
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

Bytes netlink_answer(std::uint32_t sequence, int error) {
    Bytes body;
    append(body, -error);
    nlmsghdr asked{};  // the kernel repeats the header of the request
    asked.nlmsg_len = sizeof asked;
    asked.nlmsg_seq = sequence;
    append(body, asked);
    return netlink_message(NLMSG_ERROR, sequence, body);
}

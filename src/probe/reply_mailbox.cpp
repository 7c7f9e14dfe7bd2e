#include "probe/reply_mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <mutex>

#include "net/bytes.h"
#include "net/fd.h"
#include "net/frames.h"

namespace {

struct Slot {
    Fd wake;
    ExpectedEcho echo;
    bool is_awaited = false;
};

std::mutex slots_lock;
std::map<std::string, Slot> slots;  // guarded by slots_lock; one per waiting namespace

constexpr std::size_t icmp_offset = sizeof(Ipv4Header);

}  // namespace

bool ExpectedEcho::matches(std::span<const std::uint8_t> datagram) const {
    if (datagram.size() < icmp_offset + sizeof(IcmpEcho)) {
        return false;
    }
    const auto ip = read_at<Ipv4Header>(datagram, 0);
    const auto icmp = read_at<IcmpEcho>(datagram, icmp_offset);
    return std::memcmp(ip.source.data(), &source.s_addr, ip.source.size()) == 0 &&
           icmp.packet_id == packet_id && icmp.sequence == sequence;
}

ReplyMailbox::ReplyMailbox(const std::string& ns_name) : ns_name_(ns_name) {
    const std::lock_guard guard(slots_lock);
    slots[ns_name_].wake = Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

ReplyMailbox::~ReplyMailbox() {
    const std::lock_guard guard(slots_lock);
    slots.erase(ns_name_);
}

void ReplyMailbox::expect(const ExpectedEcho& echo) {
    const std::lock_guard guard(slots_lock);
    Slot& slot = slots[ns_name_];
    eventfd_t forgotten = 0;
    eventfd_read(slot.wake.get(), &forgotten);
    slot.echo = echo;
    slot.is_awaited = true;
}

int ReplyMailbox::wake() const {
    const std::lock_guard guard(slots_lock);
    return slots[ns_name_].wake.get();
}

void hand_to_waiting_ping(const std::string& ns_name, std::span<const std::uint8_t> datagram) {
    const std::lock_guard guard(slots_lock);
    const auto found = slots.find(ns_name);
    if (found == slots.end() || !found->second.is_awaited ||
        !found->second.echo.matches(datagram)) {
        return;
    }
    found->second.is_awaited = false;
    eventfd_write(found->second.wake.get(), 1);
}

#include "host/asked_addresses.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

void AskedAddresses::set(const std::string& address, const std::string& ifname) {
    const std::lock_guard guard(lock_);
    interfaces_[address] = ifname;
}

std::string AskedAddresses::find_or_enter(const std::string& address) {
    const std::lock_guard guard(lock_);
    return interfaces_[address];
}

std::size_t AskedAddresses::size() const {
    const std::lock_guard guard(lock_);
    return interfaces_.size();
}

DetachedStart start_receiver_once(NamespaceTable<bool>& started, const std::string& nsname,
                                  void* (*body)(void*), const AskedAddressesRef& asked) {
    if (started.get(nsname)) {
        return DetachedStart::started;
    }
    if (!asked->receiver.is_open()) {
        body(new AskedAddressesRef(asked));  // only says so
        return DetachedStart::started;
    }
    started.set(nsname, true);
    auto argument = std::make_unique<AskedAddressesRef>(asked);
    const DetachedStart start = start_detached(body, argument.get());
    if (start != DetachedStart::not_created) {
        argument.release();  // the thread's own from its start on
    }
    return start;
}

AskedAddressesRef take_asked_addresses(void* argument) {
    const std::unique_ptr<AskedAddressesRef> owner(static_cast<AskedAddressesRef*>(argument));
    return *owner;
}

ReceiverEnd receive_frames(int receiver,
                           bool (*handle)(std::span<const std::uint8_t> frame,
                                          AskedAddresses& asked),
                           AskedAddresses& asked) {
    constexpr std::size_t largest_frame = 65535;
    std::array<std::uint8_t, largest_frame> buffer;
    pollfd readable{.fd = receiver, .events = POLLIN, .revents = 0};
    while (true) {
        if (poll(&readable, 1, -1) <= 0 || (readable.revents & POLLNVAL) != 0) {
            return ReceiverEnd::wait_failed;
        }
        const ssize_t length = recv(receiver, buffer.data(), buffer.size(), 0);
        if (length < 0 && errno == EINTR) {
            continue;
        }
        if (length < 0) {
            return ReceiverEnd::receive_failed;
        }
        if (!handle({buffer.data(), static_cast<std::size_t>(length)}, asked)) {
            return ReceiverEnd::handler_ended;
        }
    }
}

#include "probe/next_hop.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <span>
#include <utility>

#include "host/log.h"

namespace {

/// A number that no socket of this process ever has.
constexpr int no_socket = 0;

}  // namespace

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

NextHopProber::~NextHopProber() {
    if (const int open_socket = family_.send_sock.exchange(nsname, no_socket);
        open_socket > no_socket) {
        host::close_socket(open_socket);
    }
    if (receiver_ >= 0) {
        host::close_socket(receiver_);
    }
}

bool NextHopProber::open(std::string ns_name) {
    nsname = std::move(ns_name);
    const host::OpenedSocket opened = host::open_frame_sender();
    family_.send_sock.set(nsname, opened.number);
    if (!opened.is_open()) {
        return false;
    }
    targets = std::make_shared<AskedAddresses>();
    family_.is_start_recv.set(nsname, false);
    return true;
}

void NextHopProber::set_data(const std::string& next_hop, const std::string& source_address,
                             const std::string& interface) {
    address = next_hop;
    source = source_address;
    ifname = interface;
    if (targets) {
        targets->set(address, ifname);
    }
}

void NextHopProber::prepare_receiver() {
    if (targets && !family_.is_start_recv.get(nsname) && receiver_ < 0) {
        receiver_ = family_.open_receiver().number;
    }
}

void NextHopProber::start_receiver() {
    if (!targets || family_.is_start_recv.get(nsname)) {
        return;
    }
    if (receiver_ < 0) {
        family_.log_no_receiver_socket();
        return;
    }
    family_.is_start_recv.set(nsname, true);
    auto argument =
        std::make_unique<NextHopReceiver>(NextHopReceiver{.targets = targets, .socket = receiver_});
    const DetachedStart start = host::start_receiver_thread(family_.receiver, argument.get());
    if (start == DetachedStart::not_created) {
        LOG_ERROR("Can't create new thread for %s recv", family_.log_name);
        return;
    }
    argument.release();  // the thread's own from its start on, with the socket in it
    receiver_ = -1;
    if (start == DetachedStart::not_detached) {
        LOG_ERROR("Can't detach thread for %s recv", family_.log_name);
    }
}

void receive_answers(const NextHopFamily& family, const NextHopReceiver& receiver,
                     void (*on_wait_failed)(), void (*on_receive_failed)()) {
    const auto read_one = [&family, receiver, on_receive_failed] {
        std::array<std::uint8_t, 128> frame;  // more than any answer that is looked at
        const host::Transfer taken = host::receive(receiver.socket, frame);
        if (taken.count >= 0) {
            return family.handle(std::span(frame).first(static_cast<std::size_t>(taken.count)),
                                 *receiver.targets);
        }
        if (taken.error == EINTR || taken.error == EAGAIN) {
            return true;
        }
        on_receive_failed();
        return false;
    };
    host::watch_receiver(receiver.socket,
                         {.on_readable = read_one, .on_wait_failed = on_wait_failed});
}

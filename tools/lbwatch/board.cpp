#include "lbwatch/board.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace lbwatch {

namespace {

constexpr std::size_t most_events = 500;

/// The watcher confirms every second; a slow disk may hold it up for some.
constexpr std::int64_t patience_ms = 30'000;

View unknown(View view) {
    view.daemon = DaemonState::unknown;
    for (auto& [key, uplink] : view.uplinks) {
        uplink.state = UplinkState::unknown;
        uplink.reason = "lbwatch is held up by its disk or its output";
    }
    return view;
}

}  // namespace

Board::Board()
    : view_(std::make_shared<const View>()), added_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

void Board::publish(View view, const Moment& now) {
    auto made = std::make_shared<const View>(std::move(view));
    const std::lock_guard guard(lock_);
    view_ = std::move(made);
    confirmed_boot_ms_ = now.boot_ms;
}

void Board::confirm(const Moment& now) {
    const std::lock_guard guard(lock_);
    confirmed_boot_ms_ = now.boot_ms;
}

void Board::add(const Event& event) {
    {
        const std::lock_guard guard(lock_);
        events_.push_back({.number = ++last_number_, .event = event});
        if (events_.size() > most_events) {
            events_.pop_front();
        }
    }
    eventfd_write(added_.get(), 1);
}

std::shared_ptr<const View> Board::view(const Moment& now) const {
    std::shared_ptr<const View> found;
    std::int64_t confirmed_boot_ms = 0;
    {
        const std::lock_guard guard(lock_);
        found = view_;
        confirmed_boot_ms = confirmed_boot_ms_;
    }
    const bool is_believed = now.boot_ms - confirmed_boot_ms <= patience_ms;
    return is_believed ? found : std::make_shared<const View>(unknown(*found));
}

std::vector<Board::Numbered> Board::events_after(std::uint64_t number) const {
    const std::lock_guard guard(lock_);
    std::vector<Numbered> found;
    for (const Numbered& one : events_) {
        if (one.number > number) {
            found.push_back(one);
        }
    }
    return found;
}

std::uint64_t Board::last_number() const {
    const std::lock_guard guard(lock_);
    return last_number_;
}

void Board::settle() const {
    eventfd_t count = 0;
    eventfd_read(added_.get(), &count);
}

}  // namespace lbwatch

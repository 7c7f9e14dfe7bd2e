#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "net/detached_thread.h"
#include "net/fd.h"
#include "net/namespace_table.h"

/// The addresses that were asked for and the interface each was asked on, shared by a worker and
/// its namespace's receiver thread, which keeps it alive. An unknown sender leaves an empty entry:
/// the table grows by every distinct address that answers.
class AskedAddresses {
  public:
    void set(const std::string& address, const std::string& ifname);
    /// The interface of an address; an unknown one is entered with none.
    std::string find_or_enter(const std::string& address);
    std::size_t size() const;

    /// The receiver thread's socket, opened by the worker before the first request leaves so that
    /// the first answer cannot be lost; closed where it could not be had. Handed over with the
    /// start of the thread.
    Fd receiver;

  private:
    mutable std::mutex lock_;
    std::map<std::string, std::string> interfaces_;  // guarded by lock_
};

using AskedAddressesRef = std::shared_ptr<AskedAddresses>;

/// Starts the namespace's receiver thread unless it was started before; a thread that ended is not
/// started again. The body's argument is an `AskedAddressesRef*`, which it takes over. While there
/// is no socket for it, the body is run here, where it says so and ends, and the next call, with
/// another try for the socket before it, may start the thread.
DetachedStart start_receiver_once(NamespaceTable<bool>& started, const std::string& nsname,
                                  void* (*body)(void*), const AskedAddressesRef& asked);

/// Takes the argument of a receiver thread over.
AskedAddressesRef take_asked_addresses(void* argument);

/// Why a receiver thread stopped reading.
enum class ReceiverEnd { wait_failed, receive_failed, handler_ended };

/// Reads frames for ever and hands each to `handle`, until that returns false or the socket fails.
ReceiverEnd receive_frames(int receiver,
                           bool (*handle)(std::span<const std::uint8_t> frame,
                                          AskedAddresses& asked),
                           AskedAddresses& asked);

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "base/namespace_table.h"
#include "host/packets.h"

/// The addresses that were asked for and the interface each was asked on, shared by a worker and
/// its namespace's receiver thread. An unknown sender leaves an empty entry: the table grows by
/// every distinct address that answers (B77). Guards itself.
class AskedAddresses {
  public:
    void set(const std::string& address, const std::string& ifname);
    /// The interface of an address; an unknown one is entered with none.
    std::string find_or_enter(const std::string& address);
    std::size_t size() const;

  private:
    mutable std::mutex lock_;
    std::map<std::string, std::string> interfaces_;  // guarded by lock_
};
using AskedAddressesRef = std::shared_ptr<AskedAddresses>;

/// What a receiver thread of next hops' answers starts with; the thread owns it.
struct NextHopReceiver {
    AskedAddressesRef targets;
    int socket = -1;  ///< negative where none could be had
};

/// All in which the two probers of next hops differ.
struct NextHopFamily {
    NamespaceTable<int>& send_sock;
    NamespaceTable<bool>& is_start_recv;
    host::OpenedSocket (*open_receiver)();
    ThreadBody receiver;  ///< its argument is a `NextHopReceiver*`
    /// Handles one received frame; false ends the receiver.
    bool (*handle)(std::span<const std::uint8_t> frame, AskedAddresses& targets);
    const char* log_name;
    void (*log_no_receiver_socket)();
};

/// What `LBArp` and `LBNeighbor` share: the namespace's send socket, the next hop in hand and the
/// receiver thread. One object per namespace worker; the worker alone calls it. Nothing here waits
/// for an answer (B74): the receiver thread writes answers into the kernel's table, where a later
/// query finds them.
class NextHopProber {
  public:
    NextHopProber(const NextHopProber&) = delete;
    NextHopProber& operator=(const NextHopProber&) = delete;

    /// What the next calls are about: next hop, source of the request, interface to ask on.
    void set_data(const std::string& next_hop, const std::string& source_address,
                  const std::string& interface);

    std::string address;
    std::string source;
    std::string ifname;
    std::string nsname;
    AskedAddressesRef targets;  ///< null until a successful init

  protected:
    explicit NextHopProber(const NextHopFamily& family) : family_(family) {}
    /// Closes the send socket; the receiver thread goes on.
    ~NextHopProber();

    /// Opens the namespace's send socket; the calling thread is in that namespace. False where none
    /// can be had: the table then holds -1.
    bool open(std::string ns_name);
    /// Opens the receiver's socket before the first request leaves, so that the first answer cannot
    /// be lost.
    void prepare_receiver();
    /// Starts the namespace's receiver thread, once in the life of the process: one that ended is
    /// not started again (B84). Where it has no socket, the next call tries again. Logs what fails.
    void start_receiver();

    const NextHopFamily& family_;

  private:
    int receiver_ = -1;  // opened, and not yet handed to the thread
};

/// Runs a receiver's body on what it was started with: hands frames to the family's `handle` until
/// that returns false or the socket fails, which the two functions tell.
void receive_answers(const NextHopFamily& family, const NextHopReceiver& receiver,
                     void (*on_wait_failed)(), void (*on_receive_failed)());

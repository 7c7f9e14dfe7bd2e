#pragma once

#include <ifaddrs.h>
#include <libmnl/libmnl.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>

/// Failures on demand for the system calls and library functions that the daemon makes.
///
///     const faults::FailCall no_socket(faults::Call::socket, EMFILE);
///     const faults::FailCall third_lost(faults::Call::sendto, ENETUNREACH, 3);
///
/// The linker sends the calls of this executable's own objects (the daemon's library, the tests,
/// GoogleTest) to a wrapper, which fails or passes on; calls inside shared libraries (std::thread
/// and file streams too) are not seen. A failing call returns what its manual page says (-1, null,
/// 0 or, for the pthread functions, the error itself) and sets errno; it has no effect. Any thread
/// may call. While mutexes fail nothing may be asserted: GoogleTest takes mutexes.
namespace faults {

/// Functions of a test that are called instead of the real ones; null keeps the real one. A fault
/// of the same call goes first.
struct StandIns {
    FILE* (*popen)(const char* command, const char* mode) = nullptr;
    int (*kill)(pid_t process, int signal) = nullptr;
    int (*ioctl)(int fd, unsigned long request, ...) = nullptr;
    int (*open)(const char* path, int flags, ...) = nullptr;
    ssize_t (*mnl_socket_sendto)(const mnl_socket* socket, const void* data, size_t size) = nullptr;
    ssize_t (*mnl_socket_recvfrom)(const mnl_socket* socket, void* data, size_t size) = nullptr;
    ssize_t (*sendto)(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                      socklen_t length) = nullptr;
    ssize_t (*sendmsg)(int fd, const msghdr* message, int flags) = nullptr;
    int (*sendmmsg)(int fd, mmsghdr* messages, unsigned count, int flags) = nullptr;
    ssize_t (*recv)(int fd, void* data, size_t size, int flags) = nullptr;
    int (*recvmmsg)(int fd, mmsghdr* messages, unsigned count, int flags,
                    timespec* patience) = nullptr;
};
/// Takes effect for every thread, until the next call. `stand_ins` must live that long.
void set_stand_ins(const StandIns& stand_ins);
/// All real again.
void reset_stand_ins();

/// What stands behind the wrappers, for stand-ins that pass calls on.
int real_open(const char* path, int flags, mode_t mode);
ssize_t real_recv(int fd, void* data, size_t size, int flags);
FILE* real_popen(const char* command, const char* mode);

enum class Call : std::size_t {
    socket,
    ioctl,
    sendto,
    recv,
    recvfrom,
    poll,
    bind,
    setsockopt,
    getifaddrs,
    pthread_create,
    pthread_detach,
    pthread_mutex_init,
    pthread_mutex_destroy,
    pthread_mutex_lock,
    pthread_mutex_unlock,
    popen,
    kill,
    fopen,
    fwrite,
    mkdir,
    mnl_socket_open,
    mnl_socket_bind,
    mnl_socket_sendto,
    mnl_socket_recvfrom,
    nfct_new,
    inet_ntop,
    sendmsg,
    sendmmsg,
    recvmsg,
    recvmmsg,
    setns,
    open,
    if_nametoindex,
    fork,
    accept4,
    count  ///< not a call: how many there are
};

inline constexpr int every_call = 0;

/// While it lives, the `number`-th call from now on (1 is the next one; or every one) fails with
/// `error`. One at a time for each function.
class FailCall {
  public:
    FailCall(Call call, int error, int number = every_call);
    ~FailCall();
    FailCall(const FailCall&) = delete;
    FailCall& operator=(const FailCall&) = delete;

    /// How many calls were made since, failed or not.
    int calls() const;

  private:
    Call call_;
};

/// While it lives, getifaddrs(3) gives this list, which stays the caller's. One at a time.
class GivenAddresses {
  public:
    explicit GivenAddresses(ifaddrs* list);
    ~GivenAddresses();
    GivenAddresses(const GivenAddresses&) = delete;
    GivenAddresses& operator=(const GivenAddresses&) = delete;
};

}  // namespace faults

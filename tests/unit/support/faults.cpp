#include "unit/support/faults.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <type_traits>

namespace {

using faults::Call;
using faults::StandIns;

/// No lock guards these: locks are among the calls that fail.
struct Fault {
    static constexpr int none = -1;
    std::atomic<int> number{none};
    std::atomic<int> error{0};
    std::atomic<int> calls{0};

    bool strikes() {
        const int struck = number;
        if (struck == none) {
            return false;
        }
        const int made = ++calls;
        return struck == faults::every_call || struck == made;
    }
};

std::array<Fault, static_cast<std::size_t>(Call::count)> all_faults;
std::atomic<ifaddrs*> given_addresses{nullptr};

Fault& fault_of(Call call) {
    return all_faults[static_cast<std::size_t>(call)];
}

constexpr faults::StandIns all_real;
std::atomic<const faults::StandIns*> stand_ins{&all_real};

/// Who answers a call: the test's function where there is one.
template <class Function>
Function* answering(Function* faults::StandIns::*stand_in, std::type_identity_t<Function>* real) {
    Function* const given = stand_ins.load()->*stand_in;
    return given == nullptr ? real : given;
}

/// How a function says that it failed. All but the last set errno as well.
enum class Failure { minus_one, nothing, error_number };

template <Call call, Failure failure = Failure::minus_one, class Real, class... Arguments>
auto through(Real real, Arguments... arguments) {
    using Result = decltype(real(arguments...));
    Fault& fault = fault_of(call);
    if (!fault.strikes()) {
        return real(arguments...);
    }
    const int error = fault.error;
    if constexpr (failure == Failure::error_number) {
        return Result{error};
    } else {
        errno = error;
        if constexpr (failure == Failure::nothing) {
            return Result{};  // a null pointer, no items, index 0
        } else {
            return Result{-1};
        }
    }
}

}  // namespace

namespace faults {

FailCall::FailCall(Call call, int error, int number) : call_(call) {
    Fault& fault = fault_of(call_);
    fault.error = error;
    fault.calls = 0;
    fault.number = number;
}

FailCall::~FailCall() {
    fault_of(call_).number = Fault::none;
}

int FailCall::calls() const {
    return fault_of(call_).calls;
}

GivenAddresses::GivenAddresses(ifaddrs* list) {
    given_addresses = list;
}

GivenAddresses::~GivenAddresses() {
    given_addresses = nullptr;
}

}  // namespace faults

// The table: one wrapper for each function. `--wrap=NAME` turns calls of NAME into calls of
// __wrap_NAME and gives the original the name __real_NAME; tests/CMakeLists.txt lists the names.
// The names with _chk and _2 are what hardened builds call instead where the compiler knows the
// size of a buffer.
extern "C" {

decltype(socket) __real_socket;
int __wrap_socket(int domain, int type, int protocol) {
    return through<Call::socket>(__real_socket, domain, type, protocol);
}

decltype(ioctl) __real_ioctl;
int __wrap_ioctl(int fd, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return through<Call::ioctl>(answering(&StandIns::ioctl, __real_ioctl), fd, request, argument);
}

decltype(sendto) __real_sendto;
ssize_t __wrap_sendto(int fd, const void* data, size_t size, int flags, const sockaddr* to,
                      socklen_t length) {
    return through<Call::sendto>(answering(&StandIns::sendto, __real_sendto), fd, data, size, flags,
                                 to, length);
}

decltype(recv) __real_recv;
ssize_t __wrap_recv(int fd, void* data, size_t size, int flags) {
    return through<Call::recv>(answering(&StandIns::recv, __real_recv), fd, data, size, flags);
}

ssize_t __real___recv_chk(int, void*, size_t, size_t, int);
ssize_t __wrap___recv_chk(int fd, void* data, size_t size, size_t room, int flags) {
    if (stand_ins.load()->recv != nullptr) {
        return __wrap_recv(fd, data, size, flags);
    }
    return through<Call::recv>(__real___recv_chk, fd, data, size, room, flags);
}

decltype(recvfrom) __real_recvfrom;
ssize_t __wrap_recvfrom(int fd, void* data, size_t size, int flags, sockaddr* from,
                        socklen_t* length) {
    return through<Call::recvfrom>(__real_recvfrom, fd, data, size, flags, from, length);
}

ssize_t __real___recvfrom_chk(int, void*, size_t, size_t, int, sockaddr*, socklen_t*);
ssize_t __wrap___recvfrom_chk(int fd, void* data, size_t size, size_t room, int flags,
                              sockaddr* from, socklen_t* length) {
    return through<Call::recvfrom>(__real___recvfrom_chk, fd, data, size, room, flags, from,
                                   length);
}

decltype(poll) __real_poll;
int __wrap_poll(pollfd* waited, nfds_t count, int timeout_ms) {
    return through<Call::poll>(__real_poll, waited, count, timeout_ms);
}

int __real___poll_chk(pollfd*, nfds_t, int, size_t);
int __wrap___poll_chk(pollfd* waited, nfds_t count, int timeout_ms, size_t room) {
    return through<Call::poll>(__real___poll_chk, waited, count, timeout_ms, room);
}

decltype(bind) __real_bind;
int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    return through<Call::bind>(__real_bind, fd, address, length);
}

decltype(setsockopt) __real_setsockopt;
int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    return through<Call::setsockopt>(__real_setsockopt, fd, level, option, value, length);
}

decltype(getifaddrs) __real_getifaddrs;
int __wrap_getifaddrs(ifaddrs** list) {
    if (given_addresses != nullptr) {
        *list = given_addresses;
        return 0;
    }
    return through<Call::getifaddrs>(__real_getifaddrs, list);
}

decltype(freeifaddrs) __real_freeifaddrs;
void __wrap_freeifaddrs(ifaddrs* list) {
    if (list != given_addresses) {
        __real_freeifaddrs(list);
    }
}

decltype(pthread_create) __real_pthread_create;
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    return through<Call::pthread_create, Failure::error_number>(__real_pthread_create, thread,
                                                                attributes, body, argument);
}

decltype(pthread_detach) __real_pthread_detach;
int __wrap_pthread_detach(pthread_t thread) {
    return through<Call::pthread_detach, Failure::error_number>(__real_pthread_detach, thread);
}

decltype(pthread_mutex_init) __real_pthread_mutex_init;
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return through<Call::pthread_mutex_init, Failure::error_number>(__real_pthread_mutex_init,
                                                                    mutex, attributes);
}

decltype(pthread_mutex_destroy) __real_pthread_mutex_destroy;
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    return through<Call::pthread_mutex_destroy, Failure::error_number>(__real_pthread_mutex_destroy,
                                                                       mutex);
}

decltype(pthread_mutex_lock) __real_pthread_mutex_lock;
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return through<Call::pthread_mutex_lock, Failure::error_number>(__real_pthread_mutex_lock,
                                                                    mutex);
}

decltype(pthread_mutex_unlock) __real_pthread_mutex_unlock;
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return through<Call::pthread_mutex_unlock, Failure::error_number>(__real_pthread_mutex_unlock,
                                                                      mutex);
}

decltype(popen) __real_popen;
FILE* __wrap_popen(const char* command, const char* mode) {
    return through<Call::popen, Failure::nothing>(answering(&StandIns::popen, __real_popen),
                                                  command, mode);
}

decltype(kill) __real_kill;
int __wrap_kill(pid_t process, int signal) {
    return through<Call::kill>(answering(&StandIns::kill, __real_kill), process, signal);
}

decltype(fopen) __real_fopen;
FILE* __wrap_fopen(const char* path, const char* mode) {
    return through<Call::fopen, Failure::nothing>(__real_fopen, path, mode);
}

decltype(fwrite) __real_fwrite;
size_t __wrap_fwrite(const void* data, size_t size, size_t count, FILE* file) {
    return through<Call::fwrite, Failure::nothing>(__real_fwrite, data, size, count, file);
}

decltype(mkdir) __real_mkdir;
int __wrap_mkdir(const char* path, mode_t mode) {
    return through<Call::mkdir>(__real_mkdir, path, mode);
}

decltype(mnl_socket_open2) __real_mnl_socket_open2;
mnl_socket* __wrap_mnl_socket_open2(int bus, int flags) {
    return through<Call::mnl_socket_open, Failure::nothing>(__real_mnl_socket_open2, bus, flags);
}

decltype(mnl_socket_bind) __real_mnl_socket_bind;
int __wrap_mnl_socket_bind(mnl_socket* socket, unsigned groups, pid_t port) {
    return through<Call::mnl_socket_bind>(__real_mnl_socket_bind, socket, groups, port);
}

decltype(mnl_socket_sendto) __real_mnl_socket_sendto;
ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* data, size_t size) {
    return through<Call::mnl_socket_sendto>(
        answering(&StandIns::mnl_socket_sendto, __real_mnl_socket_sendto), socket, data, size);
}

decltype(mnl_socket_recvfrom) __real_mnl_socket_recvfrom;
ssize_t __wrap_mnl_socket_recvfrom(const mnl_socket* socket, void* data, size_t size) {
    return through<Call::mnl_socket_recvfrom>(
        answering(&StandIns::mnl_socket_recvfrom, __real_mnl_socket_recvfrom), socket, data, size);
}

decltype(nfct_new) __real_nfct_new;
nf_conntrack* __wrap_nfct_new() {
    return through<Call::nfct_new, Failure::nothing>(__real_nfct_new);
}

decltype(inet_ntop) __real_inet_ntop;
const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t room) {
    return through<Call::inet_ntop, Failure::nothing>(__real_inet_ntop, family, address, text,
                                                      room);
}

decltype(sendmsg) __real_sendmsg;
ssize_t __wrap_sendmsg(int fd, const msghdr* message, int flags) {
    return through<Call::sendmsg>(answering(&StandIns::sendmsg, __real_sendmsg), fd, message,
                                  flags);
}

decltype(recvmsg) __real_recvmsg;
ssize_t __wrap_recvmsg(int fd, msghdr* message, int flags) {
    return through<Call::recvmsg>(__real_recvmsg, fd, message, flags);
}

decltype(sendmmsg) __real_sendmmsg;
int __wrap_sendmmsg(int fd, mmsghdr* messages, unsigned count, int flags) {
    return through<Call::sendmmsg>(answering(&StandIns::sendmmsg, __real_sendmmsg), fd, messages,
                                   count, flags);
}

decltype(recvmmsg) __real_recvmmsg;
int __wrap_recvmmsg(int fd, mmsghdr* messages, unsigned count, int flags, timespec* patience) {
    return through<Call::recvmmsg>(answering(&StandIns::recvmmsg, __real_recvmmsg), fd, messages,
                                   count, flags, patience);
}

decltype(setns) __real_setns;
int __wrap_setns(int fd, int type) {
    return through<Call::setns>(__real_setns, fd, type);
}

decltype(open) __real_open;
int __wrap_open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return through<Call::open>(answering(&StandIns::open, __real_open), path, flags, mode);
}

int __real___open_2(const char*, int);
int __wrap___open_2(const char* path, int flags) {
    return through<Call::open>(__real___open_2, path, flags);
}

decltype(accept4) __real_accept4;
int __wrap_accept4(int fd, sockaddr* from, socklen_t* length, int flags) {
    return through<Call::accept4, Failure::minus_one>(__real_accept4, fd, from, length, flags);
}

decltype(if_nametoindex) __real_if_nametoindex;
unsigned __wrap_if_nametoindex(const char* name) {
    return through<Call::if_nametoindex, Failure::nothing>(__real_if_nametoindex, name);
}

decltype(fork) __real_fork;
pid_t __wrap_fork() {
    return through<Call::fork>(__real_fork);
}

}  // extern "C"

namespace faults {

void set_stand_ins(const StandIns& given) {
    stand_ins = &given;
}

void reset_stand_ins() {
    stand_ins = &all_real;
}

int real_open(const char* path, int flags, mode_t mode) {
    return __real_open(path, flags, mode);
}

ssize_t real_recv(int fd, void* data, size_t size, int flags) {
    return __real_recv(fd, data, size, flags);
}

FILE* real_popen(const char* command, const char* mode) {
    return __real_popen(command, mode);
}

}  // namespace faults

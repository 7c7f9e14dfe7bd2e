/// Preloaded into the guest kernel's process: lets user-mode Linux 6.1 run on processors whose
/// register file is larger than the one it knows.
///
/// The guest restores the registers of its processes with `PTRACE_SETREGSET` and a save area of
/// 2696 bytes, which ends with AVX-512 and the protection keys. A host with larger components (AMX
/// tiles) takes only whole save areas and answers EFAULT, on which the guest panics. Here such a
/// request is made again with the area completed from what the host holds for that process: the
/// guest never runs anything that uses the missing components.
///
/// Interface: ptrace(2), NT_X86_XSTATE. Called by the guest kernel's only thread.

#include <dlfcn.h>
#include <elf.h>
#include <sys/ptrace.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>

namespace {

using Ptrace = long (*)(int, ...);

constexpr std::size_t largest_save_area = 64 * 1024;

long set_whole_area(Ptrace next, pid_t pid, void* regset, const iovec& known) {
    static std::array<char, largest_save_area> area;
    iovec whole{area.data(), area.size()};
    if (next(PTRACE_GETREGSET, pid, regset, &whole) != 0) {
        return -1;
    }
    std::memcpy(area.data(), known.iov_base, std::min(known.iov_len, whole.iov_len));
    return next(PTRACE_SETREGSET, pid, regset, &whole);
}

}  // namespace

// The type of the first parameter is the C library's; clang warns of it before `...`.
#pragma GCC diagnostic ignored "-Wvarargs"
extern "C" long ptrace(__ptrace_request request, ...) noexcept {
    static const auto next = reinterpret_cast<Ptrace>(dlsym(RTLD_NEXT, "ptrace"));
    va_list arguments;
    va_start(arguments, request);
    const pid_t pid = va_arg(arguments, pid_t);
    void* const address = va_arg(arguments, void*);
    void* const data = va_arg(arguments, void*);
    va_end(arguments);

    const long result = next(request, pid, address, data);
    const bool refused_area = request == PTRACE_SETREGSET && result != 0 && errno == EFAULT &&
                              reinterpret_cast<std::uintptr_t>(address) == NT_X86_XSTATE;
    return refused_area ? set_whole_area(next, pid, address, *static_cast<const iovec*>(data))
                        : result;
}

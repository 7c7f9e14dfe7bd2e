"""System calls that fail in a program that runs: strace(1) attached for as long as the errors last.

What a program calls is taken from a trace of it; the tables here tell only which errors are plausible for a call, and
which calls are left alone, with the reason.
"""
import os
import re
import signal
import subprocess

from .expect import expect

# In which calls of a thread the error comes, as strace counts them from its attaching.
OCCASIONS = {"once": "1", "each": "1+", "third": "2+3"}

_MEMORY = "without memory the C++ library ends the program, and the service manager starts it anew"
_NO_ERROR = "never fails with the arguments of these programs"
_ENDING = "does not return, or returns nothing"
EXCLUDED = {
    **dict.fromkeys(("mmap", "munmap", "mprotect", "brk", "mremap", "madvise"), _MEMORY),
    **dict.fromkeys(("exit", "exit_group", "rt_sigreturn", "restart_syscall"), _ENDING),
    **dict.fromkeys(("getpid", "getppid", "gettid", "getuid", "geteuid", "getgid", "getegid", "getpgrp", "umask",
                     "rt_sigprocmask", "rt_sigaction", "sched_yield", "set_tid_address", "sysinfo", "uname",
                     "arch_prctl", "set_robust_list", "rseq", "alarm", "prlimit64", "getrandom", "sigaltstack"),
                    _NO_ERROR),
    "close": "the kernel closes also where it tells an error; an injected one would keep the descriptor open",
    "futex": "the C library ends the program where a lock fails",
    "execve": "the program that is called is not there then: routing_daemon_faults, pid_files",
}

# What the manual page of a call names, and can happen to a call of good arguments.
ERRORS = {
    **dict.fromkeys(("sendto", "sendmsg", "sendmmsg"), ("ENOBUFS", "ENETDOWN", "EPERM")),
    **dict.fromkeys(("recvfrom", "recvmsg", "recvmmsg"), ("EINTR", "ENOBUFS", "ENETDOWN")),
    **dict.fromkeys(("open", "openat", "creat"), ("EMFILE", "ENOSPC", "EACCES")),
    **dict.fromkeys(("read", "pread64", "readv"), ("EINTR", "EIO")),
    **dict.fromkeys(("write", "pwrite64", "writev"), ("ENOSPC", "EIO", "EINTR")),
    **dict.fromkeys(("fsync", "fdatasync", "ftruncate"), ("EIO", "ENOSPC")),
    **dict.fromkeys(("poll", "ppoll", "select", "pselect6", "epoll_wait", "epoll_pwait"), ("EINTR", "ENOMEM")),
    **dict.fromkeys(("nanosleep", "clock_nanosleep"), ("EINTR",)),
    **dict.fromkeys(("socket", "socketpair", "pipe2", "accept", "accept4"), ("EMFILE", "ENOBUFS")),
    **dict.fromkeys(("clone", "clone3", "fork", "vfork"), ("EAGAIN", "ENOMEM")),
    **dict.fromkeys(("wait4", "waitid"), ("EINTR", "ECHILD")),
    **dict.fromkeys(("stat", "lstat", "newfstatat", "statx", "access", "faccessat", "faccessat2"),
                    ("EACCES", "ENOENT")),
    **dict.fromkeys(("fstat", "lseek", "getdents64"), ("EIO",)),
    **dict.fromkeys(("unlink", "unlinkat", "rename", "renameat", "mkdir", "mkdirat", "rmdir"), ("EACCES", "EROFS")),
    **dict.fromkeys(("connect", "bind"), ("EADDRINUSE", "EPERM", "ENOENT")),
    "kill": ("EPERM", "ESRCH"),
    "ioctl": ("ENODEV", "EPERM"),
    "fcntl": ("EINTR", "ENOLCK"),
    "flock": ("EINTR", "EWOULDBLOCK"),
    "inotify_add_watch": ("ENOSPC", "ENOENT"),
    "pidfd_open": ("EMFILE", "ESRCH"),
    "setns": ("EPERM", "ENOMEM"),
}
# Of a call that is not in the table.
USUAL = ("EPERM", "ENOMEM")


def errors_of(call):
    return ERRORS.get(call, USUAL)


def _threads(pid):
    try:
        return os.listdir(f"/proc/{pid}/task")
    except FileNotFoundError:
        return []


def _tracers(pid):
    tracers = []
    for thread in _threads(pid):
        try:
            with open(f"/proc/{pid}/task/{thread}/status", encoding="ascii") as file:
                tracers.append(int(re.search(r"^TracerPid:\s*(\d+)", file.read(), re.MULTILINE).group(1)))
        except (FileNotFoundError, ProcessLookupError):  # a thread that has just ended
            pass
    return tracers


class Strace:
    """strace(1) at all threads of a process and at the children that it makes; begins at once, ends with end()."""

    def __init__(self, pid, log, *words):
        self._pid, self._log = pid, log
        with open(log + ".err", "wb") as err:
            self._process = subprocess.Popen(["strace", "-f", "-q", "-e", "signal=none", "-o", log, *words,
                                              "-p", str(pid)], stdin=subprocess.DEVNULL, stderr=err)
        expect(lambda: all(_tracers(pid)) or self._process.poll() is not None, what="strace is attached")
        self._fail_if_ended()

    def _fail_if_ended(self):
        """It has refused its arguments, or let go of a process that is still there: nothing failed then."""
        if self._process.poll() is not None and _threads(self._pid):
            with open(self._log + ".err", encoding="utf-8", errors="replace") as file:
                raise AssertionError(f"strace ended with {self._process.returncode}: {file.read()}")

    def end(self):
        """Lets go of the process; the trace's lines."""
        self._fail_if_ended()
        if self._process.poll() is None:
            self._process.send_signal(signal.SIGINT)
        try:
            self._process.wait(3)
        except subprocess.TimeoutExpired:  # it waits for a thread that cannot stop now; the kernel lets go of all
            self._process.kill()
            self._process.wait()
        expect(lambda: self._process.pid not in _tracers(self._pid), what="strace has let go")
        with open(self._log, encoding="utf-8", errors="replace") as file:
            return file.read().split("\n")


def trace(pid, log):
    return Strace(pid, log)


def calls_of(lines):
    """The system calls of a trace."""
    found = (re.match(r"(?:\d+ +)?(?:<\.\.\. )?(\w+)(?:\(| resumed)", line) for line in lines)
    return {one.group(1) for one in found if one}


def inject(pid, log, call, error, occasion):
    return Strace(pid, log, "-e", f"trace={call}", "-e", f"inject={call}:error={error}:when={OCCASIONS[occasion]}")


def count_injected(lines):
    return sum("(INJECTED)" in line for line in lines)

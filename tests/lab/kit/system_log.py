"""The captured system log: a socket at /dev/log that keeps every line."""
import contextlib
import dataclasses
import os
import re
import socket
import struct
import threading
import time

PATH = "/dev/log"
ERROR, WARNING, INFO, DEBUG = 3, 4, 6, 7
_LINE = re.compile(r"<(\d+)>(?:\w{3} [ \d]\d [\d:]{8} )?([^\[:]+)(?:\[(\d+)\])?: (.*)", re.DOTALL)
_CREDENTIALS = struct.Struct("3i")
_MARKER = b"\1marker"  # no log line: lines() sends it behind what has arrived


@dataclasses.dataclass(frozen=True)
class Line:
    time_s: float  # monotonic clock
    facility: int
    severity: int
    identity: str
    pid: int  # the sender by the kernel's word
    text: str


class SystemLog:
    """Collects what is logged from its construction to close(), except between stop() and start()."""

    def __init__(self):
        self._lines = []
        self._lock = threading.Lock()
        self._marked = threading.Semaphore(0)
        self._socket = None
        self.start()

    def start(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(PATH)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        self._socket.bind(PATH)
        self._thread = threading.Thread(target=self._collect, name="system log", daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            data, ancillary, _, _ = self._socket.recvmsg(65536, 256)
            if not data:
                return
            if data == _MARKER:
                self._marked.release()
                continue
            pid = next((_CREDENTIALS.unpack(value[:_CREDENTIALS.size])[0]
                        for _, kind, value in ancillary if kind == socket.SCM_CREDENTIALS), 0)
            self._keep(data.rstrip(b"\0\n").decode(errors="replace"), pid)

    def _keep(self, text, pid):
        match = _LINE.fullmatch(text)
        priority, identity, _, words = match.groups() if match else (0, "", None, text)
        line = Line(time.monotonic(), int(priority) >> 3, int(priority) & 7, identity, pid, words)
        with self._lock:
            self._lines.append(line)

    def lines(self, severity=None):
        """What was logged so far, also what the collector has not come to yet."""
        if self._socket:
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as marker:
                marker.sendto(_MARKER, PATH)
            self._marked.acquire()
        with self._lock:
            return [line for line in self._lines if severity in (None, line.severity)]

    def texts(self, severity=None):
        return [line.text for line in self.lines(severity)]

    def count(self, text):
        """How often exactly this line was logged."""
        return self.texts().count(text)

    def errors(self):
        """Lines that speak of a failure: the operator's errors and plain ones at priority 3."""
        return [line.text for line in self.lines()
                if line.severity <= ERROR or line.text.startswith("%WAN-W-")]

    def save(self, path):
        with open(path, "w", encoding="utf-8") as file:
            for line in self.lines():
                file.write(f"{line.time_s:.3f} {line.facility}.{line.severity} "
                           f"{line.identity}[{line.pid}]: {line.text}\n")

    def stop(self, leave_socket=False):
        """The log ends; its socket's name may stay behind, dead."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", PATH)
        self._thread.join()
        self._socket.close()
        self._socket = None
        if not leave_socket:
            os.unlink(PATH)

    def close(self):
        if self._socket:
            self.stop()

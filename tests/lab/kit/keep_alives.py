"""The captured notification socket of the service manager (sd_notify(3))."""
import os
import socket
import statistics
import threading
import time


class KeepAlives:
    """Collects (monotonic time, words) of every notification. Put `environment` into the daemon's."""

    def __init__(self, path):
        self._path = path
        self._seen = []
        self._lock = threading.Lock()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(path)
        self.environment = {"NOTIFY_SOCKET": path}
        self._thread = threading.Thread(target=self._collect, name="keep-alives", daemon=True)
        self._thread.start()

    def _collect(self):
        while True:
            data = self._socket.recv(4096)
            if not data:
                return
            with self._lock:
                self._seen.append((time.monotonic(), data.decode().split("\n")))

    def seen(self):
        with self._lock:
            return list(self._seen)

    def times(self, word):
        """When notifications with this word came."""
        return [time_s for time_s, words in self.seen() if word in words]

    def cycles(self):
        """How many cycles the slowest worker has ended."""
        return len(self.times("WATCHDOG=1"))

    def cycle_lengths_s(self):
        """How long each of the slowest worker's cycles took."""
        ends = self.times("WATCHDOG=1")
        return [later - earlier for earlier, later in zip(ends, ends[1:])]

    def assert_pace_kept(self, calm):
        """The cycles after the first `calm` ones were as long as those, but for half a second."""
        lengths_s = self.cycle_lengths_s()
        calm_s, since_s = (statistics.median(part) for part in (lengths_s[:calm], lengths_s[calm:]))
        if since_s > calm_s + 0.5:
            raise AssertionError(f"cycles of {since_s:.2f} s after some of {calm_s:.2f} s")

    def close(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as end:
            end.sendto(b"", self._path)
        self._thread.join()
        self._socket.close()
        os.unlink(self._path)

"""A small file system over a directory, that a test fills or makes read-only."""
import errno
import os

from . import sandbox
from .expect import expect

PAGE = 4096
_STAGING = "/run/lab-disk"
_READ_ONLY, _REMOUNT, _BIND = 1, 32, 0x1000


class Disk:
    """Covers `directory` at once, also under a running daemon. With `free_pages` it comes full but
    for these, so that nothing the daemon wrote before has a place on it."""

    def __init__(self, directory, pages=64, free_pages=None):
        self._directory = directory
        os.makedirs(_STAGING, exist_ok=True)
        sandbox.mount("lab", _STAGING, "tmpfs", options=f"size={pages * PAGE},mode=755")
        if free_pages is not None:
            self.fill(free_pages, _STAGING)
        sandbox.mount(_STAGING, directory, flags=_BIND)
        sandbox.unmount(_STAGING)

    def fill(self, free_pages=0, directory=None):
        """Takes all space but so many pages."""
        with open(self._filler(directory), "wb", buffering=0) as file:
            try:
                while file.write(b"x" * PAGE):
                    pass
            except OSError as full:
                if full.errno != errno.ENOSPC:
                    raise
            file.truncate(file.seek(0, os.SEEK_END) // PAGE * PAGE - free_pages * PAGE)

    def empty(self):
        """Gives the space back."""
        os.unlink(self._filler())

    def _filler(self, directory=None):
        return os.path.join(directory or self._directory, "filler")

    def set_read_only(self, is_read_only):
        """Waits for files that are just being written."""
        def remounted():
            try:
                sandbox.mount("lab", self._directory, flags=_BIND | _REMOUNT |
                              (_READ_ONLY if is_read_only else 0))
            except OSError as busy:
                if busy.errno != errno.EBUSY:
                    raise
                return False
            return True
        expect(remounted, what=f"{self._directory} changes its mode")

    def close(self):
        sandbox.unmount(self._directory)

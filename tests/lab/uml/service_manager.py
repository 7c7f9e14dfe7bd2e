"""systemd as a guest's service manager, beside the few targets that the package's units want."""
import os
import pathlib
import subprocess

from guest_lab import expect

UNITS = pathlib.Path("/lab-units")
TARGETS = ("sysinit", "basic", "shutdown", "multi-user", "umount", "lab")


def make_targets():
    UNITS.mkdir()
    for name in TARGETS:
        (UNITS / f"{name}.target").write_text("[Unit]\nDefaultDependencies=no\n")


def run(*words):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(words)}: {done.stdout.strip()}")
    return done.stdout


class ServiceManager:
    """systemd as process 1 of a process namespace, with the lab's units only."""

    def __init__(self, folder):
        run("mount", "-t", "cgroup2", "none", "/sys/fs/cgroup")
        environment = {"PATH": os.environ["PATH"], "container": "lab", "SYSTEMD_LOG_TARGET": "console",
                       "SYSTEMD_UNIT_PATH": f"{UNITS}:/run/systemd/system", "SYSTEMD_GENERATOR_PATH": "/nowhere"}
        self._output = open(folder / "systemd", "ab")
        self._process = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "/lib/systemd/systemd",
             "--system", "--unit=lab.target", "--log-level=info", "--show-status=no"],
            env=environment, stdin=subprocess.DEVNULL, stdout=self._output, stderr=self._output)
        expect(lambda: os.path.exists("/run/systemd/private"), 60, "systemd answers")
        expect(lambda: self.shown("lab.target", "ActiveState") == "active", 60, "systemd has started")

    @property
    def pid(self):
        """Of systemd, as the scenario sees it."""
        children = pathlib.Path(f"/proc/{self._process.pid}/task/{self._process.pid}/children")
        return int(children.read_text().split()[0])

    def inside(self, *words):
        """Runs a command where systemd's process numbers count."""
        return run("nsenter", f"--target={self.pid}", "--pid", "--mount", "--root", *words)

    def control(self, *words):
        """systemctl(1): it is answered only where systemd knows its process."""
        return self.inside("systemctl", *words)

    def shown(self, unit, name):
        return self.control("show", "--value", "--property", name, unit).strip()

    def close(self):
        self._process.kill()
        self._process.wait()
        self._output.close()
        run("umount", "/sys/fs/cgroup")

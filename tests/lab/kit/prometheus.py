"""The real Prometheus, unpacked by scripts/deps or the machine's own, and what it and what it scrapes answer."""
import http.client
import json
import os
import shutil
import subprocess
import urllib.parse

from .daemon import ROOT

UNPACKED = [os.path.join(ROOT, f"build/tools/{name}/usr") for name in ("prometheus", "alertmanager")]
PORT = 9090


def program(name):
    """The unpacked one, or the machine's; None without."""
    return shutil.which(name, path=os.pathsep.join(f"{folder}/bin" for folder in UNPACKED)) or shutil.which(name)


def ask(port, path):
    """The body that a program on this machine answers with."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=15)
    try:
        connection.request("GET", path)
        return connection.getresponse().read().decode()
    finally:
        connection.close()


def query(expression):
    """The results of an instant query, each with `metric` and `value`; none while Prometheus does not answer."""
    try:
        told = json.loads(ask(PORT, "/api/v1/query?" + urllib.parse.urlencode({"query": expression})))
    except (OSError, ValueError):
        return []
    if told["status"] != "success":
        raise AssertionError(f"{expression}: {told}")
    return told["data"]["result"]


def run_beside(name, folder, *arguments):
    """Starts one of the programs in a folder that keeps its log; the process."""
    with open(os.path.join(folder, name + ".log"), "wb") as log:
        return subprocess.Popen([program(name), *arguments], cwd=folder, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def run_prometheus(folder):
    """By prometheus.yml in the folder."""
    return run_beside("prometheus", folder, "--config.file=prometheus.yml", "--storage.tsdb.path=tsdb",
                      f"--web.listen-address=127.0.0.1:{PORT}")

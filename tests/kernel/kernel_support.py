"""What the kernel tests share inside user-mode Linux (uml-run), as root: the server's tests' Server
(tests/tools), can-utils runs, candump in the background, waits."""
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "tools"))
from serve_support import SIM, VEXLO, Server  # noqa: E402,F401 (for the tests)


def run(*cmd, **kw):
    return subprocess.run(cmd, check=True, capture_output=True, text=True, timeout=120, **kw).stdout


def wait(done, timeout=60):
    end = time.time() + timeout
    while not done():
        assert time.time() < end, "timed out"
        time.sleep(0.05)


def has_link(name):
    return subprocess.run(["ip", "link", "show", name], capture_output=True).returncode == 0


def candump(*args):
    """candump -L in the background into a file (a pipe nobody reads meanwhile would stall it, and its socket
    would drop frames); .result() waits for it and gives its frames as (time, ID#DATA)."""
    out = tempfile.TemporaryFile("w+")
    proc = subprocess.Popen(["candump", "-L", "-r", "4000000", *args], stdout=out)
    time.sleep(0.5)  # its socket is bound

    def result():
        proc.wait(timeout=120)
        out.seek(0)
        return [(float(line.split()[0][1:-1]), line.split()[2]) for line in out]

    proc.result = result
    return proc

"""What the kernel tests share: vexlo serve under vexlo-sim with its log and the simulated buses' trace,
can-utils runs, and the waits, inside user-mode Linux (uml-run) as root."""
import itertools
import os
import signal
import subprocess
import tempfile
import threading
import time

SIM, VEXLO = os.environ["VEXLO_SIM"], os.environ["VEXLO"]
PORTS = itertools.count(29700)  # a kernel of its own: nothing else listens


def run(*cmd, **kw):
    return subprocess.run(cmd, check=True, capture_output=True, text=True, timeout=120, **kw).stdout


def wait(done, timeout=60, why=lambda: "timed out"):
    end = time.time() + timeout
    while not done():
        assert time.time() < end, why()
        time.sleep(0.05)


def has_link(name):
    return subprocess.run(["ip", "link", "show", name], capture_output=True).returncode == 0


class Server:
    """vexlo serve under vexlo-sim, listening on a port of its own; its log lines and the buses' trace."""

    def __init__(self, tmp, sim_args, serve_args, trace=True, wrap=()):
        self.trace, self.port, self.lines = os.path.join(tmp, "trace"), next(PORTS), []
        self.proc = subprocess.Popen([*wrap, SIM, *(["--trace", self.trace] if trace else []), *sim_args, "--", VEXLO,
                                      "serve", "--no-beacon", "--listen", f"127.0.0.1:{self.port}", *serve_args],
                                     stderr=subprocess.PIPE, text=True)
        threading.Thread(target=lambda: self.lines.extend(self.proc.stderr), daemon=True).start()
        self.wait(lambda: self.said("serving adapter") or self.proc.poll() is not None)

    def log(self):
        return "".join(self.lines)

    def said(self, text):
        return text in self.log()

    def wait(self, done, timeout=60):
        wait(done, timeout, self.log)

    def bus(self, label="sim0can0", since=0):
        """Frames completed on the simulated bus by `label` (sim0can0, sim0can1) after `since`: (time, ID#DATA)."""
        with open(self.trace) as f:
            rows = [line.split() for line in f]
        return [(float(r[0][1:-1]), r[2]) for r in rows if r[1] == label and float(r[0][1:-1]) > since]

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        assert self.proc.wait(30) == 0, self.log()
        return self.log()


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

"""vexlo serve under vexlo-sim for the server's tests: the server on free ports, plain socketcand
connections to it and their messages."""
import os
import signal
import socket
import subprocess
import threading
import time

import can
import pytest

VEXLO = os.environ["VEXLO"]
SIM = os.environ["VEXLO_SIM"]


def free_port(host="127.0.0.1"):
    with socket.create_server((host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET) as s:
        return s.getsockname()[1]


class Server:
    """vexlo serve under vexlo-sim on a free port; its standard error is collected in lines."""

    def __init__(self, sim_args=(), serve_args=(), host="127.0.0.1", rate="1M", trace=None):
        self.port, self.lines, self.host, self.trace = free_port(host), [], host, trace
        where = f"[{host}]" if ":" in host else host
        self.proc = subprocess.Popen([SIM, *(["--trace", str(trace)] if trace else []), *sim_args, "--", VEXLO, "serve",
                                      *(["-b", rate] if rate else []), "--listen", f"{where}:{self.port}", *serve_args],
                                     stderr=subprocess.PIPE, text=True)
        self.reader = threading.Thread(target=lambda: self.lines.extend(self.proc.stderr), daemon=True)
        self.reader.start()
        self.wait_line("serving adapter 0")

    def wait(self, done, timeout=60):
        end = time.time() + timeout
        while not done():
            assert time.time() < end and self.proc.poll() is None, "".join(self.lines)
            time.sleep(0.05)

    def wait_line(self, text, timeout=20, count=1):
        self.wait(lambda: sum(text in line for line in self.lines) >= count, timeout)

    def on_bus(self, label="sim0can0", since=0):
        """From the simulator's trace, the frames completed on bus `label` (sim0can0, sim0can1) after
        `since`: (time, ID#DATA)."""
        with open(self.trace) as f:
            rows = [line.split() for line in f]
        return [(float(r[0][1:-1]), r[2]) for r in rows if r[1] == label and float(r[0][1:-1]) > since]

    def usage(self):
        """The server's open descriptors and resident kilobytes."""
        pid = self.proc.pid
        while open(f"/proc/{pid}/comm").read().strip() != "vexlo":  # below the simulator
            pid = int(open(f"/proc/{pid}/task/{pid}/children").read().split()[0])
        rss = [line.split()[1] for line in open(f"/proc/{pid}/status") if line.startswith("VmRSS")]
        return len(os.listdir(f"/proc/{pid}/fd")), int(rss[0])

    def bus(self, channel):
        return can.Bus(interface="socketcand", host="127.0.0.1", port=self.port, channel=channel)

    def raw(self, channel=None, mode="rawmode"):
        """A plain socket; with a channel, opened and switched to `mode` (answers checked)."""
        s = socket.create_connection((self.host, self.port))
        s.settimeout(5)
        REST.pop(id(s), None)  # a closed socket's leftovers
        assert read_until(s, 1) == ["< hi >"]
        if channel:
            s.sendall(f"< open {channel} >< {mode} >".encode())
            assert read_until(s, 2) == ["< ok >", "< ok >"]
        return s

    def stop(self):
        self.proc.send_signal(signal.SIGTERM)
        assert self.proc.wait(20) == 0
        self.reader.join(20)
        # After the stopping line only the CAN interfaces' totals: no client is left to close.
        log = "".join(self.lines)
        after = log.split("vexlo: stopping:")[-1].splitlines()[1:]
        assert "vexlo: stopping:" in log and all(" to the adapter, " in line for line in after), log
        return log


@pytest.fixture
def server_factory():
    servers = []
    yield lambda *a, **k: servers.append(Server(*a, **k)) or servers[-1]
    for s in servers:
        if s.proc.poll() is None:
            s.proc.kill()


REST = {}  # bytes read past the last message, by socket


def read_until(sock, count, timeout=5):
    """The next `count` messages of the socket, or fewer when it ends or stays silent."""
    out, buf, end = [], REST.get(id(sock), b""), time.time() + timeout
    while len(out) < count and time.time() < end:
        while b">" in buf and len(out) < count:
            msg, buf = buf.split(b">", 1)
            out.append(msg[msg.index(b"<"):].decode() + ">")
        if len(out) < count:
            try:
                data = sock.recv(65536)
            except socket.timeout:
                break
            if not data:
                break
            buf += data
    REST[id(sock)] = buf
    return out

"""vexlo serve --socketcan inside user-mode Linux: frames per second carried each way through the
bridge and the server's CPU time per frame, beside candump receiving on a plain vcan in the same
kernel, as a ratio. Run by bridge.sh (which boots the kernel); prints one line per figure."""
import os
import re
import subprocess
import sys
import tempfile
import time

SIM, VEXLO = os.environ["VEXLO_SIM"], os.environ["VEXLO"]
SECONDS = float(os.environ.get("BENCH_SECONDS", "10"))
BURST = int(os.environ.get("BENCH_BURST", "2500"))
TICK = os.sysconf("SC_CLK_TCK")


def cpu(pid):
    """User plus system CPU seconds of a process."""
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICK


def counter(iface, name):
    return int(open(f"/sys/class/net/{iface}/statistics/{name}").read())


class Server:
    def __init__(self, sim_args, trace):
        self.log = open(os.path.join(WORK, "serve.log"), "w+")
        self.proc = subprocess.Popen([SIM, "--trace", trace, *sim_args, "--", VEXLO, "serve", "-b", "1M", "--no-beacon",
                                      "--listen", "127.0.0.1:29599", "--socketcan", "vcan0=0"], stderr=self.log)
        while "serving adapter" not in open(self.log.name).read():
            time.sleep(0.1)
        # The server is the process of the simulator's program: the one running the vexlo command.
        self.pid = next(int(p) for p in os.listdir("/proc") if p.isdigit() and int(p) != self.proc.pid and
                        open(f"/proc/{p}/cmdline", "rb").read().split(b"\0")[0] == VEXLO.encode())

    def stop(self):
        self.proc.terminate()
        self.proc.wait()
        return open(self.log.name).read()


def receive():
    """The adapter's channel 0 receives a remote node at the bus ceiling; the server writes what it
    gets to vcan0 (frames the emulated adapter cannot pass on are its overruns, not counted)."""
    srv = Server(["-g", "1:0:seq"], "/dev/null")
    time.sleep(2)
    frames0, cpu0, t0 = counter("vcan0", "tx_packets"), cpu(srv.pid), time.monotonic()
    time.sleep(SECONDS)
    frames, used, span = counter("vcan0", "tx_packets") - frames0, cpu(srv.pid) - cpu0, time.monotonic() - t0
    srv.stop()
    return frames / span, used / frames


def transmit():
    """cangen writes a burst on vcan0 (it fits the server's socket buffer); the simulated bus's
    trace times the frames the adapter sent."""
    trace = os.path.join(WORK, "trace")
    srv = Server([], trace)
    cpu0 = cpu(srv.pid)
    subprocess.run(["cangen", "vcan0", "-g", "0", "-n", str(BURST), "-I", "i", "-L", "8", "-D", "i"], check=True)
    while sum(1 for _ in open(trace)) < BURST:
        time.sleep(0.2)
    used = cpu(srv.pid) - cpu0
    stamps = [float(l.split()[0][1:-1]) for l in open(trace)]
    log = srv.stop()
    lost = re.findall(r"\((\d+) in all\)", log)
    return (BURST - 1) / (stamps[-1] - stamps[0]), used / BURST, lost


def candump():
    """candump reading a burst written by cangen on a plain vcan."""
    subprocess.run(["ip", "link", "add", "dev", "vcan9", "type", "vcan"], check=True)
    subprocess.run(["ip", "link", "set", "up", "vcan9"], check=True)
    count = 20000
    with open(os.devnull, "w") as null:
        dump = subprocess.Popen(["candump", "-r", "16000000", "-n", str(count), "vcan9"], stdout=null)
        time.sleep(0.5)
        subprocess.run(["cangen", "vcan9", "-g", "0", "-n", str(count), "-L", "8"], check=True)
        _, status, usage = os.wait4(dump.pid, 0)
    return (usage.ru_utime + usage.ru_stime) / count


WORK = tempfile.mkdtemp()
rx_rate, rx_cpu = receive()
tx_rate, tx_cpu, tx_lost = transmit()
base = candump()
print(f"receive  (adapter -> vcan0): {rx_rate:8.0f} frames/s, server {rx_cpu * 1e6:7.1f} us CPU per frame")
print(f"transmit (vcan0 -> adapter): {tx_rate:8.0f} frames/s, server {tx_cpu * 1e6:7.1f} us CPU per frame"
      f" ({BURST} frames, {'lost: ' + ', '.join(tx_lost) if tx_lost else 'none lost'})")
print(f"candump on a plain vcan:                        {base * 1e6:7.1f} us CPU per frame")
print(f"server per frame / candump per frame: receive {rx_cpu / base:.1f}, transmit {tx_cpu / base:.1f}")
sys.exit(0)

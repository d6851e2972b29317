"""What a serial line of vexlo serve carries through the Linux kernel's slcan driver inside user-mode
Linux, each way, as frames per second (run by slcan_uml.sh, as root inside the kernel).

Receive: a generator on the cabled channel 1 sends 8-byte frames at RATE frames/s (0: as fast as the
bus at 1 Mbit/s allows, about 9,000) for SECONDS; candump on slcan0 counts what arrives, and the
generator's sequence numbers tell what was lost on the way. Transmit: cangen writes COUNT 8-byte
frames at once on slcan0 (its transmit queue takes them all); the simulator's bus trace times them
from the first to the last.
   slcan_uml.py SECONDS RATE COUNT   (env VEXLO, VEXLO_SIM, TMPDIR)"""
import os
import signal
import subprocess
import sys
import time

VEXLO, SIM, TMP = os.environ["VEXLO"], os.environ["VEXLO_SIM"], os.environ["TMPDIR"]
SECONDS, RATE, COUNT = float(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
LINK, TRACE = "/dev/ttyVEXLO0", os.path.join(TMP, "bench-trace.log")


def sh(*cmd):
    return subprocess.run(cmd, check=True, capture_output=True, text=True).stdout


def serve(*sim_args):
    proc = subprocess.Popen([SIM, "--trace", TRACE, *sim_args, "--", VEXLO, "serve", "-b", "1M", "--no-beacon",
                             "--slcan", f"{LINK}=0"], stderr=subprocess.PIPE, text=True)
    while "serving adapter" not in proc.stderr.readline():
        assert proc.poll() is None, "the server did not start"
    slcand = subprocess.Popen(["slcand", "-F", "-o", "-c", "-s8", LINK, "slcan0"], stdout=subprocess.DEVNULL)
    while subprocess.run(["ip", "link", "show", "slcan0"], capture_output=True).returncode:
        time.sleep(0.05)
    sh("ip", "link", "set", "slcan0", "txqueuelen", str(max(COUNT, 10)), "up")
    return proc, slcand


def stop(proc, slcand):
    with open("/sys/class/net/slcan0/statistics/rx_over_errors") as f:
        rx_over = int(f.read())
    slcand.send_signal(signal.SIGTERM)
    slcand.wait()
    proc.send_signal(signal.SIGTERM)
    log = proc.communicate()[1]
    return rx_over, [line for line in log.splitlines() if "dropped" in line or "not taken" in line]


def bus(channel):
    with open(TRACE) as f:
        return [float(line.split()[0][1:-1]) for line in f if f" sim0can{channel} " in line]


# Receive.
proc, slcand = serve("-g", f"1:{RATE}:seq8")
with open(os.path.join(TMP, "bench-dump.log"), "w+") as out:
    dump = subprocess.Popen(["candump", "-d", "-r", "8000000", "-L", "slcan0"], stdout=out)
    start = time.time()
    time.sleep(SECONDS)
    dump.send_signal(signal.SIGINT)
    dump.wait()
    end = time.time()
    out.seek(0)
    lines = out.readlines()
    seqs = [int.from_bytes(bytes.fromhex(line.split()[2].split("#")[1]), "little") for line in lines if "#" in line]
    # candump's own socket may drop frames too: it says so (-d), with the total so far.
    candump_drops = max([int(line.split("total drops ")[1].rstrip(")\n")) for line in lines if "DROPCOUNT" in line] or [0])
rx_over, log = stop(proc, slcand)
on_bus = sum(1 for t in bus(1) if start <= t <= end)
lost = seqs[-1] - seqs[0] + 1 - len(seqs) if seqs else 0
print(f"receive: {len(seqs) / (end - start):.0f} frames/s on slcan0 of {on_bus / (end - start):.0f} on the bus; "
      f"{lost} missing from the generator's sequence: {candump_drops} dropped by candump's socket, the rest in "
      f"{rx_over} overruns the adapter reported")
for line in log:
    print("  server:", line)

# Transmit.
proc, slcand = serve()
sh("cangen", "-g", "0", "-n", str(COUNT), "-L", "8", "slcan0")
deadline = time.time() + 600
while len(bus(0)) < COUNT and time.time() < deadline:
    time.sleep(0.2)
times = bus(0)
_, log = stop(proc, slcand)
print(f"transmit: {len(times) / max(times[-1] - times[0], 1e-6):.0f} frames/s from slcan0 to the bus "
      f"({len(times)} of {COUNT} frames in {times[-1] - times[0]:.1f} s)")
for line in log:
    print("  server:", line)

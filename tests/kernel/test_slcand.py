"""A serial line of vexlo serve, under the simulator, as the Linux kernel's slcan driver uses it: slcand
attaches it as slcan0 and can-utils work on slcan0. Runs as root inside user-mode Linux (uml-run)."""
import re
import signal
import socket
import subprocess

from kernel_support import Server, candump, has_link, run, wait

LINK = "/dev/ttyVEXLO0"
# The frames both ways: standard, extended and remote, 0 to 8 bytes, as candump -L and cansend write them.
FRAMES = ["123#", "7FF#DE", "000#0102030405060708", "1ABCDEF0#11223344", "00000001#A5", "1FFFFFFF#R", "456#R3",
          "321#0011223344556677", "12345678#AABBCCDDEEFF0011", "555#0102030405"]


def serve(tmp, *sim_args, trace=True):
    """The line at LINK on channel 0, and a TCP line on channel 1."""
    return Server(sim_args, ["--no-beacon", "--slcan", f"{LINK}=0", "--slcan-tcp", "29600=1"], rate=None,
                  trace=trace and tmp / "trace")


class Slcand:
    """slcand attaching LINK as slcan0 (in the foreground, so that SIGTERM detaches it), with a transmit
    queue that takes cangen's bursts at once (the default of 10 makes cangen fail with ENOBUFS)."""

    def __init__(self, *options, up=True):
        self.proc = subprocess.Popen(["slcand", "-F", *options, LINK, "slcan0"], stdout=subprocess.DEVNULL)
        wait(lambda: has_link("slcan0"))
        run("ip", "link", "set", "slcan0", "txqueuelen", "2000", *(["up"] if up else []))

    def detach(self):
        self.proc.send_signal(signal.SIGTERM)
        assert self.proc.wait(timeout=20) == 0
        wait(lambda: not has_link("slcan0"))


def dumped(proc):
    return [f for _, f in proc.result()]


def stat(name):
    with open(f"/sys/class/net/slcan0/statistics/{name}") as f:
        return int(f.read())


# Rates S0 to S8 and their timing bytes for the adapter's 16 MHz controller.
RATES = [(10000, "31:1C"), (20000, "18:1C"), (50000, "09:1C"), (100000, "04:1C"), (125000, "03:1C"),
         (250000, "01:1C"), (500000, "00:1C"), (800000, "00:16"), (1000000, "00:14")]


def slcan_command(frame):
    """A candump frame as the serial line's command: 123#DEAD -> t1232DEAD, 1FFFFFFF#R -> R1FFFFFFF0."""
    ident, data = frame.split("#")
    remote = data[:1] == "R"
    letter = ("rR" if remote else "tT")[len(ident) == 8]
    return f"{letter}{ident}{data[1:] or 0 if remote else len(data) // 2}{'' if remote else data}\r".encode()


def cangen(n, ext, length):
    """The n-th frame of cangen -I i -L (8 or i) -D i: identifier n, data n as a little-endian counter."""
    ident = f"{n & 0x1FFFFFFF:08X}" if ext else f"{n & 0x7FF:03X}"
    return f"{ident}#{n.to_bytes(8, 'little')[:max(length, 1)].hex().upper()}"


def check_rate(server, rate):
    before = len(server.on_bus())
    run("cangen", "-g", "0", "-n", "12", "-L", "8", "slcan0")
    server.wait(lambda: len(server.on_bus()) == before + 12)
    # Frames the adapter got together follow each other on the bus at once: the shortest gap is a frame.
    times = [t for t, _ in server.on_bus()[before:]]
    gap = min(b - a for a, b in zip(times, times[1:]))
    assert abs(gap - 111 / rate) < 2e-6 + 111 / rate / 100, rate


def test_frames_both_ways_bursts_rates_and_reattaching(tmp_path):
    server = serve(tmp_path)
    try:
        line = Slcand("-o", "-c", "-f", "-s6")
        # The simulated bus's frames reach slcan0 with every field, from the TCP line on the cabled channel.
        dump = candump("-n", str(len(FRAMES)), "slcan0")
        with socket.create_connection(("127.0.0.1", 29600)) as tcp:
            tcp.sendall(b"O\r" + b"".join(slcan_command(f) for f in FRAMES))
            assert dumped(dump) == FRAMES
        # Frames sent on slcan0 reach the bus whole and in order: one by one, and a burst.
        for frame in FRAMES:
            run("cansend", "slcan0", frame)
        run("cangen", "-g", "0", "-n", "2000", "-e", "-I", "i", "-L", "i", "-D", "i", "slcan0")
        server.wait(lambda: len(server.on_bus()) >= len(FRAMES) + 2000, 120)
        sent = [f for _, f in server.on_bus()]
        assert sent == FRAMES + [cangen(n, True, n % 9) for n in range(2000)]
        assert (stat("tx_packets"), stat("tx_errors")) == (2010, 0)
        line.detach()
        # The rate slcand sets is the channel's: the timing bytes in the server's log, and the time each
        # frame of 111 bits takes on the simulated bus. Each rate is a new attach of the same line.
        for s, (rate, _) in enumerate(RATES):
            line = Slcand("-o", "-c", f"-s{s}")
            check_rate(server, rate)
            line.detach()
        # Timing bytes from slcand, then the kernel's own rate setting (ip link ... bitrate), which
        # sends the rate to the line when slcan0 goes up.
        line = Slcand("-o", "-c", "-b", "031C", up=False)
        run("ip", "link", "set", "slcan0", "type", "can", "bitrate", "250000")
        run("ip", "link", "set", "slcan0", "up")
        check_rate(server, 250000)
        line.detach()
    finally:
        log = server.stop()
    timings = re.findall(r"channel 0 set by serial line /dev/ttyVEXLO0: (\d+) bit/s \(timing (..:..)\)", log)
    assert timings == [(str(r), t) for r, t in RATES] + [("125000", "03:1C"), ("250000", "01:1C")]
    assert "not taken" not in log and "dropped" not in log


def test_error_state_and_frames_the_adapter_did_not_take(tmp_path):
    # Nobody acknowledges slcan0's frames at 1 Mbit/s: the cabled channel stays at 500k, no analyser.
    server = serve(tmp_path, trace=False)
    try:
        line = Slcand("-o", "-c", "-s8")
        errors = candump("-n", "6", "slcan0,0~0,#FFFFFFFF")  # error frames only
        run("cangen", "-g", "0", "-n", "20", "-L", "8", "slcan0")
        # The adapter's error warning and error passive (its transmit error count at 128) reach slcan0's
        # state; of 20 frames the adapter holds 16, retrying, and refuses 4: transmit errors.
        assert dumped(errors) == ["20000204#000C000000000000", "20000204#0020000000008000"] + [
            "2000008C#0002000000000000"] * 4
        assert stat("tx_errors") == 4 and "state ERROR-PASSIVE" in run("ip", "-details", "link", "show", "slcan0")
        line.detach()
    finally:
        log = server.stop()
    assert "client gone; 0 received frames dropped for reading too slowly, 4 frames not taken by the adapter" in log


def test_a_thousand_frames_a_second_each_way(tmp_path):
    server = serve(tmp_path, "-g", "1:1000:seq8")
    try:
        line = Slcand("-o", "-c", "-s6")
        # The generator's 3,000 frames in 3 s, while cangen offers 500 in half a second.
        dump = candump("-n", "3000", "slcan0")
        run("cangen", "-g", "1", "-n", "500", "-x", "-I", "i", "-L", "8", "-D", "i", "slcan0")
        got = [int.from_bytes(bytes.fromhex(f.split("#")[1]), "little") for f in dumped(dump)]
        assert got == list(range(got[0], got[0] + 3000))
        server.wait(lambda: len(server.on_bus()) == 500)
        assert [f for _, f in server.on_bus()] == [cangen(n, False, 8) for n in range(500)]
        line.detach()
    finally:
        server.stop()

"""Capture for Wireshark against the simulated adapter, read back with Debian's tshark."""
import os
import struct
import subprocess

import pytest

VEXLO = os.environ["VEXLO"]
SIM = os.environ["VEXLO_SIM"]
EXTCAP = os.environ["VEXLO_EXTCAP"]
# tshark and dumpcap, which start the capture program, are no sanitized programs: the address
# sanitizer's runtime preloaded into them keeps them from capturing. The normal build runs these.
UNSANITIZED_TSHARK = pytest.mark.skipif("ASAN_OPTIONS" in os.environ, reason="tshark under the address sanitizer")
FIELDS = ["can.id", "can.flags.xtd", "can.flags.rtr", "can.flags.err", "can.len"]


def sim(tmp_path, sim_args, script, timeout=120):
    """Runs a shell script under vexlo-sim with HOME in tmp_path, where tshark finds vexlo-extcap."""
    folder = tmp_path / ".config" / "wireshark" / "extcap"
    folder.mkdir(parents=True, exist_ok=True)
    if not (folder / "vexlo-extcap").exists():
        (folder / "vexlo-extcap").symlink_to(EXTCAP)
    env = dict(os.environ, HOME=str(tmp_path), VEXLO=VEXLO)
    return subprocess.run([SIM, *sim_args, "--", "sh", "-c", script], capture_output=True, text=True,
                          timeout=timeout, cwd=tmp_path, env=env)


def records(path):
    """The (seconds, fraction, 16-byte record) of each packet of a classic pcap file of link type 227."""
    raw = path.read_bytes()
    magic, _, _, _, _, _, link = struct.unpack_from("<IHHiIII", raw)
    assert link == 227
    out, at = [], 24
    while at < len(raw):
        sec, frac, caplen, _ = struct.unpack_from("<IIII", raw, at)
        out.append((sec, frac, raw[at + 16:at + 16 + caplen]))
        at += 16 + caplen
    return magic, out


def tshark_fields(path, *fields):
    p = subprocess.run(["tshark", "-r", str(path), "-T", "fields", *[a for f in fields for a in ("-e", f)]],
                       capture_output=True, text=True, timeout=60)
    assert p.returncode == 0, p.stderr
    return [line.split("\t") for line in p.stdout.splitlines()]


def generated(n, pattern):
    """Frame n of a simulator generator: (id, extended, length, data) as its pattern makes it."""
    seq = struct.pack("<Q", n)
    if pattern == "ext":
        return (n, 1, 8, seq)
    return (n % 2048, 0, n % 9, seq[:n % 9])


@UNSANITIZED_TSHARK
def test_extcap_lists_channels_and_captures_with_tshark(tmp_path):
    p = sim(tmp_path, ["-n", "2", "--serial", "1:CAP-7", "--trace", "/dev/null", "-g", "1:2000:dlc"],
            "tshark -D && tshark -i vexlo0can1 -c 50 -F pcap -w cap.pcap")
    assert p.returncode == 0, p.stderr
    for a, serial in [(0, "VXSIM0000"), (1, "CAP-7")]:
        for ch in (0, 1):
            assert f"vexlo{a}can{ch} (vexlo adapter {a} channel {ch} (serial {serial}))" in p.stdout
    _, recs = records(tmp_path / "cap.pcap")
    assert [r[2][8:8 + r[2][4]] for r in recs] == [generated(n, "dlc")[3] for n in range(50)]
    assert tshark_fields(tmp_path / "cap.pcap", *FIELDS) == [
        [str(n), "0", "0", "0", str(n % 9)] for n in range(50)]
    assert "hears only bus errors" not in p.stderr


@UNSANITIZED_TSHARK
def test_extcap_says_why_a_listen_only_capture_hears_only_bus_errors(tmp_path):
    # A lone generator: nothing acknowledges its frames, the listen-only capture hears its error flags.
    p = sim(tmp_path, ["-g", "1:1000"], f"tshark -i vexlo0can1 -o extcap.vexlo0can1.logfile:{tmp_path}/log -c 20 -w e.pcap")
    hint = "vexlo-extcap: channel 1 of adapter 0 hears only bus errors and no frame: no node on the bus acknowledges"
    assert hint in p.stderr
    assert hint in (tmp_path / "log").read_text()
    assert tshark_fields(tmp_path / "e.pcap", "can.flags.err") == [["1"]] * 20


@UNSANITIZED_TSHARK
def test_extcap_says_when_another_program_holds_the_adapter(tmp_path):
    p = sim(tmp_path, [], '"$VEXLO" stat -w 0.2 0 > held & while [ ! -s held ]; do sleep 0.05; done; '
            'tshark -i vexlo0can1 -c 5; echo rc=$?; kill -INT $!; wait $!')
    assert "rc=0" not in p.stdout
    assert "vexlo-extcap: adapter 0 is in use by another program" in p.stderr


def test_extcap_names_only_rates_that_exist_when_it_refuses_one(tmp_path):
    p = subprocess.run([EXTCAP, "--capture", "--extcap-interface", "vexlo0can0", "--fifo", str(tmp_path / "f"),
                        "--bitrate", "5"], capture_output=True, text=True, timeout=10)
    assert p.stderr.endswith("nearest rates that work: 5000\n"), p.stderr


def test_dump_capture_holds_the_generated_frames_with_the_text_times(tmp_path):
    p = sim(tmp_path, ["--uncabled", "-g", "0:1000:ext", "-g", "1:1000:dlc"],
            '"$VEXLO" dump -t a -n 200 -w d.pcap 0,1 > text && "$VEXLO" dump --nano -n 5 -w - 1 > n.pcap')
    assert p.returncode == 0, p.stderr
    magic, recs = records(tmp_path / "d.pcap")
    assert (magic, records(tmp_path / "n.pcap")[0]) == (0xA1B2C3D4, 0xA1B23C4D)
    fields = tshark_fields(tmp_path / "d.pcap", *FIELDS)
    # Channel 0 carries the extended frames, channel 1 the standard ones, each from sequence 0.
    got = [(int(f[0]), int(f[1]), int(f[4]), r[2][8:8 + r[2][4]]) for f, r in zip(fields, recs) if f[2:4] == ["0", "0"]]
    ext = [g for g in got if g[1]]
    std = [g for g in got if not g[1]]
    assert len(got) == 200 and ext == [generated(n, "ext") for n in range(len(ext))]
    assert std == [generated(n, "dlc") for n in range(len(std))]
    # The text shows the same frames with the same times: (SECONDS.MICROS)  canCH  ID  [LEN]  DATA
    text = [line.split() for line in (tmp_path / "text").read_text().splitlines()]
    assert [(t[0], int(t[2], 16), bytes.fromhex("".join(t[4:]))) for t in text] == [
        (f"({sec}.{frac:06d})", int(f[0]), r[2][8:8 + r[2][4]]) for f, (sec, frac, _) , r in zip(fields, recs, recs)]


def test_dump_capture_carries_a_notice_as_an_error_frame(tmp_path):
    # A dump stopped for seconds at the bus ceiling: frames the adapter or the library's queue
    # cannot keep come as a data overrun notice, an error frame of class 0x004, detail 0x01.
    p = sim(tmp_path, ["-g", "1:0:seq0"], '"$VEXLO" dump -e -w e.pcap 1 > /dev/null & sleep 1; kill -STOP $!; '
            'sleep 5; kill -CONT $!; sleep 1; kill -INT $!; wait $!')
    assert "vexlo: can1:" in p.stderr
    _, recs = records(tmp_path / "e.pcap")
    errors = [i for i, f in enumerate(tshark_fields(tmp_path / "e.pcap", *FIELDS)) if f[3] == "1"]
    assert errors and all(recs[i][2][:5] == bytes([0x20, 0, 0, 4, 8]) for i in errors)
    assert recs[errors[0]][2][9] == 0x01

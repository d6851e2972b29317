"""The vexlo command against the simulated adapter: what reaches the bus, what other tools read."""
import os
import re
import shlex
import subprocess
import time

import can
import pytest

VEXLO = os.environ["VEXLO"]
SIM = os.environ["VEXLO_SIM"]


def run(sim_args, cmd, timeout=60, cwd=None):
    """Runs vexlo under vexlo-sim; returns (exit status, stdout, stderr)."""
    p = subprocess.run([SIM, *sim_args, "--", *cmd], capture_output=True, text=True, timeout=timeout, cwd=cwd)
    return p.returncode, p.stdout, p.stderr


def frames(path):
    """The frames of a candump log as (identifier, extended, remote, length, data) tuples."""
    return [(m.arbitration_id, m.is_extended_id, m.is_remote_frame, m.dlc, bytes(m.data))
            for m in can.LogReader(str(path))]


SENT = [(0x123, False, False, 4, bytes.fromhex("DEADBEEF")), (0x12345678, True, False, 3, bytes.fromhex("112233")),
        (0x7FF, False, True, 2, b""), (0x000, False, False, 0, b"")]


def test_send_reaches_the_bus_and_bad_input_sends_nothing(tmp_path):
    # Channel 0 alone on its bus: the trace's analyser acknowledges, so the frames complete.
    trace = tmp_path / "trace.log"
    rc, _, err = run(["--uncabled", "--trace", str(trace)],
                     [VEXLO, "send", "0", "123#DEADBEEF", "12345678#11.22.33", "7FF#R2", "000#"])
    assert (rc, err) == (0, "")
    assert frames(trace) == SENT
    assert abs(next(iter(can.LogReader(str(trace)))).timestamp - time.time()) < 60  # stamped by the wall clock
    # A malformed frame after good ones, and a log with a bad line: refused, nothing on the bus.
    bad = tmp_path / "bad.log"
    bad.write_text("(1.000000) can0 123#11\n(1.100000) can0 123#1\n")
    for cmd, message in [(["send", "0", "123#00", "12#1"], "vexlo: bad frame '12#1': identifier needs 3 or 8 hex digits\n"),
                         (["play", str(bad)], f"vexlo: {bad}:2: frame '123#1': data must be pairs of hex digits\n")]:
        rc, _, err = run(["--trace", str(trace)], [VEXLO, *cmd])
        assert (rc, err) == (2, message)
        assert frames(trace) == []


def test_dump_log_of_a_generator_reads_with_python_can(tmp_path):
    copy = tmp_path / "copy.log"
    rc, out, err = run(["-g", "1:2000:ext"], [VEXLO, "dump", "-L", "-n", "300", "-f", str(copy), "1"])
    assert rc == 0, err
    assert "vexlo: can1: 300 frames shown" in err and "0 lost in the queue" in err
    printed = tmp_path / "out.log"
    printed.write_text(out)
    for path in (printed, copy):
        msgs = list(can.LogReader(str(path)))
        assert [m.arbitration_id for m in msgs] == list(range(300))
        assert all(m.is_extended_id and m.channel == "can1" and m.dlc == 8 for m in msgs)
        stamps = [m.timestamp for m in msgs]
        assert stamps == sorted(stamps)


def test_play_of_a_python_can_log_keeps_frames_and_order(tmp_path):
    log, trace = tmp_path / "in.log", tmp_path / "trace.log"
    # python-can writes remote frames without their length: they come back with length 0.
    sent = [(0x100 + i * 7 % 0x700, i % 3 == 0, i % 5 == 4, 0 if i % 5 == 4 else i % 9,
             b"" if i % 5 == 4 else bytes(range(i % 9))) for i in range(40)]
    with can.CanutilsLogWriter(str(log), channel="can1") as w:
        for i, (ident, ext, rtr, dlc, data) in enumerate(sent):
            w.on_message_received(can.Message(timestamp=1000 + i * 0.005, arbitration_id=ident, is_extended_id=ext,
                                              is_remote_frame=rtr, dlc=dlc, data=data))
    rc, _, err = run(["--trace", str(trace)], [VEXLO, "play", "-m", "can1=0", str(log)])
    assert (rc, err) == (0, "")
    assert frames(trace) == sent


def test_busy_and_missing_adapters(tmp_path):
    # Adapter 0 held by another program: refused in words, and listed as busy before adapter 1.
    holder = f"{VEXLO} stat -w 0.2 0 > held & while [ ! -s held ]; do sleep 0.05; done; " \
             f"{VEXLO} send 0 123#; echo rc=$?; {VEXLO} list; kill -INT $!; wait $!; echo holder=$?"
    rc, out, err = run(["-n", "2"], ["sh", "-c", holder], cwd=tmp_path)
    assert out.startswith("rc=1\n0  in use by another program\n1  serial ") and out.endswith("holder=0\n")
    assert err == "vexlo: adapter 0 is in use by another program\n"  # no library line from list either
    # The library's own lines (there: the cause, then the failed open) only with -v.
    for sim_args, cmd, message, library in [(["-n", "0"], ["send", "0", "123#"], "no adapter at position 0", 0),
                                            ([], ["info", "-d", "1"], "no adapter at position 1", 0),
                                            ([], ["info", "-v", "-d", "1"], "no adapter at position 1", 2)]:
        rc, out, err = run(sim_args, [VEXLO, *cmd])
        lines = err.splitlines()
        assert (rc, out, lines[-1], len(lines)) == (1, "", f"vexlo: {message}", library + 1)
        assert all(": vexlo: ERR: " in line for line in lines[:-1])


@pytest.mark.parametrize("args,words", [
    ("gen -g 1e300 0", "0 to 3600000"), ("gen -g inf 0", "0 to 3600000"), ("gen -g 20000000000000000 0", "3600000"),
    ("dump -T inf 0", "0.001 to 2592000"), ("dump -T 1e300 0", "2592000"), ("stat -w inf 0", "0.1 to 86400"),
    ("stat -w 1e300 0", "86400"), ("stat -w 0.000000001 0", "0.1 to"), ("gen -n -1 0", "1 to 1000000000000"),
    ("play -l -1 one.log", "1 to 1000000"), ("dump -f '' 0", "an empty file name"),
    ("dump -f /nonexistent/x 0", "No such file"), ("play -m x=0 one.log", "log channel 'x'"),
    ("send --listen-only 0 123#", "--listen-only"), ("serve --slcan-tcp 99999=0", "bad port")])
def test_nonsense_is_refused_before_the_adapter(tmp_path, args, words):
    (tmp_path / "one.log").write_text("(1.0) can0 123#11\n")
    p = subprocess.run([VEXLO, *shlex.split(args)], capture_output=True, text=True, timeout=10, cwd=tmp_path)
    assert (p.returncode, p.stdout, words in p.stderr) == (2, "", True), p.stderr


@pytest.mark.parametrize("script,reason", [
    ("V dump 0 | head -1 >/dev/null; echo rc=${PIPESTATUS[0]}", "Broken pipe"),
    ("V dump -n 5 0 >/dev/full; echo rc=$?", "No space left on device"),
    ("V stat 0 >/dev/full; echo rc=$?", "No space left on device"), ("V stat 0 >&-; echo rc=$?", "Bad file descriptor")])
def test_output_that_cannot_be_written_fails_the_command(script, reason):
    rc, out, err = run(["-g", "0:1000"], ["bash", "-c", script.replace("V ", VEXLO + " ")])
    assert (out, f"vexlo: cannot write the output: {reason}\n" in err) == ("rc=1\n", True)


@pytest.mark.parametrize("cmd", ["dump 0", "gen -g 10 0", "gen -g 0 0", "stat -w 0.5 0"])
def test_unplug_ends_the_command_within_a_second(cmd):
    rc, _, err = run(["--uncabled", "--trace", os.devnull, "--unplug", "0:1"], [VEXLO, *cmd.split()], timeout=15)
    assert (rc, "vexlo: adapter 0 was unplugged\n" in err) == (1, True)
    # The simulator's times of the unplug and of the program's end, with a second's room for a slow
    # run: a transmit in flight at the unplug would hold the program for 3 s.
    t = {what: float(at) for at, what in re.findall(r"vexlo-sim: ([0-9.]+) s: (adapter 0 unplugged|the program ended)", err)}
    assert t["the program ended"] - t["adapter 0 unplugged"] < 2, err


def test_gen_and_play_end_once_when_no_node_acknowledges(tmp_path):
    # Without --trace nothing acknowledges channel 0's frames (channel 1 is not started): the
    # adapter keeps the few it took and refuses the rest. Said once, what was refused is counted,
    # and the command ends (also one whose count cannot be reached) with status 1.
    (tmp_path / "p.log").write_text("".join(f"(1.{i:03d}) can0 {i:03X}#11\n" for i in range(40)))
    counts = {}
    for cmd, pattern in [("gen -g 10 0", r"can0: (\d+) frames sent, (1) refused"),
                         ("gen -n 30 0", r"can0: (\d+) frames sent, (\d+) refused"),
                         ("play p.log", r"stopped after (\d+) of (40) frames")]:
        rc, _, err = run([], [VEXLO, *cmd.split()], timeout=30, cwd=tmp_path)
        assert (rc, err.count("(is another node acknowledging?)\n"), ": vexlo: " in err) == (1, 1, False), err
        counts[cmd] = [int(n) for n in re.search(pattern, err).groups()]
    assert sum(counts["gen -n 30 0"]) == 30 and 0 < counts["play p.log"][0] < 40


def test_gen_count_waits_for_the_bus_and_timing_is_the_librarys(tmp_path):
    trace = tmp_path / "trace.log"
    rc, _, err = run(["--uncabled", "--trace", str(trace)], [VEXLO, "gen", "-g", "0", "-I", "i", "-n", "300", "0"])
    assert rc == 0, err
    assert [f[0] for f in frames(trace)] == list(range(300))
    # The controller's timing bytes for 83,333 bit/s are those of the library's rule: 192 clocks a
    # bit, prescaler 6 (05), 16 quanta sampled after 14 (1C): 87.5%. (python-can's bus is checked
    # against the library's call itself; a python of this build cannot load a sanitized library.)
    rc, out, err = run([], [VEXLO, "stat", "-b", "83333", "0"])
    assert "bit timing        05:1C, 833" in out, err

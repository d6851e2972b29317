# Runs under vexlo-sim: channel 0 and channel 1 of an adapter share one bus; two adapters but for
# the cases named for their own setting (see CMakeLists.txt).
import asyncio
import concurrent.futures
import ctypes
import gc
import logging
import os
import signal
import subprocess
import sys
import time

import can
import pytest

FRAMES = ([can.Message(arbitration_id=0x7FF - n, is_extended_id=False, data=range(0xA0, 0xA0 + n)) for n in range(9)]
          + [can.Message(arbitration_id=0x1ABCDE00 + n, data=bytes([n] * n)) for n in range(9)]
          + [can.Message(arbitration_id=n, is_extended_id=n % 2 == 1, is_remote_frame=True, dlc=n) for n in range(9)])


def bus(channel, **kwargs):
    return can.Bus(interface="vexlo", channel=channel, bitrate=1000000, **kwargs)


def drain(b, wait=0.5):
    return list(iter(lambda: b.recv(wait), None))


def test_frames_both_ways_and_the_lifecycle():
    a, b = bus(0), bus("0:1")
    for tx, rx in ((a, b), (b, a)):
        before = time.time()
        for m in FRAMES:
            tx.send(m, timeout=5)
        got = [rx.recv(10) for _ in FRAMES]
        for sent, m in zip(FRAMES, got):
            assert (m.arbitration_id, m.is_extended_id, m.is_remote_frame, m.dlc, m.data, m.is_error_frame) == \
                (sent.arbitration_id, sent.is_extended_id, sent.is_remote_frame, sent.dlc, sent.data, False)
            assert m.channel == rx.channel
        stamps = [m.timestamp for m in got]
        assert stamps == sorted(stamps) and before - 1 <= stamps[0] and stamps[-1] <= time.time()
    path = next(line.split()[-1] for line in open("/proc/self/maps") if "libvexlo.so" in line)
    with pytest.raises(can.CanInitializationError, match="already open"):
        bus(1, library=path)  # the same library by another name
    a.shutdown()
    assert b.recv(0) is None  # the adapter stays open for the other channel
    with concurrent.futures.ThreadPoolExecutor() as pool:
        waiting = pool.submit(b.recv, None)
        time.sleep(0.3)
        b.shutdown()
        b.shutdown()
    for call in (lambda: waiting.result(10), lambda: b.recv(0), lambda: b.send(FRAMES[0]), b.fileno,
                 lambda: b.set_filters(None), lambda: setattr(b, "state", can.BusState.PASSIVE)):
        with pytest.raises(can.CanOperationError, match="^vexlo: the bus is shut down$"):
            call()
    fds = []
    for _ in range(3):  # dropped without shutdown; the next finds the channel free
        bus(0).fileno()
        gc.collect()
        fds.append(len(os.listdir("/proc/self/fd")))
    assert fds[0] == fds[1] == fds[2]


def test_an_unusual_rate_gets_the_librarys_timing_bytes():
    want, regs = [ctypes.c_ubyte(), ctypes.c_ubyte()], [(ctypes.c_ubyte * 2)(reg) for reg in (0x06, 0x07)]
    with can.Bus(interface="vexlo", channel=0, bitrate=83333) as b:
        assert b._chan.lib.vexlo_timing_for_rate(83333, *want, None, None) == 1
        assert all(b._chan.lib.VCI_GetReference(4, 0, 0, 1, reg) for reg in regs)
    assert [reg[0] for reg in regs] == [w.value for w in want]


def test_an_adapter_held_by_another_program_is_busy_and_listed(capfd, caplog):
    caplog.set_level(logging.DEBUG, logger="can.vexlo")
    hold = "import can, sys; b = can.Bus(interface='vexlo', channel=1); print('held', flush=True); sys.stdin.read()"
    with subprocess.Popen([sys.executable, "-c", hold], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as holder:
        assert holder.stdout.readline() == b"held\n"
        with pytest.raises(can.CanInitializationError, match="^vexlo: adapter 0 is in use by another program$"):
            bus(0)
        assert [c["channel"] for c in can.detect_available_configs(interfaces=["vexlo"])] == \
            ["0:0", "0:1", "1:0", "1:1"]
        assert capfd.readouterr().out == ""  # the library's lines go to logging, at debug level
        assert {r.levelno for r in caplog.records if r.name == "can.vexlo"} == {logging.DEBUG}


def test_unplug_ends_a_recv_without_timeout():
    with bus(0) as b, pytest.raises(can.CanOperationError, match="adapter 0 was unplugged"):
        b.recv(None)


def test_notifier_with_a_listener_on_the_event_loop():
    async def run(a, b):
        reader = can.AsyncBufferedReader()
        notifier = can.Notifier(b, [reader], loop=asyncio.get_running_loop())
        for m in FRAMES:
            a.send(m, timeout=5)
        got = [await asyncio.wait_for(reader.get_message(), 10) for _ in FRAMES]
        notifier.stop()
        return got

    with bus(0) as a, bus(1) as b:
        assert [m.arbitration_id for m in asyncio.run(run(a, b))] == [m.arbitration_id for m in FRAMES]


def test_filters_on_the_adapter_and_in_the_library():
    sent = [(0x120, False), (0x12F, False), (0x130, False), (0x125, True), (0x120 << 18, True)]
    rows = [([{"can_id": 0x120, "can_mask": 0x7F0, "extended": False}], {(0x120, False), (0x12F, False)}),
            ([{"can_id": 0x120, "can_mask": 0x7F0}], {(0x120, False), (0x12F, False), (0x125, True)}),
            ([{"can_id": 0x125, "can_mask": 0x1FFFFFFF, "extended": True}], {(0x125, True)})]
    with bus(0) as a, bus(1) as b:
        for filters, want in rows:
            b.set_filters(filters)
            for fid, is_ext in sent:
                a.send(can.Message(arbitration_id=fid, is_extended_id=is_ext), timeout=5)
            assert {(m.arbitration_id, m.is_extended_id) for m in drain(b)} == want


def test_lone_transmitter_error_frames_passive_state_and_refusals():
    with bus(0) as a, bus(1, listen_only=True) as b:  # a listen-only node does not acknowledge
        with pytest.raises(can.CanOperationError, match="listen-only"):
            b.send(FRAMES[0])
        with pytest.raises(can.CanTimeoutError, match="error passive"):
            for _ in range(100):
                a.send(FRAMES[0], timeout=0.5)
        errors = drain(a)
        assert all(m.is_error_frame for m in errors) and a.state == can.BusState.PASSIVE
        assert any(m.arbitration_id == 0x88 for m in errors)  # bus errors
        assert any(m.arbitration_id == 0x204 and m.data[1] == 0x30 and m.data[6] >= 128 for m in errors)


def test_no_adapters():
    with pytest.raises(can.CanInitializationError, match="^vexlo: no adapter at position 0$"):
        bus(0)
    assert can.detect_available_configs(interfaces=["vexlo"]) == []


def test_logger_writes_what_the_generator_sent(tmp_path):
    log = tmp_path / "gen.log"
    cmd = [sys.executable, "-m", "can.logger", "-i", "vexlo", "-c", "0:1", "-b", "1000000", "-f", str(log)]
    logger = subprocess.Popen(cmd, stdout=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while (not log.exists() or log.stat().st_size < 20000) and time.monotonic() < deadline and logger.poll() is None:
        time.sleep(0.1)
    logger.send_signal(signal.SIGINT)
    assert logger.wait(30) == 0
    frames = list(can.LogReader(str(log)))
    assert len(frames) >= 200
    assert [int.from_bytes(m.data, "little") for m in frames] == list(range(len(frames)))
    assert [m.arbitration_id for m in frames] == [n & 0x7FF for n in range(len(frames))]

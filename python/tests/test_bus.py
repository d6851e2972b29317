# Runs under vexlo-sim: channel 0 and channel 1 of adapter 0 share one bus.
import asyncio
import os
import signal
import subprocess
import sys
import threading
import time

import can
import pytest

FRAMES = ([can.Message(arbitration_id=0x7FF - n, is_extended_id=False, data=range(0xA0, 0xA0 + n)) for n in range(9)]
          + [can.Message(arbitration_id=0x1ABCDE00 + n, data=bytes([n] * n)) for n in range(9)]
          + [can.Message(arbitration_id=n, is_extended_id=n % 2 == 1, is_remote_frame=True, dlc=n) for n in range(9)])


def bus(channel, **kwargs):
    return can.Bus(interface="vexlo", channel=channel, bitrate=1000000, **kwargs)


def drain(b, wait=0.5):
    got = []
    while (m := b.recv(wait)) is not None:
        got.append(m)
    return got


def test_frames_both_ways_intact_and_shutdown_twice():
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
    with pytest.raises(can.CanInitializationError, match="already open"):
        bus(1)
    a.shutdown()
    a.shutdown()
    b.send(FRAMES[0], timeout=5)  # the adapter stays open for the other channel
    b.shutdown()
    b.shutdown()
    with pytest.raises(can.CanOperationError):
        b.recv(0)


def test_recv_waits_its_timeout_and_returns_once_a_frame_is_there():
    with bus(0) as a, bus(1) as b:
        start = time.monotonic()
        assert b.recv(0.3) is None
        assert 0.3 <= time.monotonic() - start < 3
        threading.Timer(0.2, a.send, (FRAMES[3],)).start()
        start = time.monotonic()
        assert b.recv(30).data == FRAMES[3].data
        assert time.monotonic() - start < 10


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


def test_filters_on_the_adapter_and_in_software():
    std = [0x120, 0x12F, 0x130]
    ext = [0x125, 0x120 << 18]  # the second fits a standard filter's bits on the adapter
    rows = [([{"can_id": 0x120, "can_mask": 0x7F0, "extended": False}], {(0x120, False), (0x12F, False)}, 3),
            ([{"can_id": 0x120, "can_mask": 0x7F0}], {(0x120, False), (0x12F, False), (0x125, True)}, 5),
            ([{"can_id": 0x125, "can_mask": 0x1FFFFFFF, "extended": True}], {(0x125, True)}, 1)]
    with bus(0) as a, bus(1) as b:
        for filters, want, queued in rows:
            b.set_filters(filters)
            before = b._read_counters() and b._stats.rx_frames
            for fid, is_ext in [(i, False) for i in std] + [(i, True) for i in ext]:
                a.send(can.Message(arbitration_id=fid, is_extended_id=is_ext), timeout=5)
            assert {(m.arbitration_id, m.is_extended_id) for m in drain(b)} == want
            assert b._read_counters() and b._stats.rx_frames - before == queued


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


def test_two_adapters_detected():
    def channels():
        return sorted(c["channel"] for c in can.detect_available_configs(interfaces=["vexlo"]))
    assert channels() == ["0:0", "0:1", "1:0", "1:1"]
    with bus("1:1"):
        assert channels() == ["0:0", "0:1", "1:0", "1:1"]


def test_no_adapters_and_bad_channels_refused():
    for channel, error in (("0:0", "no adapter at position 0"), (1, "no adapter"), ("2", "bad channel"),
                           ("0:1:1", "bad channel"), ("32:0", "bad channel"), ("can0", "bad channel")):
        with pytest.raises(can.CanInitializationError, match=error):
            bus(channel)
    with pytest.raises(can.CanInitializationError, match="receive_own_messages"):
        bus(0, receive_own_messages=True)
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

"""python-can recv() on one vexlo channel with the bus full, for a fixed time.

Run under vexlo-sim with a generator at the ceiling on the same channel (recv_ceiling.sh does):
prints frames per second, frames lost (gaps in the generator's identifier sequence, and frames the
library's receive queue had to drop) and the CPU time per frame of this process (all of it: the
Python thread and the library's event thread) and of the Python thread alone. --short runs it for
a second only, to show that it still runs: no figure is judged then.
"""
import argparse
import ctypes
import time

import can
from vexlo_can import library
from vexlo_can.bus import parse_channel


class VEXLO_STATS(ctypes.Structure):
    """vexlo_get_stats's counters (vexlo_ext.h): the library's own count of what it had to drop."""
    _fields_ = [("size", ctypes.c_uint), ("queue_peak", ctypes.c_uint), ("rx_frames", ctypes.c_ulonglong),
                ("rx_lost", ctypes.c_ulonglong), ("tx_frames", ctypes.c_ulonglong),
                ("bad_messages", ctypes.c_ulonglong), ("notices", ctypes.c_ulonglong * 5),
                ("unplugged", ctypes.c_ulonglong)]


def queue_losses(channel):
    """Frames the library's receive queue of the open channel had to drop."""
    lib = library.load()
    lib.vexlo_get_stats.argtypes = [ctypes.c_uint, ctypes.c_uint, ctypes.POINTER(VEXLO_STATS)]
    stats = VEXLO_STATS(size=ctypes.sizeof(VEXLO_STATS))
    if not lib.vexlo_get_stats(*parse_channel(channel), ctypes.byref(stats)):
        raise SystemExit(f"recv_ceiling: no counters for channel {channel}")
    return stats.rx_lost


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=20.0)
    ap.add_argument("--channel", default="0:1")
    ap.add_argument("--bitrate", type=int, default=1000000)
    ap.add_argument("--warm", type=float, default=2.0, help="seconds of reading before the count")
    ap.add_argument("--short", action="store_true", help="a one-second smoke run, no figure judged")
    args = ap.parse_args()
    if args.short:
        args.seconds, args.warm = 1.0, 0.5

    with can.Bus(interface="vexlo", channel=args.channel, bitrate=args.bitrate) as bus:
        # Reading first, so that the count starts with no backlog anywhere.
        warm = time.monotonic() + args.warm
        while time.monotonic() < warm:
            bus.recv(1.0)
        first = bus.recv(10)
        while first.is_error_frame:
            first = bus.recv(10)
        expect = (first.arbitration_id + 1) & 0x7FF
        frames = lost = errors = overruns = 0
        cpu0, thread0, wall0 = time.process_time(), time.thread_time(), time.monotonic()
        end = wall0 + args.seconds
        while time.monotonic() < end:
            m = bus.recv(1.0)
            if m is None:
                continue
            if m.is_error_frame:
                errors += 1
                overruns += bool(m.arbitration_id & 0x4 and m.data[1] & 0x01)
                continue
            lost += (m.arbitration_id - expect) & 0x7FF
            expect = (m.arbitration_id + 1) & 0x7FF
            frames += 1
        wall = time.monotonic() - wall0
        cpu, thread = time.process_time() - cpu0, time.thread_time() - thread0
        dropped = queue_losses(args.channel)
    print(f"{frames} frames in {wall:.1f} s: {frames / wall:.0f} frames/s")
    print(f"lost {lost}: {dropped} in the library's receive queue, the rest at the adapter "
          f"({overruns} overrun error frames of {errors})")
    print(f"CPU per frame: {1e6 * cpu / max(frames, 1):.1f} us process, "
          f"{1e6 * thread / max(frames, 1):.1f} us Python thread ({100 * cpu / wall:.0f}% of a core)")
    return 0 if frames > 0 and (args.short or lost == dropped == 0) else 1


if __name__ == "__main__":
    raise SystemExit(main())

"""python-can recv() on one vexlo channel with the bus full, for a fixed time.

Run under vexlo-sim with a generator at the ceiling on the same channel (recv_ceiling.sh does):
prints frames per second, frames lost (gaps in the generator's identifier sequence, and frames the
library's receive queue had to drop) and the CPU time per frame of this process (all of it: the
Python thread and the library's event thread) and of the Python thread alone.
"""
import argparse
import time

import can


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seconds", type=float, default=20.0)
    ap.add_argument("--channel", default="0:1")
    ap.add_argument("--bitrate", type=int, default=1000000)
    args = ap.parse_args()

    with can.Bus(interface="vexlo", channel=args.channel, bitrate=args.bitrate) as bus:
        # Two seconds of reading first, so that the count starts with no backlog anywhere.
        warm = time.monotonic() + 2
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
        bus._read_counters()
        dropped = bus._stats.rx_lost
    print(f"{frames} frames in {wall:.1f} s: {frames / wall:.0f} frames/s")
    print(f"lost {lost}: {dropped} in the library's receive queue, the rest at the adapter "
          f"({overruns} overrun error frames of {errors})")
    print(f"CPU per frame: {1e6 * cpu / max(frames, 1):.1f} us process, "
          f"{1e6 * thread / max(frames, 1):.1f} us Python thread ({100 * cpu / wall:.0f}% of a core)")
    return 0 if lost == 0 and dropped == 0 and frames > 0 else 1


if __name__ == "__main__":
    raise SystemExit(main())

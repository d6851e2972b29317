"""Host time of the adapter's frame stamps.

The adapter stamps each received frame in units of 100 us on a 32-bit counter of its own, which
wraps after about five days and drifts against the host's clock. StampClock turns those stamps into
host time in seconds: anchored to the host clock at the first frame, unwrapped, and corrected so
that a stamp never runs ahead of the host clock at the moment the frame was taken and never goes
backwards.
"""

TICK = 1e-4
WRAP = 1 << 32
# How fast the anchor may follow an adapter clock that runs slow: 500 ppm of host time, well above
# what a crystal drifts and far below the latency a frame sees on its way in.
CATCH_UP = 5e-4


class StampClock:
    def __init__(self):
        self.offset_ = None   # host time of adapter tick 0
        self.ticks_ = 0       # unwrapped tick count of the latest stamp
        self.raw_ = 0         # latest raw stamp
        self.host_ = 0.0      # host time of the latest conversion
        self.out_ = 0.0       # latest result

    def convert(self, raw, host_now):
        """Host time in seconds of a frame stamped `raw` and taken from the adapter at `host_now`."""
        raw &= WRAP - 1
        if self.offset_ is None:
            ticks, offset = raw, host_now - raw * TICK
        else:
            # A stamp a little older than the last one steps back; anything else moves forward,
            # past a wrap if need be.
            step = (raw - self.raw_) & (WRAP - 1)
            ticks = self.ticks_ + (step - WRAP if step >= WRAP // 2 else step)
            offset = self.offset_
            if host_now > self.host_:
                offset += CATCH_UP * (host_now - self.host_)
        # The frame cannot have been stamped after it was taken: a stamp ahead of the host clock
        # means the adapter runs fast, and the anchor moves back to meet it.
        since = ticks * TICK
        if offset > host_now - since:
            offset = host_now - since
        out = offset + since
        if out < self.out_:
            out = self.out_
        self.offset_, self.ticks_, self.raw_, self.host_, self.out_ = offset, ticks, raw, host_now, out
        return out

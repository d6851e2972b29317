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
            self.ticks_ = raw
            self.offset_ = host_now - raw * TICK
        else:
            step = (raw - self.raw_) % WRAP
            # A stamp a little older than the last one (possible across a resynchronisation) steps
            # back; anything else moves forward, past a wrap if need be.
            self.ticks_ += step - WRAP if step >= WRAP // 2 else step
            self.offset_ += CATCH_UP * max(0.0, host_now - self.host_)
        self.raw_ = raw
        self.host_ = host_now
        # The frame cannot have been stamped after it was taken: a stamp ahead of the host clock
        # means the adapter runs fast, and the anchor moves back to meet it.
        self.offset_ = min(self.offset_, host_now - self.ticks_ * TICK)
        self.out_ = max(self.out_, self.offset_ + self.ticks_ * TICK)
        return self.out_

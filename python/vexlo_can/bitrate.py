"""Bit rates of the adapter's controller (16 MHz clock) and their two bus timing bytes.

A rate is accepted by name or number ("500k", "1M", 125000) when it is one of the common rates, or
when some prescaler and segment split reaches it within 1%; any other rate is refused with the
nearest rates that can be reached.
"""

CLOCK_HZ = 16000000
TOLERANCE = 0.01

# The common rates with their usual timing bytes (BTR0, BTR1).
NAMED = {
    1000000: (0x00, 0x14),
    800000: (0x00, 0x16),
    500000: (0x00, 0x1C),
    250000: (0x01, 0x1C),
    125000: (0x03, 0x1C),
    100000: (0x04, 0x1C),
    50000: (0x09, 0x1C),
    20000: (0x18, 0x1C),
    10000: (0x31, 0x1C),
}


def parse_rate(text):
    """"500k" -> 500000, "1M" -> 1000000, "83333" -> 83333; ValueError for anything else."""
    if isinstance(text, int) and not isinstance(text, bool):
        value = text
    else:
        s = str(text).strip().lower()
        scale = 1
        if s.endswith("k"):
            s, scale = s[:-1], 1000
        elif s.endswith("m"):
            s, scale = s[:-1], 1000000
        try:
            value = round(float(s) * scale)
        except ValueError:
            raise ValueError(f"bad bit rate '{text}'") from None
    if value <= 0:
        raise ValueError(f"bad bit rate '{text}'")
    return value


def timing_rate(btr0, btr1):
    """Bit rate of two timing bytes: quantum 2 (BRP + 1) / 16 MHz, bit 1 + TSEG1 + TSEG2 quanta."""
    quanta = 1 + (btr1 & 0x0F) + 1 + ((btr1 >> 4) & 0x07) + 1
    return CLOCK_HZ / (2 * ((btr0 & 0x3F) + 1) * quanta)


def _splits():
    """Every (brp, quanta, btr1) with the sample point nearest 87.5% for that bit length, keeping
    at least two quanta after the sample point."""
    for quanta in range(8, 26):
        best = None
        for tseg2 in range(2, 9):
            tseg1 = quanta - 1 - tseg2
            if not 1 <= tseg1 <= 16:
                continue
            miss = abs((1 + tseg1) / quanta - 0.875)
            if best is None or miss < best[0]:
                best = (miss, ((tseg2 - 1) << 4) | (tseg1 - 1))
        if best:
            for brp in range(64):
                yield brp, quanta, best[1], best[0]


_SPLITS = list(_splits())


def timing_for(rate):
    """(btr0, btr1) for a bit rate: the common pair for a common rate, else the split nearest the
    rate (ties: sample point nearest 87.5%, then the finer quantum). ValueError naming the nearest
    reachable rates when none is within 1%."""
    rate = parse_rate(rate)
    if rate in NAMED:
        return NAMED[rate]
    best = None
    for brp, quanta, btr1, miss in _SPLITS:
        got = CLOCK_HZ / (2 * (brp + 1) * quanta)
        key = (abs(got - rate) / rate, miss, brp)
        if best is None or key < best[0]:
            best = (key, brp, btr1)
    if best[0][0] <= TOLERANCE:
        return best[1], best[2]
    below = max((r for r in reachable() if r < rate), default=None)
    above = min((r for r in reachable() if r > rate), default=None)
    near = " or ".join(f"{r:.0f}" for r in (below, above) if r is not None)
    raise ValueError(f"bit rate {rate} is not reachable within 1% by the 16 MHz controller; nearest: {near}")


def reachable():
    """Every exact bit rate the timing bytes can give, in bit/s."""
    return sorted({CLOCK_HZ / (2 * (brp + 1) * quanta) for brp, quanta, _, _ in _SPLITS})

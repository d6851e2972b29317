import pytest

from vexlo_can.bitrate import timing_for, timing_rate
from vexlo_can.filters import ACCEPT_ALL, acceptance
from vexlo_can.stamps import StampClock


def test_bit_rates_named_reached_or_refused_with_the_nearest():
    assert [timing_for(r) for r in ("1M", "800k", 500000, "10k")] == [(0, 0x14), (0, 0x16), (0, 0x1C), (0x31, 0x1C)]
    for rate in (83333, 33000, 5000, 47619):
        assert abs(timing_rate(*timing_for(rate)) - rate) <= rate * 0.01
    for rate, nearest in ((900000, "888889 or 1000000"), (4000, "5000"), ("2M", "1000000")):
        with pytest.raises(ValueError, match=f"nearest: {nearest}$"):
            timing_for(rate)
    with pytest.raises(ValueError, match="bad bit rate 'fast'"):
        timing_for("fast")


def test_stamps_anchor_unwrap_and_never_run_ahead_or_back():
    c = StampClock()
    assert c.convert(0xFFFFFF00, 100.0) == 100.0                        # anchored at the first frame
    assert c.convert(0x00000100, 100.2) == pytest.approx(100.0512, abs=1e-3)      # 0x200 ticks across the wrap
    assert c.convert(0x00000100 + 20000, 101.0) == 101.0                # 2 s of stamps in 0.8 s: host time
    assert c.convert(0x00000100 + 19000, 101.1) == 101.0                # an older stamp: no step back
    assert c.convert(0x00000100 + 21000, 101.5) == pytest.approx(101.1, abs=1e-3)  # anchor moved back


# One filter of each frame format is checked on the adapter by the bus test.
@pytest.mark.parametrize("filters, code_mask", [
    ([{"can_id": 0x100, "can_mask": 0x7FF, "extended": False},
      {"can_id": 0x101, "can_mask": 0x7FF, "extended": False}], (0x20000000, 0x003FFFFF)),
    ([{"can_id": 0x100, "can_mask": 0x7FF, "extended": False},
      {"can_id": 0x100, "can_mask": 0x7FF, "extended": True}], ACCEPT_ALL),
    (None, ACCEPT_ALL),
])
def test_acceptance_filter_for_python_can_filters(filters, code_mask):
    assert acceptance(filters) == code_mask

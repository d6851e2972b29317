# Bad values are refused before anything is opened (no adapter is needed: nothing gets that far).
import can
import pytest

from vexlo_can import VexloBus


@pytest.mark.parametrize("kwargs, error", [
    (dict(bitrate=float("inf")), "bad bit rate"),
    (dict(bitrate=float("nan")), "bad bit rate"),
    (dict(bitrate="1e400"), "bad bit rate"),
    (dict(bitrate=900000), "nearest: 888889 or 1000000$"),
    (dict(bitrate="2M"), "nearest: 1000000$"),
    (dict(btr=["a", "b"]), "bad btr"),
    (dict(btr=0x10000), "bad btr"),
    (dict(can_filters=[{"can_id": -1, "can_mask": 0x7FF}]), "bad can_filters"),
    (dict(can_filters=[{"can_id": 0x123}]), "bad can_filters"),
    (dict(channel="0:2"), "bad channel"),
    (dict(channel="32:0"), "bad channel"),
    (dict(receive_own_messages=True), "receive_own_messages"),
])
def test_bad_values_refused(kwargs, error):
    with pytest.raises(can.CanInitializationError, match=error):
        VexloBus(**kwargs)

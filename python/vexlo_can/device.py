"""Adapters shared by the buses of one process.

The two channels of an adapter are usually two buses (one can.Bus per channel); they share one
open device. The first bus opens the adapter and the last one to shut down closes it. A channel
belongs to one bus at a time.
"""

import threading

from can import CanInitializationError

from .library import DEV_TYPE

MAX_ADAPTERS = 32

_lock = threading.Lock()
_open = {}  # (library handle id, adapter index) -> set of channels in use


def claim(lib, index, channel):
    """Opens adapter `index` if no bus has it open, and reserves `channel` on it."""
    key = (id(lib), index)
    with _lock:
        channels = _open.get(key)
        if channels is None:
            if not lib.VCI_OpenDevice(DEV_TYPE, index, 0):
                raise CanInitializationError(f"vexlo: no adapter at position {index} (or it is in use)")
            channels = _open[key] = set()
        elif channel in channels:
            raise CanInitializationError(f"vexlo: channel {index}:{channel} is already open")
        channels.add(channel)


def release(lib, index, channel):
    """Gives `channel` back; the adapter is closed when it was the last one in use."""
    key = (id(lib), index)
    with _lock:
        channels = _open.get(key)
        if channels is None or channel not in channels:
            return
        channels.discard(channel)
        lib.VCI_ResetCAN(DEV_TYPE, index, channel)
        if not channels:
            del _open[key]
            lib.VCI_CloseDevice(DEV_TYPE, index)


def present(lib):
    """Positions of the adapters that can be reached: those open here, and those that open."""
    found = []
    with _lock:
        for index in range(MAX_ADAPTERS):
            if (id(lib), index) not in _open:
                if not lib.VCI_OpenDevice(DEV_TYPE, index, 0):
                    break
                lib.VCI_CloseDevice(DEV_TYPE, index)
            found.append(index)
    return found

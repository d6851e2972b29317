"""The adapters and channels open in this process.

The two channels of an adapter are usually two buses (one can.Bus per channel); they share one
open device. The first bus opens the adapter and the last one to let go closes it. A channel
belongs to one bus at a time, whatever library path each bus was given: one registry per process.

A bus dropped without shutdown() lets go from its finaliser, which the collector may run on any
thread: one holding the registry already, or the library's event thread while the holder closing
an adapter waits for it. A finaliser therefore never waits for the registry: its release is
queued, and whoever holds the registry carries it out.
"""

import collections
import ctypes
import threading

from can import CanInitializationError

from .library import DEV_TYPE, OPEN_BUSY, OPEN_DENIED, OPEN_MISSING

MAX_ADAPTERS = 32

_lock = threading.Lock()
_open = {}  # adapter index -> (library, set of channels in use)
_dropped = collections.deque()  # releases to be carried out by the registry's holder


def _open_error(lib, index):
    """Why VCI_OpenDevice just failed on this thread, as a sentence."""
    text = ctypes.c_char_p()
    code = lib.vexlo_open_error(ctypes.byref(text))
    if code == OPEN_MISSING:
        return f"no adapter at position {index}"
    if code == OPEN_BUSY:
        return f"adapter {index} is in use by another program"
    if code == OPEN_DENIED:
        return f"adapter {index}: {text.value.decode(errors='replace')}"
    return f"adapter {index} could not be opened"


def claim(lib, index, channel):
    """Opens adapter `index` if no bus has it open, and reserves `channel` on it."""
    try:
        with _lock:
            _let_go_dropped()
            held = _open.get(index)
            if held is None:
                if not lib.VCI_OpenDevice(DEV_TYPE, index, 0):
                    raise CanInitializationError(f"vexlo: {_open_error(lib, index)}")
                held = _open[index] = (lib, set())
            elif channel in held[1]:
                raise CanInitializationError(f"vexlo: channel {index}:{channel} is already open")
            elif held[0] is not lib:
                raise CanInitializationError(f"vexlo: adapter {index} is open here through {held[0]._name}, "
                                             f"another library than {lib._name}")
            held[1].add(channel)
    finally:
        _drain()


def release(index, channel, wait):
    """Gives `channel` back; the adapter is closed when it was the last one in use. Without `wait`
    (a finaliser) that may be left to the thread that holds the registry."""
    _dropped.append((index, channel))
    if wait:
        with _lock:
            _let_go_dropped()
    _drain()


def _drain():
    # A release queued while another thread held the registry is carried out by that thread here,
    # after it let go, or by the releasing thread itself when nobody holds it.
    while _dropped and _lock.acquire(blocking=False):
        try:
            _let_go_dropped()
        finally:
            _lock.release()


def _let_go_dropped():
    while _dropped:
        index, channel = _dropped.popleft()
        held = _open.get(index)
        if held is None or channel not in held[1]:
            continue
        lib, channels = held
        channels.discard(channel)
        lib.VCI_ResetCAN(DEV_TYPE, index, channel)
        if not channels:
            del _open[index]
            lib.VCI_CloseDevice(DEV_TYPE, index)

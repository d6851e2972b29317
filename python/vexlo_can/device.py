"""The adapters and channels open in this process.

The two channels of an adapter are usually two buses (one can.Bus per channel); they share one
open device. The first bus opens the adapter and the last one to let go closes it. A channel
belongs to one bus at a time, whatever library path each bus was given: one registry per process.

A bus dropped without shutdown() lets go from its finaliser, which the collector may run on a
thread that is inside claim() already; such a release waits in a queue until claim() ends.
"""

import atexit
import collections
import ctypes
import threading

from can import CanInitializationError

from . import library
from .library import DEV_TYPE, OPEN_BUSY, OPEN_DENIED, OPEN_MISSING

MAX_ADAPTERS = 32

_lock = threading.Lock()
_owner = None  # the thread inside the lock
_open = {}  # adapter index -> (library, set of channels in use)
_dropped = collections.deque()  # releases made by a finaliser inside the lock


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


class _Held:
    """The registry's lock; queued releases are carried out by whoever holds it."""

    def __enter__(self):
        global _owner
        _lock.acquire()
        _owner = threading.get_ident()

    def __exit__(self, *exc):
        global _owner
        try:
            while _dropped:
                _let_go(*_dropped.popleft())
        finally:
            _owner = None
            _lock.release()


def claim(lib, index, channel):
    """Opens adapter `index` if no bus has it open, and reserves `channel` on it."""
    with _Held():
        while _dropped:
            _let_go(*_dropped.popleft())
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


def release(index, channel):
    """Gives `channel` back; the adapter is closed when it was the last one in use."""
    if _owner == threading.get_ident():
        _dropped.append((index, channel))
        return
    with _Held():
        _let_go(index, channel)


def _let_go(index, channel):
    held = _open.get(index)
    if held is None or channel not in held[1]:
        return
    lib, channels = held
    channels.discard(channel)
    lib.VCI_ResetCAN(DEV_TYPE, index, channel)
    if not channels:
        del _open[index]
        lib.VCI_CloseDevice(DEV_TYPE, index)


@atexit.register
def _at_exit():
    # Buses still open at exit are closed here or by their finalisers, whichever runs first; then
    # the interpreter can take no more log lines.
    with _Held():
        for index, (_, channels) in list(_open.items()):
            for channel in list(channels):
                _let_go(index, channel)
    library.restore_stdout()

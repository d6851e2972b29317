"""VexloBus: one channel of a vexlo adapter as a python-can bus.

The bus parses python-can's arguments and turns the library's records into messages; the rules of
the adapter (bit timing, acceptance filter, host time, notices) are the library's.
"""

import atexit
import ctypes
import numbers
import re
import select
import threading
import time
import weakref

from can import BusABC, BusState, CanInitializationError, CanOperationError, CanTimeoutError, Message

from . import device, library as libvexlo
from .library import CAN_INIT, CAN_OBJ, CAN_STAT, DEV_TYPE, FRAME_ERROR, GONE, VEXLO_FILTER, VEXLO_FRAME

# A wait for frames looks this often whether another thread shut the bus down: the library's
# descriptor wakes it only when the whole adapter closes.
WAKE = 0.2
# A bus error notice while error passive reads the channel's status (to learn of bus-off) at most
# this often.
STATUS_PERIOD = 0.1
# Error classes and controller states of the Linux error-frame layout the library's notices use.
ERR_CRTL, ERR_BUSOFF, ERR_BUSERROR = 0x004, 0x040, 0x080
CRTL_WARNING, CRTL_PASSIVE = 0x0C, 0x30
SHUT = "vexlo: the bus is shut down"


def parse_channel(channel):
    """0, "1" or "ADAPTER:CH" ("0:1") -> (adapter, channel); CanInitializationError otherwise."""
    if channel is None:
        return 0, 0
    m = None
    if isinstance(channel, int) and not isinstance(channel, bool):
        m = re.fullmatch(r"(?:(\d+):)?(\d+)", str(channel))
    elif isinstance(channel, str):
        m = re.fullmatch(r"\s*(?:(\d+):)?(\d+)\s*", channel)
    if m:
        index, ch = int(m.group(1) or 0), int(m.group(2))
        if ch <= 1 and index < device.MAX_ADAPTERS:
            return index, ch
    raise CanInitializationError(f"vexlo: bad channel {channel!r}: CH or ADAPTER:CH, CH 0 or 1, ADAPTER 0 to 31")


def parse_rate(value):
    """500000, 83333.0, "125k" or "1M" -> bit/s; ValueError for anything else."""
    rate = value
    if isinstance(value, str):
        m = re.fullmatch(r"\s*(\d+(?:\.\d*)?)\s*([kKmM]?)\s*", value)
        rate = m and float(m[1]) * {"": 1, "k": 1e3, "m": 1e6}[m[2].lower()]
    if isinstance(rate, bool) or not isinstance(rate, numbers.Real) or not 1 <= rate <= 0xFFFFFFFF:
        raise ValueError(f"bad bit rate {value!r}: bit/s, for example 500000 or \"125k\"")
    return round(rate)


def _byte(b):
    return isinstance(b, int) and not isinstance(b, bool) and 0 <= b <= 0xFF


def parse_btr(btr):
    """Two timing bytes from 0x001C, "001C", b"\\x00\\x1c" or (0x00, 0x1C); ValueError otherwise."""
    if isinstance(btr, str) and re.fullmatch(r"\s*(0[xX])?[0-9a-fA-F]{1,4}\s*", btr):
        btr = int(btr, 16)
    if isinstance(btr, int) and not isinstance(btr, bool) and 0 <= btr <= 0xFFFF:
        return btr >> 8, btr & 0xFF
    if isinstance(btr, (bytes, bytearray, tuple, list)) and len(btr) == 2 and all(map(_byte, btr)):
        return btr[0], btr[1]
    raise ValueError(f"bad btr {btr!r}: two timing bytes, for example 0x001C")


def parse_filters(filters):
    """python-can's filters -> a VEXLO_FILTER array; ValueError for what is not a filter."""
    try:
        filters = list(filters or ())
        out = (VEXLO_FILTER * len(filters))()
        for f, v in zip(filters, out):
            v.id, v.mask = f["can_id"], f["can_mask"]
            if not all(isinstance(x, int) and 0 <= x <= 0xFFFFFFFF for x in (f["can_id"], f["can_mask"])):
                raise ValueError
            v.extended = (1 if f["extended"] else 0) if "extended" in f else -1
            v.remote = -1
    except (TypeError, KeyError, ValueError, OverflowError):
        raise ValueError(f"bad can_filters {filters!r}: a list of {{'can_id': ID, 'can_mask': MASK}} with "
                         "an optional 'extended': True or False") from None
    return out


def timing_for_rate(lib, rate):
    """The library's timing bytes for `rate`; CanInitializationError naming the nearest rates."""
    btr0, btr1, below, above = ctypes.c_ubyte(), ctypes.c_ubyte(), ctypes.c_uint(), ctypes.c_uint()
    if lib.vexlo_timing_for_rate(rate, btr0, btr1, below, above) != 1:
        near = " or ".join(str(r) for r in (below.value, above.value) if r)
        raise CanInitializationError(f"vexlo: bit rate {rate} is not reachable within 1% by the 16 MHz "
                                     f"controller" + (f"; nearest: {near}" if near else ""))
    return btr0.value, btr1.value


_live = weakref.WeakSet()  # channels not closed yet


@atexit.register
def _at_exit():
    # Buses still open at exit are closed here or by their finalisers, whichever runs first; then
    # the interpreter can take no more log lines.
    for chan in list(_live):
        chan.close(wait=True)
    libvexlo.restore_stdout()


class _Channel:
    """What a bus holds of the library. Released by shutdown() or, for a bus dropped without it, by
    the bus's finaliser, so it must not refer to the bus."""

    def __init__(self, lib, index, ch):
        self.lib, self.index, self.ch = lib, index, ch
        self.lock = threading.Lock()  # held around every library call on the channel
        self.open = True
        _live.add(self)

    def close(self, wait):
        with self.lock:
            if not self.open:
                return
            self.open = False
        device.release(self.index, self.ch, wait)

    def start(self, init):
        lib, i, c = self.lib, self.index, self.ch
        return lib.VCI_InitCAN(DEV_TYPE, i, c, init) and lib.VCI_StartCAN(DEV_TYPE, i, c)


class VexloBus(BusABC):
    """A channel of a vexlo adapter.

    :param channel: "CH" or "ADAPTER:CH": channel 0 or 1 of the adapter at that position (default 0).
    :param bitrate: bit rate, for example 500000 or "125k" (default 500000).
    :param btr: the two raw bus timing bytes instead of a bit rate, for example 0x001C.
    :param listen_only: receive only, never acknowledge or send.
    :param can_filters: python-can filters; set on the adapter's acceptance filter as far as they
        fit, and checked by the library for each frame where they do not.
    :param library: path of libvexlo.so.1 (default: as the loader finds it).
    """

    def __init__(self, channel=0, can_filters=None, bitrate=500000, btr=None, listen_only=False,
                 receive_own_messages=False, library=None, timing=None, fd=False, **kwargs):
        if receive_own_messages:
            raise CanInitializationError("vexlo: receive_own_messages is not possible: the adapter "
                                         "does not receive the frames it sends")
        if fd:
            raise CanInitializationError("vexlo: the adapter has no CAN FD")
        index, ch = parse_channel(channel)
        try:
            if timing is not None:
                btr = (getattr(timing, "btr0", None), getattr(timing, "btr1", None))
            timing = parse_btr(btr) if btr is not None else None
            rate = parse_rate(500000 if bitrate is None else bitrate)
            filters = parse_filters(can_filters)
        except ValueError as e:
            raise CanInitializationError(f"vexlo: {e}") from None
        lib = libvexlo.load(library)
        btr0, btr1 = timing or timing_for_rate(lib, rate)
        self._init = CAN_INIT(BusTiming0=btr0, BusTiming1=btr1, ListenOnly=1 if listen_only else 0)
        self._filters, self._exact = filters, lib.vexlo_filter_fit(filters, len(filters), self._init) == 1

        device.claim(lib, index, ch)
        self._chan = chan = _Channel(lib, index, ch)
        self._finalizer = weakref.finalize(self, chan.close, False)
        self._frame = VEXLO_FRAME()
        try:
            # Frames left by an earlier bus on this channel are not this one's; the first
            # vexlo_receive also lets notices make the descriptor readable.
            while lib.vexlo_receive(index, ch, self._frame, 1, 0) > 0:
                pass
            self._fd = lib.vexlo_receive_fd(index, ch)
            if self._fd < 0 or not chan.start(self._init):
                raise CanInitializationError(f"vexlo: channel {index}:{ch} did not start")
        except BaseException:
            self._release()
            raise
        rate, permille = ctypes.c_uint(), ctypes.c_uint()
        lib.vexlo_rate_for_timing(btr0, btr1, rate, permille)
        self.channel = channel
        self.channel_info = f"vexlo adapter {index} channel {ch}, {rate.value} bit/s"
        self._poll = select.poll()  # holds no descriptor of its own
        self._poll.register(self._fd, select.POLLIN)
        self._state = BusState.ACTIVE
        self._status_at = 0.0
        super().__init__(channel=channel, can_filters=can_filters, **kwargs)

    def _restart(self):
        """Starts the channel anew with self._init; the caller holds the channel's lock."""
        chan = self._chan
        chan.lib.VCI_ResetCAN(DEV_TYPE, chan.index, chan.ch)
        if not chan.start(self._init):
            raise CanOperationError(f"vexlo: channel {chan.index}:{chan.ch} did not start again")

    def _apply_filters(self, filters):
        filters = parse_filters(filters)
        with self._chan.lock:
            if not self._chan.open:
                raise CanOperationError(SHUT)
            init = CAN_INIT.from_buffer_copy(self._init)
            self._filters = filters
            self._exact = self._chan.lib.vexlo_filter_fit(filters, len(filters), init) == 1
            if bytes(init) != bytes(self._init):
                self._init = init
                self._restart()

    # Reception

    def _recv_internal(self, timeout):
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            msg = self._take()
            if msg is not None:
                return msg, True
            left = WAKE if deadline is None else min(WAKE, deadline - time.monotonic())
            if left <= 0:
                return None, True
            self._poll.poll(int(left * 1000) + 1)

    def _take(self):
        """The next frame the filters pass, or error frame; None when none waits."""
        chan, f = self._chan, self._frame
        with chan.lock:
            if not chan.open:
                raise CanOperationError(SHUT)
            while True:
                n = chan.lib.vexlo_receive(chan.index, chan.ch, f, 1, 0)
                if n == GONE:
                    raise CanOperationError(f"vexlo: adapter {chan.index} was unplugged")
                if n < 0:
                    raise CanOperationError(f"vexlo: channel {chan.index}:{chan.ch} cannot be read")
                if n == 0:
                    return None
                o, error = f.frame, bool(f.flags & FRAME_ERROR)
                if error:
                    self._notice(o)
                elif not self._exact and chan.lib.vexlo_filter_pass(self._filters, len(self._filters), o) != 1:
                    continue
                rtr, dlc = bool(o.RemoteFrame), o.DataLength
                return Message(timestamp=f.host_us / 1e6, arbitration_id=o.Id, is_extended_id=bool(o.ExtendedFrame),
                               is_remote_frame=rtr, is_error_frame=error, dlc=dlc,
                               data=None if rtr else bytes(o.Data)[:dlc], channel=self.channel)

    def _notice(self, o):
        """The bus state after a notice; a bus error while error passive may be bus-off."""
        cls, crtl = o.Id, o.Data[1]
        if cls & ERR_CRTL and crtl & CRTL_PASSIVE:
            self._state = BusState.PASSIVE
        elif cls & ERR_CRTL and crtl & CRTL_WARNING:
            self._state = BusState.ACTIVE
        elif cls & ERR_BUSERROR and self._state == BusState.PASSIVE and time.monotonic() >= self._status_at:
            self._status_at = time.monotonic() + STATUS_PERIOD
            if self._bus_off():
                o.Id |= ERR_BUSOFF

    def _bus_off(self):
        """True (and the state ERROR) when the channel's status says bus-off."""
        st, chan = CAN_STAT(), self._chan
        if chan.lib.VCI_ReadCANStatus(DEV_TYPE, chan.index, chan.ch, st) and st.RegStatus & 0x80:
            self._state = BusState.ERROR
            return True
        return False

    @property
    def state(self):
        return self._state

    @state.setter
    def state(self, new_state):
        # python-can's way to ask for a listen-only bus (PASSIVE) or an acknowledging one (ACTIVE).
        with self._chan.lock:
            if not self._chan.open:
                raise CanOperationError(SHUT)
            if new_state not in (BusState.ACTIVE, BusState.PASSIVE):
                raise ValueError(f"vexlo: cannot set the state {new_state}")
            listen = 1 if new_state == BusState.PASSIVE else 0
            if listen != self._init.ListenOnly:
                self._init.ListenOnly = listen
                self._restart()

    def fileno(self):
        """The library's readiness descriptor: readable while a frame or error frame waits."""
        with self._chan.lock:
            if not self._chan.open:
                raise CanOperationError(SHUT)
            return self._fd

    # Transmission

    def send(self, msg, timeout=None):
        if msg.is_fd or msg.is_error_frame:
            raise CanOperationError("vexlo: the adapter sends classic CAN data and remote frames only")
        limit = 0x1FFFFFFF if msg.is_extended_id else 0x7FF
        if not 0 <= msg.arbitration_id <= limit or not 0 <= msg.dlc <= 8 or len(msg.data) > 8:
            raise CanOperationError(f"vexlo: cannot send {msg!r}: identifier or length out of range")
        tx = CAN_OBJ(Id=msg.arbitration_id, ExtendedFrame=msg.is_extended_id, RemoteFrame=msg.is_remote_frame,
                     DataLength=msg.dlc)
        ctypes.memmove(tx.Data, bytes(msg.data), len(msg.data))
        chan = self._chan
        deadline = None if timeout is None else time.monotonic() + timeout
        pause = 0.0005
        while True:
            with chan.lock:
                if not chan.open:
                    raise CanOperationError(SHUT)
                if chan.lib.VCI_Transmit(DEV_TYPE, chan.index, chan.ch, tx, 1):
                    return
                reason, retry = self._refusal()
            if not retry:
                raise CanOperationError(f"vexlo: frame not sent: {reason}")
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                raise CanTimeoutError(f"vexlo: frame not accepted within {timeout} s: {reason}")
            time.sleep(pause if left is None else min(pause, left))
            pause = min(pause * 2, 0.02)

    def _refusal(self):
        """Why the adapter took no frame, and whether trying again can help."""
        chan, st = self._chan, CAN_STAT()
        if self._init.ListenOnly:
            return "the channel is listen-only", False
        if chan.lib.vexlo_present(chan.index) == GONE:
            return f"adapter {chan.index} was unplugged", False
        if not chan.lib.VCI_ReadCANStatus(DEV_TYPE, chan.index, chan.ch, st):
            return f"adapter {chan.index} does not answer", False
        if st.RegStatus & 0x80:
            self._state = BusState.ERROR
            return f"bus-off (transmit error counter {st.RegTxErrCount})", False
        if st.RegTxErrCount >= 128:
            return f"error passive, no node acknowledges (transmit error counter {st.RegTxErrCount})", True
        return "transmit buffer full", True

    # Lifetime

    def shutdown(self):
        super().shutdown()
        self._release()

    def _release(self):
        if self._finalizer.detach():
            self._chan.close(wait=True)

    @staticmethod
    def _detect_available_configs():
        try:
            lib = libvexlo.load()
        except Exception:  # no library: nothing to offer
            return []
        return [{"interface": "vexlo", "channel": f"{index}:{ch}"}
                for index in range(max(lib.vexlo_count(), 0)) for ch in (0, 1)]

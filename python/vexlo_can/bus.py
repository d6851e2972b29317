"""VexloBus: one channel of a vexlo adapter as a python-can bus."""

import collections
import ctypes
import os
import re
import select
import struct
import time

from can import BusABC, BusState, CanInitializationError, CanOperationError, CanTimeoutError, Message

from . import bitrate as rates, device, library as libvexlo
from .filters import acceptance
from .library import CAN_ERR, CAN_INIT, CAN_OBJ, CAN_STAT, DEV_TYPE, VEXLO_STATS
from .stamps import StampClock

# A CAN_OBJ as bytes: identifier, stamp, stamp valid, transmit mode, remote, extended, length, data.
_FRAME = struct.Struct("<IIBBBBB8s3x")
# How often notices (and frames lost in the receive queue) are looked for: every 100 ms while
# waiting, and every 256 frames while frames keep coming.
NOTICE_PERIOD = 0.1
NOTICE_FRAMES = 256
# Frames taken from the library per call.
BATCH = 64

# Error frames follow the layout Linux CAN drivers use: the class in the identifier, details in the
# data (byte 1 controller state, bytes 6 and 7 the transmit and receive error counters).
ERR_LOSTARB, ERR_CRTL, ERR_PROT, ERR_BUSOFF, ERR_BUSERROR, ERR_CNT = 0x2, 0x4, 0x8, 0x40, 0x80, 0x200
CRTL_RX_OVERFLOW, CRTL_WARNING, CRTL_PASSIVE, CRTL_ACTIVE = 0x01, 0x0C, 0x30, 0x40


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


def parse_btr(btr):
    """Two timing bytes from 0x001C, "001C", b"\\x00\\x1c" or (0x00, 0x1C)."""
    if isinstance(btr, str):
        btr = int(btr, 16)
    if isinstance(btr, int) and 0 <= btr <= 0xFFFF:
        return btr >> 8, btr & 0xFF
    if isinstance(btr, (bytes, bytearray, tuple, list)) and len(btr) == 2 and all(0 <= b <= 0xFF for b in btr):
        return btr[0], btr[1]
    raise ValueError(f"bad btr {btr!r}: two timing bytes, for example 0x001C")


class VexloBus(BusABC):
    """A channel of a vexlo adapter.

    :param channel: "CH" or "ADAPTER:CH": channel 0 or 1 of the adapter at that position (default 0).
    :param bitrate: bit rate, for example 500000 or "125k" (default 500000).
    :param btr: the two raw bus timing bytes instead of a bit rate, for example 0x001C.
    :param listen_only: receive only, never acknowledge or send.
    :param can_filters: python-can filters; set on the adapter's acceptance filter as far as they
        fit and always checked in software.
    :param library: path of libvexlo.so.1 (default: as the loader finds it).
    """

    _open = False

    def __init__(self, channel=0, can_filters=None, bitrate=500000, btr=None, listen_only=False,
                 receive_own_messages=False, library=None, timing=None, fd=False, **kwargs):
        if receive_own_messages:
            raise CanInitializationError("vexlo: receive_own_messages is not possible: the adapter "
                                         "does not receive the frames it sends")
        if fd:
            raise CanInitializationError("vexlo: the adapter has no CAN FD")
        self._index, self._ch = parse_channel(channel)
        try:
            if timing is not None:
                btr0, btr1 = timing.btr0, timing.btr1
            elif btr is not None:
                btr0, btr1 = parse_btr(btr)
            else:
                btr0, btr1 = rates.timing_for(500000 if bitrate is None else bitrate)
        except ValueError as e:
            raise CanInitializationError(f"vexlo: {e}") from None
        self._lib = lib = libvexlo.load(library)
        self._timing = (btr0, btr1)
        self._listen_only = bool(listen_only)
        self._hw_filter = acceptance(can_filters)

        device.claim(lib, self._index, self._ch)
        self._open = True
        try:
            self._start()
            self._fd = lib.vexlo_receive_fd(self._index, self._ch)
            if self._fd < 0:
                raise CanInitializationError(f"vexlo: no receive descriptor for channel {self._index}:{self._ch}")
        except BaseException:
            self._open = False
            device.release(lib, self._index, self._ch)
            raise

        self.channel = channel
        self.channel_info = (f"vexlo adapter {self._index} channel {self._ch}, "
                             f"{rates.timing_rate(btr0, btr1):.0f} bit/s")
        self._poll = select.poll()
        self._poll.register(self._fd, select.POLLIN)
        self._rx = (CAN_OBJ * BATCH)()
        self._frames = collections.deque()
        self._mirror = self._epoll = None
        self._tx = CAN_OBJ()
        self._tx_p = ctypes.pointer(self._tx)
        self._pending = 0
        self._clock = StampClock()
        self._errors = collections.deque()
        self._state = BusState.ACTIVE
        self._stats = VEXLO_STATS()
        self._seen = self._read_counters()  # the counters run from the adapter's open
        self._next_check = time.monotonic() + NOTICE_PERIOD
        self._countdown = NOTICE_FRAMES
        super().__init__(channel=channel, can_filters=can_filters, **kwargs)

    # Channel set-up

    def _start(self):
        init = CAN_INIT(AcceptCode=self._hw_filter[0], AcceptMask=self._hw_filter[1], FilterMode=1,
                        BusTiming0=self._timing[0], BusTiming1=self._timing[1],
                        ListenOnly=1 if self._listen_only else 0)
        lib, i, c = self._lib, self._index, self._ch
        if not lib.VCI_InitCAN(DEV_TYPE, i, c, ctypes.byref(init)) or not lib.VCI_StartCAN(DEV_TYPE, i, c):
            raise CanInitializationError(f"vexlo: channel {i}:{c} did not start")

    def _apply_filters(self, filters):
        wanted = acceptance(filters)
        if not self._open or wanted == self._hw_filter:
            return
        self._hw_filter = wanted
        self._lib.VCI_ResetCAN(DEV_TYPE, self._index, self._ch)
        try:
            self._start()
        except CanInitializationError as e:
            raise CanOperationError(str(e)) from None

    # Reception

    def _recv_internal(self, timeout):
        if not self._open:
            raise CanOperationError("vexlo: the bus is shut down")
        lib, i, c = self._lib, self._index, self._ch
        while True:
            if self._errors:
                msg = self._errors.popleft()
                self._settle()
                return msg, False
            if self._frames:
                msg = self._frames.popleft()
                self._settle()
                return msg, False
            if not self._pending:
                self._pending = lib.VCI_GetReceiveNum(DEV_TYPE, i, c)
                if not self._pending:
                    # VCI_Receive would sleep on an empty queue: wait on the descriptor instead.
                    if not self._wait(timeout):
                        return None, False
                    continue
            self._take()

    def _take(self):
        """Moves up to BATCH waiting frames from the library into self._frames as messages."""
        n = self._lib.VCI_Receive(DEV_TYPE, self._index, self._ch, self._rx, min(self._pending, BATCH), 0)
        self._pending = self._pending - n if n else 0
        now, convert, channel = time.time(), self._clock.convert, self.channel
        self._frames.extend(
            Message(timestamp=convert(stamp, now), arbitration_id=fid, is_extended_id=bool(ext),
                    is_remote_frame=bool(rtr), dlc=dlc, data=None if rtr else data[:dlc], channel=channel)
            for fid, stamp, _, _, rtr, ext, dlc, data in _FRAME.iter_unpack(ctypes.string_at(self._rx, 24 * n)))
        self._countdown -= n
        if self._countdown <= 0:
            self._check_notices()
        if self._mirror is not None and self._frames:
            os.eventfd_write(self._mirror, 1)

    def _wait(self, timeout):
        """Waits for frames or notices; False when `timeout` passed with neither."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            left = NOTICE_PERIOD if deadline is None else min(NOTICE_PERIOD, deadline - time.monotonic())
            if self._poll.poll(max(0, int(left * 1000 + 0.999))):
                self._pending = self._lib.VCI_GetReceiveNum(DEV_TYPE, self._index, self._ch)
                if self._pending:
                    return True
            if time.monotonic() >= self._next_check:
                self._check_notices()
                if self._errors:
                    return True
            if not self._open:
                raise CanOperationError("vexlo: the bus is shut down")
            if deadline is not None and time.monotonic() >= deadline:
                return False

    def _read_counters(self):
        st = self._stats
        st.size = ctypes.sizeof(VEXLO_STATS)
        if not self._lib.vexlo_get_stats(self._index, self._ch, ctypes.byref(st)):
            raise CanOperationError(f"vexlo: adapter {self._index} is gone")
        return st.rx_lost, tuple(st.notices)

    def _check_notices(self):
        """Turns new notices and frames lost in the receive queue into error frames and a state."""
        self._next_check = time.monotonic() + NOTICE_PERIOD
        self._countdown = NOTICE_FRAMES
        seen, self._seen = self._seen, self._read_counters()
        if seen == self._seen:
            return
        lost = self._seen[0] - seen[0]
        overrun, warning, passive, arblost, buserror = (b - a for a, b in zip(seen[1], self._seen[1]))
        err = CAN_ERR()
        self._lib.VCI_ReadErrInfo(DEV_TYPE, self._index, self._ch, ctypes.byref(err))
        if lost or overrun:
            self._error(ERR_CRTL, {1: CRTL_RX_OVERFLOW})
        if arblost:
            self._error(ERR_LOSTARB, {0: err.Code8Data if err.ErrorCode == 8 else 0})
        if buserror:
            self._error(ERR_PROT | ERR_BUSERROR, {})
        if warning or passive or buserror:
            self._update_state(warning, passive)

    def _update_state(self, warning, passive):
        st = CAN_STAT()
        if not self._lib.VCI_ReadCANStatus(DEV_TYPE, self._index, self._ch, ctypes.byref(st)):
            return
        tec, rec = st.RegTxErrCount, st.RegRxErrCount
        if st.RegStatus & 0x80:
            state, cls, crtl = BusState.ERROR, ERR_BUSOFF, 0
        elif tec >= 128 or rec >= 128:
            state, cls, crtl = BusState.PASSIVE, ERR_CRTL, CRTL_PASSIVE
        else:
            state, cls, crtl = BusState.ACTIVE, ERR_CRTL, CRTL_WARNING if st.RegStatus & 0x40 else CRTL_ACTIVE
        if state != self._state or warning:
            self._error(cls | ERR_CNT, {1: crtl, 6: tec, 7: rec})
        self._state = state

    def _error(self, cls, fields):
        data = bytearray(8)
        for k, v in fields.items():
            data[k] = v
        self._errors.append(Message(timestamp=time.time(), arbitration_id=cls, is_extended_id=False,
                                    is_error_frame=True, dlc=8, data=data, channel=self.channel))
        if self._mirror is not None:
            os.eventfd_write(self._mirror, 1)

    @property
    def state(self):
        return self._state

    @state.setter
    def state(self, new_state):
        # python-can's way to ask for a listen-only bus (PASSIVE) or an acknowledging one (ACTIVE).
        if new_state not in (BusState.ACTIVE, BusState.PASSIVE):
            raise ValueError(f"vexlo: cannot set the state {new_state}")
        listen = new_state == BusState.PASSIVE
        if listen != self._listen_only:
            self._listen_only = listen
            self._lib.VCI_ResetCAN(DEV_TYPE, self._index, self._ch)
            self._start()

    def fileno(self):
        """A descriptor that polls readable while a message waits: the library's readiness
        descriptor and, for messages already taken from the library, one of our own, joined."""
        if self._epoll is None:
            self._mirror = os.eventfd(0, os.EFD_NONBLOCK)
            self._epoll = select.epoll()
            self._epoll.register(self._fd, select.EPOLLIN)
            self._epoll.register(self._mirror, select.EPOLLIN)
            if self._frames or self._errors:
                os.eventfd_write(self._mirror, 1)
        return self._epoll.fileno()

    def _settle(self):
        if self._mirror is not None and not self._frames and not self._errors:
            try:
                os.eventfd_read(self._mirror)
            except BlockingIOError:
                pass

    # Transmission

    def send(self, msg, timeout=None):
        if not self._open:
            raise CanOperationError("vexlo: the bus is shut down")
        if msg.is_fd or msg.is_error_frame:
            raise CanOperationError("vexlo: the adapter sends classic CAN data and remote frames only")
        limit = 0x1FFFFFFF if msg.is_extended_id else 0x7FF
        if not 0 <= msg.arbitration_id <= limit or not 0 <= msg.dlc <= 8 or len(msg.data) > 8:
            raise CanOperationError(f"vexlo: cannot send {msg!r}: identifier or length out of range")
        tx = self._tx
        tx.Id = msg.arbitration_id
        tx.ExtendedFrame = 1 if msg.is_extended_id else 0
        tx.RemoteFrame = 1 if msg.is_remote_frame else 0
        tx.DataLength = msg.dlc
        ctypes.memmove(tx.Data, bytes(msg.data).ljust(8, b"\0"), 8)
        deadline = None if timeout is None else time.monotonic() + timeout
        pause = 0.0005
        while not self._lib.VCI_Transmit(DEV_TYPE, self._index, self._ch, self._tx_p, 1):
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
        if not self._open:
            return "the bus is shut down", False
        if self._listen_only:
            return "the channel is listen-only", False
        st = CAN_STAT()
        if not self._lib.VCI_ReadCANStatus(DEV_TYPE, self._index, self._ch, ctypes.byref(st)):
            return f"adapter {self._index} does not answer", False
        if st.RegStatus & 0x80:
            return f"bus-off (transmit error counter {st.RegTxErrCount})", False
        if st.RegTxErrCount >= 128:
            return f"error passive, no node acknowledges (transmit error counter {st.RegTxErrCount})", True
        return "transmit buffer full", True

    # Lifetime

    def shutdown(self):
        super().shutdown()
        if self._open:
            self._open = False
            device.release(self._lib, self._index, self._ch)
            if self._epoll is not None:
                self._epoll.close()
                os.close(self._mirror)

    @staticmethod
    def _detect_available_configs():
        try:
            lib = libvexlo.load()
        except Exception:  # no library: nothing to offer
            return []
        return [{"interface": "vexlo", "channel": f"{index}:{ch}"}
                for index in device.present(lib) for ch in (0, 1)]

"""ctypes binding of libvexlo.so.1: the records and the calls the bus uses.

Each library is bound once per process, however many paths name it, and from then on hands its
log lines to Python's logging (logger "can.vexlo", level DEBUG) instead of standard output: the
bus says why something failed in its exceptions, and the library's own lines are for looking
closer (logging.getLogger("can.vexlo").setLevel(logging.DEBUG) with a handler shows them).
"""

import ctypes
import logging
import threading

from can import CanInterfaceNotImplementedError

DEFAULT_LIBRARY = "libvexlo.so.1"
DEV_TYPE = 4  # the two-channel adapter
GONE = -2  # vexlo_receive and vexlo_present once the adapter was unplugged
FRAME_ERROR = 1  # VEXLO_FRAME.flags of an error frame
OPEN_MISSING, OPEN_BUSY, OPEN_DENIED = 1, 2, 3  # vexlo_open_error

log = logging.getLogger("can.vexlo")


class CAN_OBJ(ctypes.Structure):
    _fields_ = [
        ("Id", ctypes.c_uint),
        ("TimeStamp", ctypes.c_uint),
        ("TimeStampValid", ctypes.c_ubyte),
        ("TransmitMode", ctypes.c_ubyte),
        ("RemoteFrame", ctypes.c_ubyte),
        ("ExtendedFrame", ctypes.c_ubyte),
        ("DataLength", ctypes.c_ubyte),
        ("Data", ctypes.c_ubyte * 8),
        ("Reserved", ctypes.c_ubyte * 3),
    ]


class CAN_INIT(ctypes.Structure):
    _fields_ = [
        ("AcceptCode", ctypes.c_uint),
        ("AcceptMask", ctypes.c_uint),
        ("Reserved", ctypes.c_uint),
        ("FilterMode", ctypes.c_ubyte),
        ("BusTiming0", ctypes.c_ubyte),
        ("BusTiming1", ctypes.c_ubyte),
        ("ListenOnly", ctypes.c_ubyte),
    ]


class CAN_STAT(ctypes.Structure):
    _fields_ = [
        ("Reserved0", ctypes.c_ubyte),
        ("RegMode", ctypes.c_ubyte),
        ("RegStatus", ctypes.c_ubyte),
        ("RegArbLost", ctypes.c_ubyte),
        ("RegErrCode", ctypes.c_ubyte),
        ("RegErrWarnLimit", ctypes.c_ubyte),
        ("RegRxErrCount", ctypes.c_ubyte),
        ("RegTxErrCount", ctypes.c_ubyte),
        ("CounterPercent", ctypes.c_uint),
    ]


class VEXLO_FRAME(ctypes.Structure):
    _fields_ = [
        ("frame", CAN_OBJ),
        ("flags", ctypes.c_uint),
        ("reserved", ctypes.c_uint),
        ("host_us", ctypes.c_ulonglong),
    ]


class VEXLO_FILTER(ctypes.Structure):
    _fields_ = [
        ("id", ctypes.c_uint),
        ("mask", ctypes.c_uint),
        ("extended", ctypes.c_byte),
        ("remote", ctypes.c_byte),
        ("inverse", ctypes.c_ubyte),
        ("reserved", ctypes.c_ubyte),
    ]


for _rec, _size in ((CAN_OBJ, 24), (CAN_INIT, 16), (CAN_STAT, 12), (VEXLO_FRAME, 40), (VEXLO_FILTER, 12)):
    assert ctypes.sizeof(_rec) == _size, _rec.__name__

LOG_FN = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_char_p)

_U, _I, _P = ctypes.c_uint, ctypes.c_int, ctypes.POINTER
_UB = _P(ctypes.c_ubyte)
_SIGNATURES = {
    "VCI_OpenDevice": (_U, [_U, _U, _U]),
    "VCI_CloseDevice": (_U, [_U, _U]),
    "VCI_InitCAN": (_U, [_U, _U, _U, _P(CAN_INIT)]),
    "VCI_StartCAN": (_U, [_U, _U, _U]),
    "VCI_ResetCAN": (_U, [_U, _U, _U]),
    "VCI_Transmit": (_U, [_U, _U, _U, _P(CAN_OBJ), _U]),
    "VCI_ReadCANStatus": (_U, [_U, _U, _U, _P(CAN_STAT)]),
    "vexlo_receive_fd": (_I, [_U, _U]),
    "vexlo_version": (ctypes.c_char_p, []),
    "vexlo_receive": (_I, [_U, _U, _P(VEXLO_FRAME), _U, _I]),
    "vexlo_present": (_I, [_U]),
    "vexlo_timing_for_rate": (_I, [_U, _UB, _UB, _P(_U), _P(_U)]),
    "vexlo_rate_for_timing": (_I, [ctypes.c_ubyte, ctypes.c_ubyte, _P(_U), _P(_U)]),
    "vexlo_filter_fit": (_I, [_P(VEXLO_FILTER), _U, _P(CAN_INIT)]),
    "vexlo_filter_pass": (_I, [_P(VEXLO_FILTER), _U, _P(CAN_OBJ)]),
    "vexlo_count": (_I, []),
    "vexlo_open_error": (_I, [_P(ctypes.c_char_p)]),
    "vexlo_set_log": (None, [LOG_FN, ctypes.c_void_p]),
}

_by_path = {}
_by_handle = {}  # one bound library per library loaded in the process
_lock = threading.Lock()


@LOG_FN
def _log_line(_user, _level, line):
    log.debug("%s", line.decode(errors="replace"))


def load(path=None):
    """The library at `path` (default: libvexlo.so.1 as the loader finds it), bound once."""
    path = path or DEFAULT_LIBRARY
    with _lock:
        if path in _by_path:
            return _by_path[path]
        try:
            lib = ctypes.CDLL(path)
        except OSError as e:
            raise CanInterfaceNotImplementedError(f"vexlo: cannot load {path}: {e}") from None
        # The loader hands out one handle for one file, whatever path reached it.
        if lib._handle not in _by_handle:
            for name, (restype, argtypes) in _SIGNATURES.items():
                try:
                    fn = getattr(lib, name)
                except AttributeError:
                    raise CanInterfaceNotImplementedError(
                        f"vexlo: {path} has no {name} (a newer libvexlo is needed)") from None
                fn.restype = restype
                fn.argtypes = argtypes
            lib.vexlo_set_log(_log_line, None)
            _by_handle[lib._handle] = lib
        _by_path[path] = _by_handle[lib._handle]
        return _by_path[path]


def restore_stdout():
    """Gives the libraries' lines back to standard output: a finalised interpreter cannot take them."""
    with _lock:
        for lib in _by_handle.values():
            lib.vexlo_set_log(LOG_FN(), None)

"""ctypes binding of libvexlo.so.1: the records and the calls the bus uses."""

import ctypes
import threading

from can import CanInterfaceNotImplementedError

DEFAULT_LIBRARY = "libvexlo.so.1"
DEV_TYPE = 4  # the two-channel adapter


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


class CAN_ERR(ctypes.Structure):
    _fields_ = [
        ("ErrorCode", ctypes.c_uint),
        ("Code4Data", ctypes.c_ubyte * 3),
        ("Code8Data", ctypes.c_ubyte),
    ]


class VEXLO_STATS(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_uint),
        ("queue_peak", ctypes.c_uint),
        ("rx_frames", ctypes.c_ulonglong),
        ("rx_lost", ctypes.c_ulonglong),
        ("tx_frames", ctypes.c_ulonglong),
        ("bad_messages", ctypes.c_ulonglong),
        ("notices", ctypes.c_ulonglong * 5),
    ]


for _rec, _size in ((CAN_OBJ, 24), (CAN_INIT, 16), (CAN_STAT, 12), (CAN_ERR, 8), (VEXLO_STATS, 80)):
    assert ctypes.sizeof(_rec) == _size, _rec.__name__

_U = ctypes.c_uint
_SIGNATURES = {
    "VCI_OpenDevice": (_U, [_U, _U, _U]),
    "VCI_CloseDevice": (_U, [_U, _U]),
    "VCI_InitCAN": (_U, [_U, _U, _U, ctypes.POINTER(CAN_INIT)]),
    "VCI_StartCAN": (_U, [_U, _U, _U]),
    "VCI_ResetCAN": (_U, [_U, _U, _U]),
    "VCI_Transmit": (_U, [_U, _U, _U, ctypes.POINTER(CAN_OBJ), _U]),
    "VCI_Receive": (_U, [_U, _U, _U, ctypes.POINTER(CAN_OBJ), _U, _U]),
    "VCI_GetReceiveNum": (_U, [_U, _U, _U]),
    "VCI_ReadCANStatus": (_U, [_U, _U, _U, ctypes.POINTER(CAN_STAT)]),
    "VCI_ReadErrInfo": (_U, [_U, _U, _U, ctypes.POINTER(CAN_ERR)]),
    "vexlo_receive_fd": (ctypes.c_int, [_U, _U]),
    "vexlo_get_stats": (_U, [_U, _U, ctypes.POINTER(VEXLO_STATS)]),
    "vexlo_version": (ctypes.c_char_p, []),
}

_loaded = {}
_lock = threading.Lock()


def load(path=None):
    """The library at `path` (default: libvexlo.so.1 as the loader finds it), loaded once."""
    path = path or DEFAULT_LIBRARY
    with _lock:
        if path not in _loaded:
            try:
                lib = ctypes.CDLL(path)
            except OSError as e:
                raise CanInterfaceNotImplementedError(f"vexlo: cannot load {path}: {e}") from None
            for name, (restype, argtypes) in _SIGNATURES.items():
                try:
                    fn = getattr(lib, name)
                except AttributeError:
                    raise CanInterfaceNotImplementedError(
                        f"vexlo: {path} has no {name} (version 1.0.0 or later is needed)") from None
                fn.restype = restype
                fn.argtypes = argtypes
            _loaded[path] = lib
        return _loaded[path]

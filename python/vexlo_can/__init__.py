"""python-can interface for vexlo adapters: can.Bus(interface="vexlo", channel="0:1")."""

from .bus import VexloBus

__all__ = ["VexloBus"]


def __getattr__(name):
    # The version is the library's: the package is its front end and is built with it.
    if name == "__version__":
        from .library import load
        return load().vexlo_version().decode()
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")

"""python-can interface for vexlo adapters: can.Bus(interface="vexlo", channel="0:1")."""

from .bus import VexloBus

__version__ = "1.0.0"
__all__ = ["VexloBus"]

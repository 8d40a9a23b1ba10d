"""tamrik: field-bus gateways from Python, over the driver library libtamrik.so.

    import tamrik
    with tamrik.Gateway.tcp("127.0.0.1", 5020) as gw:
        print(gw.identity().id_string, gw.inputs().hex())

Every failure raises :class:`TamrikError` (or one of its kinds). ``tamrik.aio`` has the same
gateway for asyncio, ``tamrik.sim`` the simulator for tests, and the pytest plugin gives the
fixtures ``tamrik_sim`` and ``tamrik_gateway``. See docs/python.md.
"""

from ._library import VERSION, LibraryNotFound, library_path
from .errors import (
    BadArgumentError,
    BusyError,
    FrameError,
    LinkError,
    NoAnswerError,
    RefusedError,
    TamrikError,
)
from .gateway import ErrorEntry, Gateway, Identity, Link, Module, Stats

__version__ = VERSION

__all__ = [
    "BadArgumentError",
    "BusyError",
    "ErrorEntry",
    "FrameError",
    "Gateway",
    "Identity",
    "LibraryNotFound",
    "Link",
    "LinkError",
    "Module",
    "NoAnswerError",
    "RefusedError",
    "Stats",
    "TamrikError",
    "library_path",
]

"""Finding and loading libtamrik.so, and the C declarations the package calls.

The library is looked for in this order: the file named by ``$TAMRIK_LIBRARY``; a copy (or
link) installed beside the package; the system's loader (``LD_LIBRARY_PATH``, the loader's
cache); the build folders of the checkout the package lies in. It is loaded on first use, so
that ``import tamrik`` works on a machine without it.
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import pathlib
import threading

from ._methods import METHODS

PACKAGE_DIR = pathlib.Path(__file__).resolve().parent
# The release of the C interface these declarations are written for; the library's SONAME
# carries its major release, which is the one that must match.
VERSION = "2.0.0"
SONAME = "libtamrik.so." + VERSION.split(".")[0]


class LibraryNotFound(ImportError):
    """libtamrik.so could not be found or loaded; the message lists where it was looked for."""


class Port(ctypes.Structure):
    _fields_ = [("port", ctypes.c_int32), ("device", ctypes.c_char_p)]


class Config(ctypes.Structure):
    """tamrik_config of tamrik.h."""

    _fields_ = [
        ("struct_size", ctypes.c_uint32),
        ("version", ctypes.c_int32),
        ("logfile", ctypes.c_int32),
        ("com_port", ctypes.c_int32),
        ("baudrate", ctypes.c_int32),
        ("read_interval_ms", ctypes.c_int32),
        ("read_total_multiplier_ms", ctypes.c_int32),
        ("read_total_constant_ms", ctypes.c_int32),
        ("read_total_constant_fw_ms", ctypes.c_int32),
        ("stream_segment_sleep_ms", ctypes.c_int32),
        ("socket_answer_ms", ctypes.c_int32),
        ("ports", ctypes.POINTER(Port)),
        ("port_count", ctypes.c_int32),
        ("privileged_bits", ctypes.c_uint8 * 32),
        ("demo_file", ctypes.c_char_p),
        ("boot_file", ctypes.c_char_p),
    ]


STATS_CODES = 16


class Stats(ctypes.Structure):
    """tamrik_stats of tamrik.h."""

    _fields_ = [
        ("struct_size", ctypes.c_uint32),
        ("exchanges", ctypes.c_uint64),
        ("answers", ctypes.c_uint64),
        ("failures", ctypes.c_uint64),
        ("dropped_frames", ctypes.c_uint64),
        ("bytes_out", ctypes.c_uint64),
        ("bytes_in", ctypes.c_uint64),
        ("last_answer_unix_ms", ctypes.c_int64),
        ("failure_code_count", ctypes.c_uint32),
        ("failure_codes", ctypes.c_uint32 * STATS_CODES),
        ("failure_counts", ctypes.c_uint64 * STATS_CODES),
        ("other_failures", ctypes.c_uint64),
    ]


TRACE_SINK = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p)

# The C types of the method table as ctypes passes them. Texts the driver fills are plain
# character arrays (no terminating zero), so they go as pointers, not as c_char_p.
C_TYPES = {
    "int32_t": ctypes.c_int32,
    "int32_t*": ctypes.POINTER(ctypes.c_int32),
    "int16_t*": ctypes.POINTER(ctypes.c_int16),
    "uint8_t*": ctypes.POINTER(ctypes.c_uint8),
    "char*": ctypes.POINTER(ctypes.c_char),
    "const char*": ctypes.c_char_p,
}


def _declare(lib: ctypes.CDLL) -> None:
    lib.tamrik_version.argtypes = []
    lib.tamrik_version.restype = ctypes.c_char_p
    lib.tamrik_config_defaults.argtypes = [ctypes.POINTER(Config)]
    lib.tamrik_config_defaults.restype = None
    lib.tamrik_create_with.argtypes = [ctypes.POINTER(Config)]
    lib.tamrik_create_with.restype = ctypes.c_void_p
    lib.tamrik_release.argtypes = [ctypes.c_void_p]
    lib.tamrik_release.restype = None
    lib.tamrik_set_trace.argtypes = [TRACE_SINK, ctypes.c_void_p]
    lib.tamrik_set_trace.restype = None
    for name in ("tamrik_result_name", "tamrik_result_text"):
        getattr(lib, name).argtypes = [ctypes.c_uint32]
        getattr(lib, name).restype = ctypes.c_char_p
    lib.tamrik_diagnosis_length.argtypes = [ctypes.c_uint32]
    lib.tamrik_diagnosis_length.restype = ctypes.c_uint32
    lib.tamrik_get_stats.argtypes = [ctypes.c_void_p, ctypes.POINTER(Stats)]
    lib.tamrik_get_stats.restype = ctypes.c_uint32
    for _dispid, name, params in METHODS:
        function = getattr(lib, "tamrik_" + name)
        function.argtypes = [ctypes.c_void_p] + [C_TYPES[ctype] for ctype, _ in params]
        function.restype = ctypes.c_uint32


def _checkout_candidates() -> list[pathlib.Path]:
    # python/tamrik/ inside a checkout: the build folders lie two levels up, "build" first,
    # then the others by the age of their library, newest first.
    root = PACKAGE_DIR.parent.parent
    if not (root / "comserver" / "MethodTable.h").exists():
        return []
    others = [p / SONAME for p in root.glob("build?*") if (p / SONAME).exists()]
    others.sort(key=lambda p: p.stat().st_mtime, reverse=True)
    return [root / "build" / SONAME] + others


def candidates() -> list[str]:
    """Where the library is looked for, in order (the loader's own search as a bare name)."""
    found = [str(PACKAGE_DIR / SONAME), str(PACKAGE_DIR / "libtamrik.so"), SONAME]
    system = ctypes.util.find_library("tamrik")
    if system and system != SONAME:
        found.append(system)
    return found + [str(p) for p in _checkout_candidates()]


def _load() -> ctypes.CDLL:
    named = os.environ.get("TAMRIK_LIBRARY")
    if named:
        try:
            lib = ctypes.CDLL(named)
        except OSError as error:
            raise LibraryNotFound(f"$TAMRIK_LIBRARY={named} cannot be loaded: {error}") from error
    else:
        tried = []
        lib = None
        for candidate in candidates():
            if "/" in candidate and not os.path.exists(candidate):
                tried.append(candidate)
                continue
            try:
                lib = ctypes.CDLL(candidate)
                break
            except OSError as error:
                tried.append(f"{candidate} ({error})")
        if lib is None:
            raise LibraryNotFound(
                "libtamrik.so not found; set $TAMRIK_LIBRARY to its path. Looked for: " + ", ".join(tried)
            )
    if not hasattr(lib, "tamrik_version"):
        raise LibraryNotFound(f"{lib._name} is of a release before 2.0.0; this package needs {SONAME}")
    _declare(lib)
    release = lib.tamrik_version().decode()
    if release.split(".")[0] != VERSION.split(".")[0]:
        raise LibraryNotFound(f"{lib._name} is of release {release}; this package needs {SONAME}")
    probe = Config()
    lib.tamrik_config_defaults(ctypes.byref(probe))
    if probe.struct_size != ctypes.sizeof(Config):
        raise LibraryNotFound(
            f"{lib._name}: tamrik_config has {probe.struct_size} bytes there, {ctypes.sizeof(Config)} here: "
            "the library and the package are of different versions"
        )
    return lib


_lock = threading.Lock()
_lib: ctypes.CDLL | None = None


def library() -> ctypes.CDLL:
    """The loaded library, loaded on the first call."""
    global _lib
    if _lib is None:
        with _lock:
            if _lib is None:
                _lib = _load()
    return _lib


def library_path() -> str:
    """The file the library was loaded from."""
    lib = library()
    # The loader knows the file also when it was found by its bare name.
    info = _DlInfo()
    if _dladdr(ctypes.cast(lib.tamrik_create_with, ctypes.c_void_p), ctypes.byref(info)) and info.dli_fname:
        return os.path.realpath(info.dli_fname.decode())
    return str(lib._name)


class _DlInfo(ctypes.Structure):
    _fields_ = [
        ("dli_fname", ctypes.c_char_p),
        ("dli_fbase", ctypes.c_void_p),
        ("dli_sname", ctypes.c_char_p),
        ("dli_saddr", ctypes.c_void_p),
    ]


_dladdr = ctypes.CDLL(None).dladdr
_dladdr.argtypes = [ctypes.c_void_p, ctypes.POINTER(_DlInfo)]
_dladdr.restype = ctypes.c_int


def diagnosis_length(module_id: int) -> int:
    """The diagnosis bytes a module has, by its identifier, as the driver knows it."""
    return int(library().tamrik_diagnosis_length(module_id & 0xFFFFFFFF))


def result_name(code: int) -> str:
    return library().tamrik_result_name(code & 0xFFFFFFFF).decode("cp1252")


def result_text(code: int) -> str:
    return library().tamrik_result_text(code & 0xFFFFFFFF).decode("cp1252")

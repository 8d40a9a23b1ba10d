"""One gateway on one link: the driver object behind a Python class.

A Gateway may be shared between threads: its calls are serialised by a lock of its own, so
calls of different gateways run at the same time (ctypes lets go of the interpreter lock
while the driver works).
"""

from __future__ import annotations

import ctypes
import dataclasses
import datetime
import ipaddress
import logging
import os
import socket
import threading
from typing import Any, Callable, Optional, Sequence, Union

from . import _calls
from ._library import TRACE_SINK, Config, Port, Stats as _CStats, diagnosis_length, library
from .errors import BAD_ARGUMENT, BUSY, NOTHING_OPEN, TamrikError, error_for

logger = logging.getLogger("tamrik")

Progress = Callable[[int, int], Any]
PathLike = Union[str, "os.PathLike[str]"]

# Answers of the demonstration mode that are no failure: the block or download is taken, and
# nothing was sent because there is no gateway.
DEMO_NO_DOWNLOAD = 0x3000
IMAGE_BLOCK = 256


@dataclasses.dataclass(frozen=True)
class Identity:
    """What the gateway says about itself."""

    id_string: str
    version: int
    version_string: str
    boot_id: str
    boot_version: int
    gateway_id: int
    station_address: int
    operation_mode: int
    switches: int


@dataclasses.dataclass(frozen=True)
class Module:
    """One module of the station. status, sw_revision and type are None where the link does
    not tell them (demonstration mode)."""

    slot: int
    id: int
    status: Optional[int]
    sw_revision: Optional[int]
    type: Optional[int]
    diag_bytes: int


@dataclasses.dataclass(frozen=True)
class ErrorEntry:
    """One entry of the gateway's error list."""

    code: int
    duration: datetime.timedelta
    extra: bytes


@dataclasses.dataclass(frozen=True)
class Stats:
    """The driver object's counters since the gateway was made."""

    exchanges: int
    answers: int
    failures: int
    dropped_frames: int
    bytes_out: int
    bytes_in: int
    last_answer: Optional[datetime.datetime]
    failures_by_code: dict[int, int]
    other_failures: int


@dataclasses.dataclass(frozen=True)
class Link:
    """Where a gateway is: kind "tcp", "udp", "serial" or "demo"."""

    kind: str
    host: str = ""
    port: int = 0
    device: str = ""
    baudrate: int = 57600
    demo_file: str = ""

    def describe(self) -> str:
        if self.kind in ("tcp", "udp"):
            return f"{self.kind.upper()} {self.host}:{self.port}"
        if self.kind == "serial":
            return f"serial {self.device} at {self.baudrate} baud"
        return f"demonstration data from {self.demo_file}"


# --- trace ------------------------------------------------------------------------------------

_trace_lock = threading.Lock()
_trace_sink: Any = None  # the ctypes callback; the driver keeps a pointer to it


def _forward_trace(_context: Any, text: Optional[bytes]) -> None:
    try:
        if text:
            logger.debug("%s", text.decode("cp1252", "replace").rstrip("\r\n"))
    except Exception:  # noqa: BLE001 - an exception must not cross the C frames above
        logger.exception("trace handler failed")


def _install_trace_sink() -> None:
    global _trace_sink
    with _trace_lock:
        if _trace_sink is None:
            _trace_sink = TRACE_SINK(_forward_trace)
            library().tamrik_set_trace(_trace_sink, None)


# --- the gateway ------------------------------------------------------------------------------


def _milliseconds(seconds: Optional[float], what: str) -> Optional[int]:
    if seconds is None:
        return None
    if seconds < 0 or seconds * 1000 > 0x7FFFFFFF:
        raise error_for(BAD_ARGUMENT, "Gateway", f"{what} must be 0 to 2147483 seconds, not {seconds}")
    return round(seconds * 1000)


def _ipv4(host: str) -> str:
    # The driver takes dotted IPv4 only; a name is looked up here. What cannot be looked up
    # goes to the driver as it is, which refuses it with its own code.
    try:
        return str(ipaddress.IPv4Address(host))
    except ValueError:
        pass
    try:
        return socket.getaddrinfo(host, None, socket.AF_INET)[0][4][0]
    except (OSError, IndexError):
        return host


def _to_bytes(values: Sequence[int]) -> bytes:
    try:
        return bytes(values)
    except ValueError:
        return bytes(v & 0xFF for v in values)


def _data(data: Union[bytes, bytearray, memoryview, Sequence[int]], method: str) -> list[int]:
    values = list(bytes(data) if isinstance(data, (bytes, bytearray, memoryview)) else data)
    if any(not isinstance(v, int) or not 0 <= v <= 0xFF for v in values):
        raise error_for(BAD_ARGUMENT, method, "data must be bytes (values 0 to 255)")
    if len(values) > 0xFFFF:
        raise error_for(BAD_ARGUMENT, method, "at most 65535 bytes fit one frame")
    return values


class Gateway:
    """A gateway on one link, through one driver object.

    Made by :meth:`tcp`, :meth:`udp`, :meth:`serial` or :meth:`demo`; a context manager that
    closes the link and frees the driver object. Every failure raises a
    :class:`tamrik.TamrikError`.
    """

    def __init__(
        self,
        link: Link,
        *,
        timeout: Optional[float] = None,
        firmware_timeout: Optional[float] = None,
        privileged_bits: Optional[Sequence[int]] = None,
        trace: Optional[bool] = None,
    ) -> None:
        """Opens the link.

        Args:
            link: where the gateway is.
            timeout: seconds to wait for an answer (TCP and UDP: for its start, default 0.11;
                serial: per read, default 0.5).
            firmware_timeout: serial, seconds per read during the downloads (default 3).
            privileged_bits: the bit table of the privileged response, a permutation of 0 to 31.
            trace: the driver's trace to the logger "tamrik" at DEBUG; by default on when that
                logger is enabled for DEBUG when the gateway is made.
        """
        self.link = link
        self._lib = library()
        self._lock = threading.RLock()
        self._inside = False
        self._buffers = _calls.Buffers()
        self._functions: dict[str, Any] = {}
        self._com: Optional[int] = None
        if trace is None:
            trace = logger.isEnabledFor(logging.DEBUG)
        config = Config()
        self._lib.tamrik_config_defaults(ctypes.byref(config))
        config.version = 1 if link.kind == "demo" else 0
        config.logfile = 1 if trace else 0
        config.baudrate = link.baudrate
        answer_ms = _milliseconds(timeout, "timeout")
        if answer_ms is not None:
            if link.kind == "serial":
                config.read_total_constant_ms = answer_ms
            else:
                config.socket_answer_ms = answer_ms
        firmware_ms = _milliseconds(firmware_timeout, "firmware_timeout")
        if firmware_ms is not None:
            config.read_total_constant_fw_ms = firmware_ms
        if privileged_bits is not None:
            bits = list(privileged_bits)
            if sorted(bits) != list(range(32)):
                raise error_for(BAD_ARGUMENT, "Gateway", "privileged_bits must be a permutation of 0 to 31")
            config.privileged_bits[:] = bits
        device = os.fsencode(link.device)
        ports = (Port * 1)(Port(1, device))
        if link.kind == "serial":
            config.com_port = 1
            config.ports = ports
            config.port_count = 1
        demo_file = os.fsencode(link.demo_file)
        if link.kind == "demo":
            config.demo_file = demo_file
        if trace:
            _install_trace_sink()
        com = self._lib.tamrik_create_with(ctypes.byref(config))
        if not com:
            raise error_for(BAD_ARGUMENT, "tamrik_create_with", "the driver object could not be made")
        self._com = com
        try:
            self._open()
        except BaseException:
            self._release()
            raise

    # --- making one ----------------------------------------------------------------------

    @classmethod
    def tcp(cls, host: str, port: int, **options: Any) -> "Gateway":
        """A gateway at host:port over TCP. A connection that cannot be made raises
        :class:`tamrik.LinkError` (ConnectFailed) here."""
        return cls(Link("tcp", host=_ipv4(host), port=int(port)), **options)

    @classmethod
    def udp(cls, host: str, port: int, **options: Any) -> "Gateway":
        """A gateway at host:port over UDP."""
        return cls(Link("udp", host=_ipv4(host), port=int(port)), **options)

    @classmethod
    def serial(cls, device: PathLike, baudrate: int = 57600, **options: Any) -> "Gateway":
        """A gateway on a serial line (8 data bits, no parity, one stop bit)."""
        return cls(Link("serial", device=os.fspath(device), baudrate=int(baudrate)), **options)

    @classmethod
    def demo(cls, path: PathLike, **options: Any) -> "Gateway":
        """The demonstration station of a kaVdmo.ini file, with no gateway. What is written
        (outputs, parameters, operation mode) is written into that file."""
        # The driver would answer from a missing file with empty data, which hides the mistake.
        if not os.path.isfile(path):
            raise error_for(BAD_ARGUMENT, "Gateway.demo", f"no demonstration file {os.fspath(path)}")
        return cls(Link("demo", demo_file=os.fspath(path)), **options)

    def _open(self) -> None:
        if self.link.kind == "demo":
            return
        if self.link.kind == "serial":
            self._c("kaVOpenComPort", 1)
        else:
            suffix = ",UDP" if self.link.kind == "udp" else ""
            self._c("kaVOpenEthernet", f"{self.link.port}{suffix}".encode(), self.link.host.encode())

    def close(self) -> None:
        """Closes the link and frees the driver object; later calls raise LinkError. Closing
        twice does nothing."""
        with self._lock:
            if self._com is None:
                return
            if self.link.kind != "demo":
                error = ctypes.c_int32()
                self._lib.tamrik_kaVCloseComPort(self._com, 1 if self.link.kind == "serial" else 0, ctypes.byref(error))
            self._release()

    def _release(self) -> None:
        com, self._com = self._com, None
        if com:
            self._lib.tamrik_release(com)

    @property
    def closed(self) -> bool:
        return self._com is None

    def __enter__(self) -> "Gateway":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __del__(self) -> None:
        # A gateway dropped without close() still frees its driver object and socket.
        if getattr(self, "_com", None):
            self._release()

    def __repr__(self) -> str:
        return f"<tamrik.Gateway {self.link.describe()}{' closed' if self.closed else ''}>"

    # --- calling the driver -----------------------------------------------------------------

    def _function(self, name: str) -> Any:
        function = self._functions.get(name)
        if function is None:
            function = self._functions[name] = getattr(self._lib, "tamrik_" + name)
        return function

    def _driver_call(self, name: str, call: Callable[[], Any]) -> Any:
        with self._lock:
            if self._com is None:
                raise error_for(NOTHING_OPEN, name, "the gateway is closed")
            if self._inside:
                # The same thread is inside the driver with this gateway already, e.g. a
                # handler of the trace logger: the driver object takes one call at a time.
                raise error_for(BUSY, name, "called from inside another call of the same gateway")
            self._inside = True
            try:
                return call()
            finally:
                self._inside = False

    def _c(self, name: str, *args: Any) -> None:
        """Calls a method with C-ready arguments (the out-value is added); raises its failure."""

        def run() -> None:
            error = self._buffers.error
            error.value = 0
            status = self._function(name)(self._com, *args, ctypes.byref(error))
            code = (error.value & 0xFFFFFFFF) or status
            if code:
                raise error_for(code, name)

        self._driver_call(name, run)

    def _values(self, name: str, request: Optional[list[int]] = None) -> list[int]:
        """A method of one array and its count: sends request (when given) and returns the
        values that came back."""
        array = self._buffers.array("int32_t*")
        count = self._buffers.counts[0]
        with self._lock:
            if request is None:
                count.value = len(array)
            else:
                array[: len(request)] = request
                count.value = len(request)
            self._c(name, array, ctypes.byref(count))
            return array[: max(0, count.value)]

    def _scalar(self, name: str, value: int = 0) -> int:
        cell = self._buffers.scalars[0]
        with self._lock:
            cell[0] = value
            self._c(name, cell)
            return cell[0]

    def _text(self, name: str) -> str:
        array = self._buffers.array("char*")
        count = self._buffers.counts[0]
        with self._lock:
            count.value = len(array)
            self._c(name, array, ctypes.byref(count))
            return ctypes.string_at(array, max(0, count.value)).decode("cp1252", "replace")

    def call(self, method: str, *args: Any, **kwargs: Any) -> Any:
        """Calls any of the driver's 67 methods by its name in the method table.

        Arguments are the method's parameters in their order (or by their C names), without
        the driver object and the out-value: ``int32_t`` values and texts as they are; a
        value passed by pointer as an int (default 0); an array as bytes or a sequence of
        ints, whose length is its count (left out: nothing is sent and the count is the room
        of the package's buffer). Returns the out-values: None when there are none, the one
        value, or a named tuple in parameter order. Arrays come back as lists of ints
        (``uint8_t`` and ``int16_t`` arrays as bytes), texts as str. Raises TamrikError (or a
        subclass) when the out-value or the status is not 0.

            gw.call("kaVGetGatewayVersion")                 # 0x0102
            gw.call("kaVGetGatewayTime")                    # (lDays=1, lHours=1, ...)
            gw.call("kaVDoService", 0x101, b"", )           # (service=0x4101, plData=b'...')
        """
        function = self._function(method) if method in _calls.TABLE else None
        return self._driver_call(
            method, lambda: _calls.invoke(self._com, function, method, self._buffers, args, kwargs)
        )

    # --- the station ------------------------------------------------------------------------

    def identity(self) -> Identity:
        """Identity texts, versions, identifier, station address, operation mode and switches."""
        with self._lock:
            return Identity(
                id_string=self._text("kaVGetGatewayIdSring"),
                version=self._scalar("kaVGetGatewayVersion") & 0xFFFF,
                version_string=self._text("kaVGetGatewayVersionString"),
                boot_id=self._text("kaVGetGatewayBootFunctionIdString"),
                boot_version=self._scalar("kaVGetGatewayBootVersion") & 0xFFFF,
                gateway_id=self._scalar("kaVGetGatewayId") & 0xFFFFFFFF,
                station_address=self._scalar("kaVGetStationAddress") & 0xFFFFFFFF,
                operation_mode=self._scalar("kaVGetGatewayOperationMode") & 0xFF,
                switches=self._scalar("kaVGetCurrentGwSwitches") & 0xFFFF,
            )

    def inputs(self) -> bytes:
        """The input process image."""
        return _to_bytes(self._values("kaVGetProcessInData"))

    def outputs(self) -> bytes:
        """The output process image as the gateway holds it."""
        return _to_bytes(self._values("kaVGetProcessOutData"))

    def set_outputs(self, data: Union[bytes, Sequence[int]]) -> bytes:
        """Writes the output process image; returns the image as the gateway took it."""
        return _to_bytes(self._values("kaVSetProcessOutData", _data(data, "kaVSetProcessOutData")))

    def parameters(self) -> bytes:
        """The module parameters."""
        return _to_bytes(self._values("kaVGetParameterData"))

    def set_parameters(self, data: Union[bytes, Sequence[int]]) -> bytes:
        """Writes the module parameters; returns them as the gateway took them."""
        return _to_bytes(self._values("kaVSetParameterData", _data(data, "kaVSetParameterData")))

    def diagnosis(self) -> bytes:
        """The diagnosis: the gateway's own bytes, then each module's."""
        return _to_bytes(self._values("kaVGetDiagData"))

    def modules(self) -> list[Module]:
        """The station's modules in slot order, with status, software revision and type."""
        with self._lock:
            if self.link.kind == "demo":
                # Demonstration data keep identifiers only; the other lists come back empty.
                ids = [v & 0xFFFFFF for v in self._values("kaVGetModuleList")]
                return [Module(i + 1, m, None, None, None, diagnosis_length(m)) for i, m in enumerate(ids)]
            listed = self._values("kaVGetModulIdStatusList")
            revisions = self._values("kaVGetModuleSWRev")
            types = self._values("kaVGetModuleTyp")

        def at(values: list[int], i: int) -> Optional[int]:
            return values[i] & 0xFF if i < len(values) else None

        modules = []
        for i, value in enumerate(listed):
            module_id = (value >> 8) & 0xFFFFFF
            modules.append(
                Module(i + 1, module_id, value & 0xFF, at(revisions, i), at(types, i), diagnosis_length(module_id))
            )
        return modules

    def errors(self) -> list[ErrorEntry]:
        """The gateway's error list."""
        entries = self._buffers.scalars[1]
        array = self._buffers.array("int32_t*")
        size = self._buffers.counts[0]

        def read() -> list[int]:
            entries[0] = 0
            size.value = len(array)
            self._c("kaVGetGatewayErrorList", entries, array, ctypes.byref(size))
            return array[: max(0, size.value)]

        with self._lock:
            values = read()
            count = entries[0]
        found = []
        for record in _calls.error_records(values, count):
            code, days, hours, minutes, seconds, ms = record[1:7]
            duration = datetime.timedelta(days=days, hours=hours, minutes=minutes, seconds=seconds, milliseconds=ms)
            found.append(ErrorEntry(code, duration, _to_bytes(record[7:])))
        return found

    def clock(self) -> datetime.timedelta:
        """The gateway's clock: the time since its start, in whole seconds."""
        cells = self._buffers.scalars
        with self._lock:
            for cell in cells:
                cell[0] = 0
            self._c("kaVGetGatewayTime", *cells)
            days, hours, minutes, seconds = (cell[0] for cell in cells)
        return datetime.timedelta(days=days, hours=hours, minutes=minutes, seconds=seconds)

    def stats(self) -> Stats:
        """The driver object's counters: exchanges, answers, failures by code, bytes."""
        raw = _CStats()
        raw.struct_size = ctypes.sizeof(_CStats)

        def read() -> None:
            code = self._lib.tamrik_get_stats(self._com, ctypes.byref(raw))
            if code:
                raise error_for(code, "tamrik_get_stats")

        self._driver_call("tamrik_get_stats", read)
        count = min(raw.failure_code_count, len(raw.failure_codes))
        last = None
        if raw.last_answer_unix_ms:
            last = datetime.datetime.fromtimestamp(raw.last_answer_unix_ms / 1000, datetime.timezone.utc)
        return Stats(
            exchanges=raw.exchanges,
            answers=raw.answers,
            failures=raw.failures,
            dropped_frames=raw.dropped_frames,
            bytes_out=raw.bytes_out,
            bytes_in=raw.bytes_in,
            last_answer=last,
            failures_by_code={raw.failure_codes[i]: raw.failure_counts[i] for i in range(count)},
            other_failures=raw.other_failures,
        )

    # --- downloads ----------------------------------------------------------------------------

    def download_image(
        self,
        image: Union[PathLike, bytes, bytearray, memoryview],
        progress: Optional[Progress] = None,
        *,
        start_address: Optional[int] = None,
    ) -> int:
        """Loads an image into the gateway in blocks of 256 bytes; returns the blocks sent.

        image is a file or the image's bytes (held in memory, no file is written).
        progress(done_bytes, total_bytes) is called after each block; whatever it raises ends
        the download, which is then cancelled on the gateway, and is raised again. A failed
        block cancels the download too. start_address goes with the announcement.
        """
        if isinstance(image, (bytes, bytearray, memoryview)):
            fd = os.memfd_create("tamrik-image", os.MFD_CLOEXEC)
            try:
                data = memoryview(bytes(image))
                while data:
                    data = data[os.write(fd, data) :]
                return self._download_image(f"/proc/self/fd/{fd}", len(image), progress, start_address)
            finally:
                os.close(fd)
        path = os.fspath(image)
        return self._download_image(path, os.path.getsize(path), progress, start_address)

    def _download_image(self, path: str, total: int, progress: Optional[Progress], start_address: Optional[int]) -> int:
        if total == 0:
            # Announcing an empty image is how a download is cancelled, not loaded.
            raise error_for(BAD_ARGUMENT, "kaVInitImageDownload", "the image is empty")
        demo = self.link.kind == "demo"
        with self._lock:
            start = self._buffers.scalars[2]
            blocks = self._buffers.scalars[3]
            start[0] = -1 if start_address is None else start_address - (1 << 32) * (start_address > 0x7FFFFFFF)
            blocks[0] = 0
            self._c("kaVInitImageDownload", os.fsencode(path), start, blocks)
            taken = 0
            try:
                block = self._buffers.scalars[1]
                # The last block is numbered -1; the count bounds the loop all the same.
                for _ in range(blocks[0] + 1):
                    block[0] = 0
                    try:
                        self._c("kaVDownloadImageBlock", block)
                    except TamrikError as failure:
                        if not (demo and failure.code == DEMO_NO_DOWNLOAD):
                            raise
                    taken += 1
                    if progress is not None:
                        progress(min(total, taken * IMAGE_BLOCK), total)
                    if block[0] == -1:
                        return taken
                raise error_for(0x10072, "kaVDownloadImageBlock", f"no last block after {taken} blocks")
            except BaseException:
                self._cancel_quietly()
                raise

    def _cancel_quietly(self) -> None:
        try:
            self._c("kaVCancelImageDownload")
        except TamrikError:
            pass

    def cancel_image(self) -> None:
        """Abandons an image download on the gateway (an announcement of length 0)."""
        try:
            self._c("kaVCancelImageDownload")
        except TamrikError as failure:
            if not (self.link.kind == "demo" and failure.code == DEMO_NO_DOWNLOAD):
                raise

    def download_firmware(self, path: PathLike, progress: Optional[Progress] = None) -> int:
        """Loads a firmware line file into the gateway's boot loader over the serial line;
        returns the records sent. progress(done_records, total_records) after each record."""
        with self._lock:
            lines = self._buffers.scalars[2]
            lines[0] = 0
            self._c("kaVInitFirmwareDownload", os.fsencode(os.fspath(path)), lines)
            total = max(0, lines[0])
            line = self._buffers.scalars[3]
            for done in range(total):
                line[0] = done + 1
                self._c("kaVDownloadFirmwareLines", line)
                if progress is not None:
                    progress(done + 1, total)
            return total

"""The simulated gateway for tests: ``tamrik-sim`` as a process, steered while it runs.

    with tamrik.sim.Simulator() as sim:          # TCP on a free loopback port
        sim.set_inputs(b"\\x01\\x02\\x03\\x04\\x05\\x06")
        with sim.gateway() as gw:
            assert gw.inputs() == b"\\x01\\x02\\x03\\x04\\x05\\x06"
        sim.fault("silence", count=1)            # the next answer is not sent

The simulator listens on 127.0.0.1 (or a pseudo-terminal) only, and its control channel, a
small HTTP/JSON interface (docs/simulator.md), on 127.0.0.1 too. The process is stopped by
its id when the simulator leaves its ``with`` block, is stopped, or is collected.
"""

from __future__ import annotations

import dataclasses
import datetime
import json
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request
import weakref
from typing import Any, Optional, Sequence, Union

from . import _library
from .gateway import ErrorEntry, Gateway

PathLike = Union[str, "os.PathLike[str]"]
Data = Union[bytes, bytearray, Sequence[int]]

_LINK_LINE = re.compile(r"^(tcp|udp) 127\.0\.0\.1:(\d+)$|^(?:pty|boot lines) (\S+)")
_CONTROL_LINE = re.compile(r"^control (http://127\.0\.0\.1:\d+)$")


class SimulatorError(RuntimeError):
    """The simulator could not be started, or its control channel refused a request."""


class ControlError(SimulatorError):
    """The control channel answered a request with an error (status and message)."""

    def __init__(self, status: int, message: str) -> None:
        super().__init__(f"control channel: {status} {message}")
        self.status = status
        self.message = message


@dataclasses.dataclass(frozen=True)
class Request:
    """One request the simulator served, as its request log keeps it."""

    time: float  # seconds since the simulator started
    link: str  # "tcp", "udp", "pty"
    service: int
    name: str  # the service's name in the service table
    data: bytes
    answer: bytes  # the answer frame sent; empty when none was


def find_program() -> str:
    """tamrik-sim: ``$TAMRIK_SIM``, beside the loaded library (a build folder) or in the
    bin/ of the prefix it was installed to, on PATH, or in a checkout's build folder."""
    named = os.environ.get("TAMRIK_SIM")
    if named:
        return os.path.abspath(named)
    places: list[pathlib.Path] = []
    try:
        library = pathlib.Path(_library.library_path())
        places += [library.parent] + [p / "bin" for p in list(library.parents)[:3]]
    except _library.LibraryNotFound:
        pass
    for place in places:
        if (place / "tamrik-sim").is_file():
            return str(place / "tamrik-sim")
    on_path = shutil.which("tamrik-sim")
    if on_path:
        return on_path
    for library_file in _library._checkout_candidates():
        if (library_file.parent / "tamrik-sim").is_file():
            return str(library_file.parent / "tamrik-sim")
    raise SimulatorError("tamrik-sim not found; set $TAMRIK_SIM to its path")


def _stop_process(process: subprocess.Popen, stderr: Any) -> None:
    if process.poll() is None:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(timeout=5)
    for stream in (process.stdout, stderr):
        if stream is not None:
            stream.close()


def _hex(data: Data) -> str:
    return bytes(data).hex()


class Simulator:
    """tamrik-sim in a process of its own, with its control channel.

    Args:
        link: "tcp" (default), "udp" or "pty" (a pseudo-terminal: a serial line); or
            "loader", the boot loader of the firmware line download on a pseudo-terminal
            (``--boot lines``; it has no station and no control channel).
        model: a station model file (docs/simulator.md); default the simulator's own station.
        args: more command-line options (faults that hold from the start, ``--pace``, ...).
        program: the tamrik-sim to run; default :func:`find_program`.
        control: start the control channel (without it, faults come from args only).
        start_timeout: seconds to wait for the program to say where it listens.
    """

    def __init__(
        self,
        link: str = "tcp",
        *,
        model: Optional[PathLike] = None,
        args: Sequence[str] = (),
        program: Optional[PathLike] = None,
        control: bool = True,
        start_timeout: float = 10.0,
    ) -> None:
        if link not in ("tcp", "udp", "pty", "loader"):
            raise ValueError(f"link must be tcp, udp, pty or loader, not {link!r}")
        self.link = link
        self.model = os.fspath(model) if model is not None else None
        self.args = list(args)
        self.program = os.fspath(program) if program is not None else None
        self.start_timeout = start_timeout
        self.with_control = control and link != "loader"
        self.host = "127.0.0.1"
        self.port: Optional[int] = None
        self.device: Optional[str] = None
        self.control_url: Optional[str] = None
        self._process: Optional[subprocess.Popen] = None
        self._finalizer: Optional[weakref.finalize] = None
        self._lines: "queue.Queue[Optional[str]]" = queue.Queue()
        self.output: list[str] = []  # what the program printed after its start lines

    # --- the process ----------------------------------------------------------------------

    def command(self) -> list[str]:
        program = self.program or find_program()
        link = {"pty": ["--pty"], "loader": ["--boot", "lines"]}.get(self.link, [f"--{self.link}", "0"])
        model = ["--model", self.model] if self.model else []
        control = ["--control", "0"] if self.with_control else []
        return [program, *link, *control, *model, *self.args]

    def start(self) -> "Simulator":
        """Starts the program and waits until it listens; returns self."""
        if self._process is not None:
            raise SimulatorError("the simulator runs already")
        stderr = tempfile.TemporaryFile()
        process = subprocess.Popen(
            self.command(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=stderr, text=True
        )
        self._process = process
        self._finalizer = weakref.finalize(self, _stop_process, process, stderr)
        self._stderr = stderr
        threading.Thread(target=self._read_output, args=(process.stdout,), daemon=True).start()
        try:
            self._await_start_lines()
        except BaseException:
            self.stop()
            raise
        return self

    def _read_output(self, stream: Any) -> None:
        # Read to the end, so that a program with much to say never blocks on a full pipe.
        for line in stream:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def _await_start_lines(self) -> None:
        deadline = time.monotonic() + self.start_timeout
        while (self.with_control and self.control_url is None) or (self.port is None and self.device is None):
            remaining = deadline - time.monotonic()
            try:
                line = self._lines.get(timeout=max(0.0, remaining))
            except queue.Empty:
                raise SimulatorError(f"tamrik-sim said nothing within {self.start_timeout} s") from None
            if line is None:
                self._process.wait(timeout=5)
                raise SimulatorError(f"tamrik-sim ended with {self._process.returncode}: {self.stderr().strip()}")
            link = _LINK_LINE.match(line)
            control = _CONTROL_LINE.match(line)
            if link and link.group(2):
                self.port = int(link.group(2))
            elif link:
                self.device = link.group(3)
            elif control:
                self.control_url = control.group(1)
            else:
                self.output.append(line)

    def stderr(self) -> str:
        """What the program wrote to stderr so far."""
        self._stderr.seek(0)
        return self._stderr.read().decode("utf-8", "replace")

    @property
    def pid(self) -> Optional[int]:
        return self._process.pid if self._process is not None else None

    @property
    def running(self) -> bool:
        return self._process is not None and self._process.poll() is None

    def stop(self) -> None:
        """Stops the program (SIGTERM, then SIGKILL after 5 s). Stopping twice does nothing."""
        if self._finalizer is not None:
            self._finalizer()
        self._process = None

    def __enter__(self) -> "Simulator":
        return self.start() if self._process is None else self

    def __exit__(self, *exc: Any) -> None:
        self.stop()

    def __repr__(self) -> str:
        where = f"{self.host}:{self.port}" if self.port else (self.device or "not started")
        return f"<tamrik.sim.Simulator {self.link} {where}>"

    def gateway(self, **options: Any) -> Gateway:
        """A Gateway connected to this simulator (options as for Gateway)."""
        if self.link in ("pty", "loader"):
            return Gateway.serial(self.device, **options)
        if self.link == "udp":
            return Gateway.udp(self.host, self.port, **options)
        return Gateway.tcp(self.host, self.port, **options)

    # --- the control channel ----------------------------------------------------------------

    def control(self, method: str, path: str, body: Any = None) -> Any:
        """One request of the control channel; its JSON answer (None for an empty one)."""
        if self.control_url is None:
            raise SimulatorError("the simulator is not running")
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.control_url + path, data=data, method=method)
        if data is not None:
            request.add_header("Content-Type", "application/json")
        try:
            with urllib.request.urlopen(request, timeout=10) as answer:
                text = answer.read()
        except urllib.error.HTTPError as error:
            try:
                message = json.loads(error.read()).get("error", "")
            except ValueError:
                message = error.reason
            raise ControlError(error.code, message) from None
        except urllib.error.URLError as error:
            raise SimulatorError(f"control channel {self.control_url}: {error.reason}") from None
        return json.loads(text) if text else None

    def station(self) -> dict[str, Any]:
        """The whole station as the control channel shows it (docs/simulator.md)."""
        return self.control("GET", "/station")

    def _image(self, name: str) -> bytes:
        return bytes.fromhex(self.control("GET", f"/station/{name}")["data"])

    def _set_image(self, name: str, data: Data) -> None:
        self.control("PUT", f"/station/{name}", {"data": _hex(data)})

    def inputs(self) -> bytes:
        """The input image a read gets now."""
        return self._image("inputs")

    def set_inputs(self, data: Data) -> None:
        """What a read of the inputs returns from now on, until the next change: the image
        is laid over the modules in slot order (its length must be the image's), and the
        inputs stop moving."""
        self._set_image("inputs", data)

    def outputs(self) -> bytes:
        """The output image as the host wrote it."""
        return self._image("outputs")

    def set_outputs(self, data: Data) -> None:
        self._set_image("outputs", data)

    def parameters(self) -> bytes:
        return self._image("parameters")

    def set_parameters(self, data: Data) -> None:
        self._set_image("parameters", data)

    def diagnosis(self) -> bytes:
        """The diagnosis answer: the gateway's bytes, then each module's."""
        return self._image("diagnosis")

    def set_diagnosis(self, data: Data) -> None:
        self._set_image("diagnosis", data)

    def modules(self) -> list[dict[str, Any]]:
        """The modules: id, type ("D"/"A"), status, sw_revision, type_code, stream_size and
        their inputs, outputs, parameters and diagnosis (hexadecimal)."""
        return self.control("GET", "/station/modules")

    def set_modules(self, modules: Sequence[dict[str, Any]]) -> None:
        """Replaces the modules (fields as :meth:`modules` gives them; sizes follow the data)."""
        self.control("PUT", "/station/modules", list(modules))

    def errors(self) -> list[ErrorEntry]:
        """The gateway's error list, as Gateway.errors() reads it."""
        return [
            ErrorEntry(e["code"], datetime.timedelta(milliseconds=e["duration_ms"]), bytes.fromhex(e["extra"]))
            for e in self.control("GET", "/station/errors")
        ]

    def set_errors(self, entries: Sequence[Union[ErrorEntry, tuple[int, datetime.timedelta, bytes]]]) -> None:
        """Replaces the error list with ErrorEntry values or (code, duration, extra) tuples."""
        body = []
        for entry in entries:
            code, duration, extra = (
                (entry.code, entry.duration, entry.extra) if isinstance(entry, ErrorEntry) else entry
            )
            body.append({"code": code, "duration_ms": round(duration.total_seconds() * 1000), "extra": _hex(extra)})
        self.control("PUT", "/station/errors", body)

    def clock(self) -> datetime.timedelta:
        return datetime.timedelta(milliseconds=self.control("GET", "/station/clock")["ms"])

    def set_clock(self, value: Optional[datetime.timedelta]) -> None:
        """Fixes the gateway's clock at value; None lets it run from the simulator's start."""
        ms = None if value is None else round(value.total_seconds() * 1000)
        self.control("PUT", "/station/clock", {"ms": ms})

    def identity(self) -> dict[str, Any]:
        """identity, boot_id, version_string, version, boot_version, gateway_id,
        station_address, operation_mode, switches, leds."""
        return self.control("GET", "/station/identity")

    def set_identity(self, **fields: Any) -> None:
        """Changes the given fields of :meth:`identity`."""
        self.control("PATCH", "/station/identity", fields)

    def fault(
        self,
        kind: str,
        value: Optional[int] = None,
        *,
        count: Optional[int] = None,
        every: Optional[int] = None,
        service: Optional[int] = None,
        base: Optional[int] = None,
    ) -> int:
        """Injects a fault from now on; returns its id.

        kind is one of noise (value: bytes), corrupt, refuse (value: the one data byte,
        base: 0x8000 or 0xC000), silence, delay (value: ms), truncate (value: bytes kept),
        late (value: ms), drop. count: for that many answers, then it is gone (default:
        until cleared); every: only the n-th, 2n-th, ... answer it applies to; service: only
        requests of that service code.
        """
        body: dict[str, Any] = {"kind": kind}
        for key, given in (("value", value), ("count", count), ("every", every), ("service", service), ("base", base)):
            if given is not None:
                body[key] = given
        return self.control("POST", "/faults", body)["id"]

    def faults(self) -> list[dict[str, Any]]:
        """The faults in force, with what is left of their counts."""
        return self.control("GET", "/faults")

    def clear_faults(self) -> None:
        self.control("DELETE", "/faults")

    def requests(self) -> list[Request]:
        """The requests served so far (the latest 10000), oldest first."""
        return [
            Request(r["time"], r["link"], r["service"], r["name"], bytes.fromhex(r["data"]), bytes.fromhex(r["answer"]))
            for r in self.control("GET", "/requests")
        ]

    def clear_requests(self) -> None:
        self.control("DELETE", "/requests")

    def reset(self) -> None:
        """The station as it started, no faults, an empty request log."""
        self.control("POST", "/reset")

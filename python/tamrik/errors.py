"""The exceptions of the package: every failure of the driver raises one of them.

Each carries the driver's result code with its name and meaning (from ``tamrik_result_name``
and ``tamrik_result_text``) and the method that failed. The subclasses sort the codes by
what a test rig does about them; each also derives from the built-in exception of its kind,
so that ``except TimeoutError`` and ``except ConnectionError`` catch them too.
"""

from __future__ import annotations

from . import _library

# The driver's result codes that decide a kind (docs/result-codes.md).
READ_SHORT = 0x10020
READ_FAILED = 0x10021
WRITE_SHORT = 0x10030
WRITE_FAILED = 0x10031
BAD_CHECK_VALUE = 0x10040
NO_START_BYTE = 0x10051
ANSWER_MALFORMED = 0x10052
ANSWER_TOO_LONG = 0x10053
BAD_ARGUMENT = 0x10060
PRIVILEGED_REFUSED_C = 0x10070
PRIVILEGED_REFUSED_8 = 0x10071
NO_DATA_YET = 0x10100
NOTHING_OPEN = 0x10015
BUSY = 0x999999
NO_SOCKET = 0xFFFFFFFF
REFUSED_BASE = 0x20000
REFUSED_WITH_BYTE_BASE = 0x30000
SOCKET_ERRORS = range(10004, 10066)
CONNECT_FAILED = range(4000000 + 10004, 4000000 + 10066)
LINK_OPEN_AND_CLOSE = range(0x10010, 0x10017)


class TamrikError(Exception):
    """A call of the driver failed.

    Attributes:
        code: the result code, unsigned (``0x10040``).
        name: its name (``"BadCheckValue"``).
        text: what it means.
        method: the driver method that failed (``"kaVGetProcessInData"``), or the package's
            own operation.
    """

    def __init__(self, code: int, method: str, detail: str = "") -> None:
        self.code = code & 0xFFFFFFFF
        self.method = method
        self.name = _library.result_name(self.code)
        self.text = _library.result_text(self.code)
        message = f"{method} failed: 0x{self.code:X} {self.name}: {self.text}"
        super().__init__(message + (f" ({detail})" if detail else ""))

    def __reduce__(self):
        return (error_for, (self.code, self.method))


class NoAnswerError(TamrikError, TimeoutError):
    """No answer, or not all of it, arrived in time (0x10020, 0x10021; 0x10100 in polling mode)."""


class RefusedError(TamrikError):
    """The gateway answered, and refused the request.

    Attributes:
        answer_code: the refusal's answer code (the service code + 0x8000 or 0xC000), when the
            result code carries it; None for a refusal with a data byte.
        service: the refused service's code, when the result code carries it.
        data_byte: the refusal's one data byte (0x30000 + byte), else None.
    """

    def __init__(self, code: int, method: str, detail: str = "") -> None:
        super().__init__(code, method, detail)
        self.answer_code: int | None = None
        self.service: int | None = None
        self.data_byte: int | None = None
        if REFUSED_BASE <= self.code < REFUSED_WITH_BYTE_BASE:
            self.answer_code = self.code - REFUSED_BASE
            self.service = self.answer_code & 0x3FFF
        elif REFUSED_WITH_BYTE_BASE <= self.code <= REFUSED_WITH_BYTE_BASE + 0xFF:
            self.data_byte = self.code - REFUSED_WITH_BYTE_BASE


class LinkError(TamrikError, ConnectionError):
    """The link failed: it cannot be opened, written, or the peer went away (socket errors,
    serial open failures, 0x10030/0x10031, no link open)."""


class FrameError(TamrikError):
    """An answer arrived but was not a good frame: wrong check value, no start byte, data that
    do not fit the service, or more than the caller's room."""


class BadArgumentError(TamrikError, ValueError):
    """An argument the driver (or the package, before calling it) does not accept (0x10060)."""


class BusyError(TamrikError):
    """Another call of the same driver object is running (0x999999). The package serialises
    the calls of a Gateway, so this comes only from a call made while the gateway is inside
    the driver on the same thread, such as from a trace handler of the "tamrik" logger."""


def kind_of(code: int) -> type[TamrikError]:
    """The exception class of a result code."""
    code &= 0xFFFFFFFF
    if code in (READ_SHORT, READ_FAILED, NO_DATA_YET):
        return NoAnswerError
    if REFUSED_BASE <= code <= REFUSED_WITH_BYTE_BASE + 0xFF or code in (PRIVILEGED_REFUSED_C, PRIVILEGED_REFUSED_8):
        return RefusedError
    if (
        code in LINK_OPEN_AND_CLOSE
        or code in SOCKET_ERRORS
        or code in CONNECT_FAILED
        or code in (WRITE_SHORT, WRITE_FAILED, NO_SOCKET)
    ):
        return LinkError
    if code in (BAD_CHECK_VALUE, NO_START_BYTE, ANSWER_MALFORMED, ANSWER_TOO_LONG):
        return FrameError
    if code == BAD_ARGUMENT:
        return BadArgumentError
    if code == BUSY:
        return BusyError
    return TamrikError


def error_for(code: int, method: str, detail: str = "") -> TamrikError:
    """The exception for a result code of a method."""
    return kind_of(code)(code, method, detail)

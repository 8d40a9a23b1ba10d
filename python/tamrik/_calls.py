"""Any method of the driver by name: what to pass and what comes back, read from the method
table's C parameters.

The table gives types and names only; the roles follow from them:
- ``int32_t`` and ``const char*`` are inputs;
- a pointer followed by count parameters (named ``plSize...``) is an array, and those are
  its counts: the first is the number of values sent (its length), the last the count that
  comes back; for an array alone the count on entry is also its capacity, as the C interface
  reads it;
- any other ``int32_t*`` is a value that goes in and comes back;
- the last parameter is the out-value, which becomes an exception.
"""

from __future__ import annotations

import collections
import ctypes
import dataclasses
import os
from typing import Any, Callable

from ._library import C_TYPES
from ._methods import METHODS
from .errors import BAD_ARGUMENT, error_for

# Room of the arrays handed to the driver. A frame carries at most 65535 data bytes; an
# error-list record takes seven values for fewer bytes, hence the larger room for values.
VALUE_ROOM = 1 << 17
BYTE_ROOM = 1 << 16
# A value passed by pointer that the driver may fill past its first element
# (kaVSetModuleStreamDataPosition sends and receives a pair).
SCALAR_ROOM = 8

IN_INT, IN_TEXT, SCALAR, ARRAY, COUNT, TEXT_OUT = range(6)

# Methods whose count comes back in bytes although the array holds 16-bit words.
_COUNT_BACK_IN_BYTES = frozenset({"kavGetBootFctsHwInfo"})
# The error list leaves its count at the capacity: its length follows from its records.
_ERROR_LIST = "kaVGetGatewayErrorList"
ERROR_RECORD = 7  # size, code, days, hours, minutes, seconds, ms; then the extra bytes


def error_records(values: list[int], entries: int) -> list[list[int]]:
    """The records of an error list as the driver lays them out, back to back, each led by
    its size in values."""
    records, at = [], 0
    for _ in range(max(0, entries)):
        if at + ERROR_RECORD > len(values):
            break
        size = max(values[at], ERROR_RECORD)
        records.append(values[at : at + size])
        at += size
    return records


@dataclasses.dataclass(frozen=True)
class Param:
    ctype: str
    name: str
    role: int
    counts: tuple[int, ...] = ()  # ARRAY, TEXT_OUT: indexes of their count parameters


@dataclasses.dataclass(frozen=True)
class Method:
    dispid: int
    name: str
    params: tuple[Param, ...]  # without the out-value
    inputs: tuple[Param, ...]
    outputs: tuple[Param, ...]
    result: Any  # the named tuple of the outputs when there are several


def _roles(name: str, params: tuple[tuple[str, str], ...]) -> tuple[Param, ...]:
    body = params[:-1]
    roles: list[Param] = []
    i = 0
    while i < len(body):
        ctype, pname = body[i]
        counts = []
        j = i + 1
        while j < len(body) and body[j][1].startswith("plSize"):
            counts.append(j)
            j += 1
        if ctype == "int32_t":
            roles.append(Param(ctype, pname, IN_INT))
        elif ctype == "const char*":
            roles.append(Param(ctype, pname, IN_TEXT))
        elif counts:
            roles.append(Param(ctype, pname, TEXT_OUT if ctype == "char*" else ARRAY, tuple(counts)))
            roles.extend(Param(body[k][0], body[k][1], COUNT) for k in counts)
            i = j
            continue
        elif ctype == "int32_t*":
            roles.append(Param(ctype, pname, SCALAR))
        else:
            raise ValueError(f"{name}: {ctype} {pname} has no count to go with it")
        i += 1
    return tuple(roles)


def _method(dispid: int, name: str, params: tuple[tuple[str, str], ...]) -> Method:
    roles = _roles(name, params)
    inputs = tuple(p for p in roles if p.role in (IN_INT, IN_TEXT, SCALAR, ARRAY))
    outputs = tuple(p for p in roles if p.role in (SCALAR, ARRAY, TEXT_OUT))
    result = collections.namedtuple(name + "Result", [p.name for p in outputs]) if len(outputs) > 1 else None
    return Method(dispid, name, roles, inputs, outputs, result)


TABLE: dict[str, Method] = {name: _method(dispid, name, params) for dispid, name, params in METHODS}


class Buffers:
    """The arrays one gateway hands to the driver, made when first needed and used again by
    every call (the gateway's lock keeps them to one call at a time)."""

    def __init__(self) -> None:
        self._arrays: dict[str, Any] = {}
        self.scalars = [(ctypes.c_int32 * SCALAR_ROOM)() for _ in range(4)]
        self.counts = [ctypes.c_int32() for _ in range(2)]
        self.error = ctypes.c_int32()

    def array(self, ctype: str) -> Any:
        found = self._arrays.get(ctype)
        if found is None:
            room = {"int32_t*": VALUE_ROOM, "int16_t*": BYTE_ROOM // 2}.get(ctype, BYTE_ROOM)
            element = C_TYPES[ctype]._type_
            found = self._arrays[ctype] = (element * room)()
        return found


def encode_text(param: Param, value: Any, method: str) -> bytes:
    """A text argument: file names as the file system spells them, other texts in the
    driver's code page."""
    if isinstance(value, bytes):
        return value
    if "File" in param.name or isinstance(value, os.PathLike):
        return os.fsencode(value)
    try:
        return str(value).encode("cp1252")
    except UnicodeEncodeError as error:
        raise error_for(BAD_ARGUMENT, method, f"{param.name}: {error}") from None


def _byte_values(value: Any, param: Param, method: str) -> list[int]:
    values = list(value.encode("cp1252") if isinstance(value, str) else value)
    if any(not isinstance(v, int) or not -0x80000000 <= v <= 0x7FFFFFFF for v in values):
        raise error_for(BAD_ARGUMENT, method, f"{param.name}: values must be 32-bit integers")
    return values


class Invocation:
    """One call of a method: its arguments put into the gateway's buffers, the C call, and
    the out-values read back."""

    def __init__(self, method: Method, buffers: Buffers, args: tuple, kwargs: dict) -> None:
        self.method = method
        self.buffers = buffers
        self.c_args: list[Any] = [None] * len(method.params)
        self.shapes: dict[int, Any] = {}
        values = self._bind(args, kwargs)
        scalar = 0
        for index, param in enumerate(method.params):
            if param.role == IN_INT:
                self.c_args[index] = self._int(param, values[param.name])
            elif param.role == IN_TEXT:
                self.c_args[index] = encode_text(param, values[param.name], method.name)
            elif param.role == SCALAR:
                self.c_args[index] = self._scalar(index, param, values.get(param.name, 0), buffers.scalars[scalar])
                scalar += 1
            elif param.role in (ARRAY, TEXT_OUT):
                self._array(index, param, values.get(param.name))

    def _bind(self, args: tuple, kwargs: dict) -> dict[str, Any]:
        names = [p.name for p in self.method.inputs]
        if len(args) > len(names):
            raise error_for(BAD_ARGUMENT, self.method.name, f"takes at most {len(names)} arguments: {', '.join(names)}")
        values = dict(zip(names, args))
        for key, value in kwargs.items():
            if key not in names or key in values:
                raise error_for(BAD_ARGUMENT, self.method.name, f"unexpected or repeated argument {key!r}")
            values[key] = value
        for param in self.method.inputs:
            if param.role in (IN_INT, IN_TEXT) and param.name not in values:
                raise error_for(BAD_ARGUMENT, self.method.name, f"argument {param.name} missing")
        return values

    def _int(self, param: Param, value: Any) -> int:
        if not isinstance(value, int) or not -0x80000000 <= value <= 0xFFFFFFFF:
            raise error_for(BAD_ARGUMENT, self.method.name, f"{param.name}: a 32-bit integer, not {value!r}")
        return value - (1 << 32) if value > 0x7FFFFFFF else value

    def _scalar(self, index: int, param: Param, value: Any, cell: Any) -> Any:
        given = [value] if isinstance(value, int) else _byte_values(value, param, self.method.name)
        if not 1 <= len(given) <= SCALAR_ROOM:
            raise error_for(BAD_ARGUMENT, self.method.name, f"{param.name}: 1 to {SCALAR_ROOM} values")
        ctypes.memset(cell, 0, ctypes.sizeof(cell))
        for k, v in enumerate(given):
            cell[k] = self._int(param, v)
        self.shapes[index] = None if isinstance(value, int) else len(given)
        return cell

    def _array(self, index: int, param: Param, value: Any) -> None:
        room_type = "char*" if param.role == TEXT_OUT else param.ctype
        array = self.buffers.array(room_type)
        self.c_args[index] = array
        in_bytes = param.ctype == "int16_t*"
        room = ctypes.sizeof(array) if in_bytes else len(array)
        sent = 0
        if value is not None and param.role == ARRAY:
            if in_bytes:
                data = bytes(value)
                if len(data) > room:
                    raise error_for(BAD_ARGUMENT, self.method.name, f"{param.name}: at most {room} bytes")
                ctypes.memmove(array, data, len(data))
                sent = len(data)
            else:
                values = _byte_values(value, param, self.method.name)
                if len(values) > room:
                    raise error_for(BAD_ARGUMENT, self.method.name, f"{param.name}: at most {room} values")
                array[: len(values)] = values
                sent = len(values)
        # With two counts the first is the length sent and the second the room for the
        # answer; an array alone has one count that is both.
        counts = [self.buffers.counts[k] for k in range(len(param.counts))]
        if len(counts) == 1:
            counts[0].value = sent if value is not None else room
        else:
            counts[0].value = sent
            counts[-1].value = room
        for k, count_index in enumerate(param.counts):
            self.c_args[count_index] = counts[k]

    def run(self, handle: Any, function: Callable) -> Any:
        """Calls the driver; the out-values, or raises the failure."""
        error = self.buffers.error
        error.value = 0
        pointers = [ctypes.byref(a) if isinstance(a, ctypes.c_int32) else a for a in self.c_args]
        status = function(handle, *pointers, ctypes.byref(error))
        code = (error.value & 0xFFFFFFFF) or status
        if code:
            raise error_for(code, self.method.name)
        return self.results()

    def results(self) -> Any:
        out = []
        for index, param in enumerate(self.method.params):
            if param.role == SCALAR:
                cell = self.c_args[index]
                shape = self.shapes[index]
                out.append(cell[0] if shape is None else list(cell[:shape]))
            elif param.role in (ARRAY, TEXT_OUT):
                out.append(self._array_result(index, param))
        if self.method.result is not None:
            return self.method.result(*out)
        return out[0] if out else None

    def _array_result(self, index: int, param: Param) -> Any:
        array = self.c_args[index]
        count = max(0, self.c_args[param.counts[-1]].value)
        if param.role == TEXT_OUT:
            return ctypes.string_at(array, min(count, len(array))).decode("cp1252", "replace")
        if param.ctype == "int16_t*":
            return ctypes.string_at(array, min(count, ctypes.sizeof(array)))
        if param.ctype == "uint8_t*":
            return bytes(array[: min(count, len(array))])
        if self.method.name in _COUNT_BACK_IN_BYTES:
            count //= 2
        values = list(array[: min(count, len(array))])
        if self.method.name == _ERROR_LIST:
            entries = self.c_args[0][0]
            return [v for record in error_records(values, entries) for v in record]
        return values


def invoke(handle: Any, function: Callable, method: str, buffers: Buffers, args: tuple, kwargs: dict) -> Any:
    found = TABLE.get(method)
    if found is None:
        raise error_for(BAD_ARGUMENT, method, "no method of that name in the method table")
    return Invocation(found, buffers, args, kwargs).run(handle, function)

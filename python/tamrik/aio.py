"""The Gateway for asyncio: the same methods as coroutines.

    async with tamrik.aio.Gateway.tcp("127.0.0.1", 5020) as gw:
        data = await gw.inputs()

Each gateway runs its driver calls on a thread of its own, one after the other in the order
they were awaited; calls of different gateways run at the same time. Progress callbacks of
the downloads are called on that thread.
"""

from __future__ import annotations

import asyncio
import concurrent.futures
import datetime
import functools
from typing import Any, Callable, Optional, Sequence, TypeVar, Union

from . import gateway as _sync
from .gateway import ErrorEntry, Identity, Link, Module, Progress, Stats

T = TypeVar("T")


class Gateway:
    """A :class:`tamrik.Gateway` whose calls are awaited. Made by :meth:`tcp`, :meth:`udp`,
    :meth:`serial` or :meth:`demo`; the link opens on ``await`` or at ``async with``."""

    def __init__(self, link: Link, **options: Any) -> None:
        self.link = link
        self._options = options
        self._gateway: Optional[_sync.Gateway] = None
        self._executor = concurrent.futures.ThreadPoolExecutor(max_workers=1, thread_name_prefix="tamrik-gateway")

    @classmethod
    def tcp(cls, host: str, port: int, **options: Any) -> "Gateway":
        return cls(Link("tcp", host=_sync._ipv4(host), port=int(port)), **options)

    @classmethod
    def udp(cls, host: str, port: int, **options: Any) -> "Gateway":
        return cls(Link("udp", host=_sync._ipv4(host), port=int(port)), **options)

    @classmethod
    def serial(cls, device: Any, baudrate: int = 57600, **options: Any) -> "Gateway":
        return cls(Link("serial", device=str(device), baudrate=int(baudrate)), **options)

    @classmethod
    def demo(cls, path: Any, **options: Any) -> "Gateway":
        return cls(Link("demo", demo_file=str(path)), **options)

    async def _run(self, function: Callable[..., T], *args: Any) -> T:
        loop = asyncio.get_running_loop()
        return await loop.run_in_executor(self._executor, functools.partial(function, *args))

    async def open(self) -> "Gateway":
        """Opens the link (once); returns self."""
        if self._gateway is None:
            self._gateway = await self._run(functools.partial(_sync.Gateway, self.link, **self._options))
        return self

    def __await__(self):
        return self.open().__await__()

    async def close(self) -> None:
        """Closes the link and ends the gateway's thread."""
        if self._gateway is not None:
            await self._run(self._gateway.close)
        self._executor.shutdown(wait=False)

    async def __aenter__(self) -> "Gateway":
        return await self.open()

    async def __aexit__(self, *exc: Any) -> None:
        await self.close()

    @property
    def sync(self) -> _sync.Gateway:
        """The underlying Gateway, once open."""
        if self._gateway is None:
            raise RuntimeError("the gateway is not open: await it or use async with")
        return self._gateway

    def __repr__(self) -> str:
        return f"<tamrik.aio.Gateway {self.link.describe()}>"

    async def _call(self, name: str, *args: Any) -> Any:
        return await self._run(getattr(self.sync, name), *args)

    async def identity(self) -> Identity:
        return await self._call("identity")

    async def inputs(self) -> bytes:
        return await self._call("inputs")

    async def outputs(self) -> bytes:
        return await self._call("outputs")

    async def set_outputs(self, data: Union[bytes, Sequence[int]]) -> bytes:
        return await self._call("set_outputs", data)

    async def parameters(self) -> bytes:
        return await self._call("parameters")

    async def set_parameters(self, data: Union[bytes, Sequence[int]]) -> bytes:
        return await self._call("set_parameters", data)

    async def diagnosis(self) -> bytes:
        return await self._call("diagnosis")

    async def modules(self) -> list[Module]:
        return await self._call("modules")

    async def errors(self) -> list[ErrorEntry]:
        return await self._call("errors")

    async def clock(self) -> datetime.timedelta:
        return await self._call("clock")

    async def stats(self) -> Stats:
        return await self._call("stats")

    async def call(self, method: str, *args: Any, **kwargs: Any) -> Any:
        return await self._run(functools.partial(self.sync.call, method, *args, **kwargs))

    async def download_image(self, image: Any, progress: Optional[Progress] = None, **options: Any) -> int:
        return await self._run(functools.partial(self.sync.download_image, image, progress, **options))

    async def cancel_image(self) -> None:
        return await self._call("cancel_image")

    async def download_firmware(self, path: Any, progress: Optional[Progress] = None) -> int:
        return await self._call("download_firmware", path, progress)


for _name in (
    "identity", "inputs", "outputs", "set_outputs", "parameters", "set_parameters", "diagnosis", "modules",
    "errors", "clock", "stats", "call", "download_image", "cancel_image", "download_firmware",
):
    getattr(Gateway, _name).__doc__ = f"As :meth:`tamrik.Gateway.{_name}`, awaited."
del _name

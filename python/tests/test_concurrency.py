"""Threads sharing one gateway, and asyncio with several gateways at once."""

import asyncio
import datetime
import contextlib
import threading
import time

import pytest

import tamrik
import tamrik.aio
from tamrik.sim import Simulator

THREADS = 6
ROUNDS = 40


def test_threads_share_a_gateway_one_call_at_a_time():
    with Simulator(control=False) as sim, sim.gateway(timeout=2.0) as gw:
        start = gw.stats().exchanges
        mixed = []

        def work(n: int) -> None:
            # Each thread writes its own image and must get exactly that back: calls that ran
            # into each other would mix the buffers or the link's frames.
            mine = bytes([n, n ^ 0xFF, n])
            for _ in range(ROUNDS):
                if gw.set_outputs(mine) != mine or len(gw.identity().id_string) == 0:
                    mixed.append(n)

        threads = [threading.Thread(target=work, args=(n,)) for n in range(THREADS)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(timeout=60)
        assert not any(thread.is_alive() for thread in threads)
        assert mixed == []
        stats = gw.stats()
        # set_outputs is one exchange and identity nine.
        assert stats.exchanges - start == THREADS * ROUNDS * 10
        assert stats.failures == 0 and stats.dropped_frames == 0


@pytest.mark.asyncio
async def test_asyncio_gateways_run_at_the_same_time():
    delay_ms = 300
    with contextlib.ExitStack() as stack:
        sims = [stack.enter_context(Simulator(control=False, args=["--delay", str(delay_ms)])) for _ in range(3)]
        gateways = [tamrik.aio.Gateway.tcp(sim.host, sim.port, timeout=2.0) for sim in sims]
        async with contextlib.AsyncExitStack() as open_gateways:
            for gateway in gateways:
                await open_gateways.enter_async_context(gateway)
            began = time.monotonic()
            results = await asyncio.gather(*(gw.set_outputs(bytes([n, n])) for n, gw in enumerate(gateways)))
            took = time.monotonic() - began
            assert results == [bytes([n, n]) for n in range(3)]
            # One after the other they would take three delays.
            assert delay_ms / 1000 <= took < 2.2 * delay_ms / 1000
            # Calls of one gateway keep the order they were made in.
            first = gateways[0]
            began = time.monotonic()
            done = await asyncio.gather(first.set_outputs(b"\x01\x01"), first.set_outputs(b"\x02\x02"), first.outputs())
            assert done == [b"\x01\x01", b"\x02\x02", b"\x02\x02\x00"]
            assert time.monotonic() - began >= 3 * delay_ms / 1000


@pytest.mark.asyncio
async def test_asyncio_gateway_by_await_and_its_failures():
    with Simulator(control=False, args=["--refuse", "3"]) as sim:
        gw = await tamrik.aio.Gateway.tcp(sim.host, sim.port)
        try:
            with pytest.raises(tamrik.RefusedError):
                await gw.inputs()
            assert len(await gw.modules()) == 3
            assert await gw.call("kaVGetGatewayVersion") == (await gw.identity()).version
            assert (await gw.stats()).failures == 1
        finally:
            await gw.close()
        with pytest.raises(tamrik.LinkError):
            await gw.sync.inputs()


@pytest.mark.asyncio
async def test_asyncio_gateway_has_every_method_of_the_gateway(tmp_path):
    public = {n for n in vars(tamrik.Gateway) if not n.startswith("_") and callable(getattr(tamrik.Gateway, n))}
    for name in public - {"tcp", "udp", "serial", "demo", "close"}:
        assert asyncio.iscoroutinefunction(getattr(tamrik.aio.Gateway, name)), name
    with Simulator() as sim:
        async with tamrik.aio.Gateway.tcp(sim.host, sim.port) as gw:
            sim.set_inputs(b"\x01\x02\x03\x04\x05\x06")
            assert await gw.inputs() == sim.inputs()
            assert await gw.set_outputs(b"\x07\x08\x09") == b"\x07\x08\x09" == await gw.outputs() == sim.outputs()
            assert await gw.set_parameters(bytes(5)) == await gw.parameters() == sim.parameters()
            assert await gw.diagnosis() == sim.diagnosis()
            assert [m.id for m in await gw.modules()] == [m["id"] for m in sim.modules()]
            assert await gw.errors() == sim.errors()
            sim.set_clock(datetime.timedelta(hours=5))
            assert await gw.clock() == datetime.timedelta(hours=5)
            assert (await gw.identity()).id_string == sim.identity()["identity"]
            assert await gw.download_image(b"\x11" * 300) == 2
            await gw.cancel_image()
            assert [r.service for r in sim.requests()][-5:] == [288, 289, 289, 290, 288]
            assert (await gw.stats()).failures == 0
    firmware = tmp_path / "fw.hex"
    firmware.write_text(":00000001FF\n")
    with Simulator("loader") as loader:
        async with tamrik.aio.Gateway.serial(loader.device) as gw:
            assert await gw.download_firmware(firmware) == 1

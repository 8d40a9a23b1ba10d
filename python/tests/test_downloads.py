"""Image and firmware downloads through the package, checked by what the simulator received."""

import os
import tempfile
import time

import pytest

import tamrik
from tamrik.sim import Simulator


def open_descriptors() -> set[str]:
    return set(os.listdir("/proc/self/fd"))


def test_image_from_bytes_and_from_a_file(tmp_path):
    received = tmp_path / "received.bin"
    image = bytes((i * 7 + 3) & 0xFF for i in range(1000))
    with Simulator(control=False, args=["--image-out", str(received)]) as sim, sim.gateway() as gw:
        temporary_before = set(os.listdir(tempfile.gettempdir()))
        descriptors_before = open_descriptors()
        progress = []
        assert gw.download_image(image, lambda done, total: progress.append((done, total))) == 4
        assert received.read_bytes() == image
        assert progress == [(256, 1000), (512, 1000), (768, 1000), (1000, 1000)]
        # Held in memory: no file left behind, no descriptor left open.
        assert set(os.listdir(tempfile.gettempdir())) == temporary_before
        assert open_descriptors() == descriptors_before

        source = tmp_path / "image.bin"
        source.write_bytes(image[:300])
        assert gw.download_image(source, start_address=0x8000) == 2
        assert received.read_bytes() == image[:300]


def test_image_download_stopped_by_its_progress_is_cancelled(tmp_path):
    received = tmp_path / "received.bin"
    with Simulator(args=["--image-out", str(received)]) as sim, sim.gateway() as gw:
        class Stop(Exception):
            pass

        def stop_after_two(done, total):
            if done >= 512:
                raise Stop()

        with pytest.raises(Stop):
            gw.download_image(bytes(2000), stop_after_two)
        assert not received.exists()
        # The gateway was told: an announcement of length 0 after the second block.
        log = sim.requests()
        assert [r.service for r in log] == [288, 289, 289, 288]
        assert int.from_bytes(log[-1].data[:4], "little") == 0
        # A new download starts afresh and completes.
        assert gw.download_image(b"\x01" * 10) == 1
        assert received.read_bytes() == b"\x01" * 10


def test_image_download_that_fails_raises():
    with Simulator(control=False, args=["--refuse", "289"]) as sim, sim.gateway() as gw:
        with pytest.raises(tamrik.TamrikError) as raised:
            gw.download_image(bytes(700))
        assert raised.value.method == "kaVDownloadImageBlock"


def records(n: int) -> list[str]:
    """A firmware line file of n data records and an end record."""
    lines = []
    for i in range(n + 1):
        data = bytes((i * 16 + k) & 0xFF for k in range(16)) if i < n else b""
        body = bytes([len(data), i >> 4, (i << 4) & 0xFF, 0 if i < n else 1]) + data
        lines.append(":" + (body + bytes([(0x100 - sum(body)) & 0xFF])).hex().upper())
    return lines


def test_firmware_to_the_boot_loader(tmp_path):
    firmware = tmp_path / "fw.hex"
    lines = records(6)
    firmware.write_text("firmware for the rig\n" + "\n".join(lines) + "\n")
    got = tmp_path / "got.hex"
    with Simulator("loader", args=["--records-out", str(got)]) as loader:
        with loader.gateway() as gw:
            progress = []
            assert gw.download_firmware(firmware, lambda done, total: progress.append((done, total))) == 7
        assert progress == [(n, 7) for n in range(1, 8)]
        # Each record is in the file before the loader answers it.
        assert got.read_text() == "\n".join(lines) + "\n"
    assert not loader.running


def test_simulator_process_ends_with_its_block(tmp_path):
    with pytest.raises(RuntimeError, match="inside"):
        with Simulator(control=False) as sim:
            pid = sim.pid
            raise RuntimeError("a failing test inside")
    deadline = time.monotonic() + 5
    while os.path.exists(f"/proc/{pid}") and time.monotonic() < deadline:
        time.sleep(0.01)
    assert not os.path.exists(f"/proc/{pid}")
    with pytest.raises(tamrik.sim.SimulatorError, match="ended with"):
        Simulator(control=False, model=tmp_path / "missing.txt").start()

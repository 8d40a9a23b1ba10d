"""pytest plugin: a fresh simulated gateway for every test that asks for one.

    def test_output_echo(tamrik_sim, tamrik_gateway):
        tamrik_gateway.set_outputs(b"\\x01\\x80")
        assert tamrik_sim.outputs().startswith(b"\\x01\\x80")

Fixtures:
    tamrik_sim: a started :class:`tamrik.sim.Simulator`, stopped after the test (also when
        it fails).
    tamrik_gateway: a :class:`tamrik.Gateway` connected to tamrik_sim, closed after the test.

The marker ``@pytest.mark.tamrik_sim(link="udp", model="station.txt", args=[...])`` passes
its keywords to the Simulator; ``--tamrik-sim PROGRAM`` names the tamrik-sim to run.
Installed with the package as the entry point ``pytest11``.
"""

from __future__ import annotations

from typing import Iterator

import pytest

from .gateway import Gateway
from .sim import Simulator


def pytest_addoption(parser: pytest.Parser) -> None:
    group = parser.getgroup("tamrik")
    group.addoption("--tamrik-sim", metavar="PROGRAM", default=None, help="the tamrik-sim program to run")


def pytest_configure(config: pytest.Config) -> None:
    config.addinivalue_line(
        "markers", "tamrik_sim(link='tcp', model=None, args=()): how the tamrik_sim fixture starts the simulator"
    )


@pytest.fixture
def tamrik_sim(request: pytest.FixtureRequest) -> Iterator[Simulator]:
    marker = request.node.get_closest_marker("tamrik_sim")
    options = dict(marker.kwargs) if marker else {}
    program = request.config.getoption("--tamrik-sim")
    if program and "program" not in options:
        options["program"] = program
    with Simulator(**options) as sim:
        yield sim


@pytest.fixture
def tamrik_gateway(tamrik_sim: Simulator) -> Iterator[Gateway]:
    with tamrik_sim.gateway() as gateway:
        yield gateway

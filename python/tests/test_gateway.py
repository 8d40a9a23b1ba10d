"""The Gateway against the built library and a running tamrik-sim: every public call, the
links, demonstration mode, the trace, the counters."""

import configparser
import datetime
import logging
import pathlib
import shutil

import pytest

import tamrik
from tamrik.sim import Simulator

from support import outcomes

REPO = pathlib.Path(__file__).resolve().parents[2]


def test_station_reads_what_the_model_says(station_file):
    with Simulator(model=station_file) as sim, sim.gateway() as gw:
        assert gw.identity() == tamrik.Identity(
            id_string="RIG STATION 7",
            version=0x0345,
            version_string="RIG 3.4.5",
            boot_id="RIG BOOT",
            boot_version=0x0107,
            gateway_id=0xC0FFEE01,
            station_address=9,
            operation_mode=2,
            switches=0x00A5,
        )
        assert gw.inputs() == bytes.fromhex("01 02 10 20 30 40")
        assert gw.parameters() == bytes.fromhex("7F 01 02 03 04")
        modules = gw.modules()
        assert [(m.slot, m.id, m.status, m.sw_revision, m.type) for m in modules] == [
            (1, 0x021101, 0x03, 0x21, 1),
            (2, 0x0A9203, 0x01, 0x22, 2),
        ]
        # The diagnosis ends with each module's bytes, as many as its identifier announces.
        diagnosis = gw.diagnosis()
        sizes = [m.diag_bytes for m in modules]
        assert sizes == [m.diag_bytes for m in modules] == [1, 8]
        assert diagnosis == bytes.fromhex("00 11") + bytes.fromhex("80") + bytes.fromhex("00 00 00 00 00 00 00 0C")
        assert gw.errors() == [
            tamrik.ErrorEntry(0x21, datetime.timedelta(milliseconds=1500), b""),
            tamrik.ErrorEntry(0x42, datetime.timedelta(days=1, hours=1, minutes=1, seconds=1, milliseconds=1), b"\xde\xad"),
        ]
        # 93784000 ms: the clock comes in whole seconds.
        assert gw.clock() == datetime.timedelta(days=1, hours=2, minutes=3, seconds=4)


def test_writes_come_back_and_counters_count(tamrik_gateway):
    gw = tamrik_gateway
    before = gw.stats()
    assert gw.set_outputs(b"\x01\x80") == b"\x01\x80"
    assert gw.outputs()[:2] == b"\x01\x80"
    assert gw.set_outputs([0x55, 0xAA, 0x0F]) == b"\x55\xaa\x0f"
    assert gw.outputs() == b"\x55\xaa\x0f"
    parameters = gw.parameters()
    changed = bytes((b + 1) & 0xFF for b in parameters)
    assert gw.set_parameters(changed) == changed
    assert gw.parameters() == changed
    after = gw.stats()
    assert after.exchanges - before.exchanges == 7
    assert after.answers - before.answers == 7
    assert after.failures == before.failures
    assert after.bytes_out > before.bytes_out and after.bytes_in > before.bytes_in
    assert after.last_answer is not None
    assert abs(after.last_answer - datetime.datetime.now(datetime.timezone.utc)) < datetime.timedelta(seconds=60)


def test_failures_are_counted_by_code():
    with Simulator(control=False, args=["--corrupt-every", "2"]) as sim, sim.gateway() as gw:
        results = [r if r == "ok" else r.name for r in outcomes(gw.inputs, 4)]
        assert results == ["ok", "BadCheckValue", "ok", "BadCheckValue"]
        stats = gw.stats()
        assert stats.failures == 2
        assert stats.failures_by_code == {0x10040: 2}


def test_call_reaches_any_method_by_name(station_file):
    with Simulator(model=station_file) as sim, sim.gateway() as gw:
        assert gw.call("kaVGetGatewayVersion") == 0x0345
        assert gw.call("kaVGetGatewayIdSring") == "RIG STATION 7"
        time = gw.call("kaVGetGatewayTime")
        assert tuple(time) == (1, 2, 3, 4)
        assert time._fields == ("lDays", "lHours", "lMinutes", "lSeconds")
        assert gw.call("kaVGetModuleList") == [m.id for m in gw.modules()]
        assert gw.call("kaVGetProcessInData") == list(gw.inputs())
        assert gw.call("kaVSetProcessOutData", b"\x07") == [7]
        assert gw.call("kaVSetProcessOutData", plData=[9, 8]) == [9, 8]
        entries, values = gw.call("kaVGetGatewayErrorList")
        assert entries == 2 and len(values) == 7 + 9
        # Raw services: the answer code comes back, refusals included, and the data.
        service, data = gw.call("kaVDoService", 0x101)
        assert service == 0x4101 and data == b"\x45\x03"
        service, data = gw.call("kaVDoService", 0x3F00, b"")
        assert service == 0xBF00 and data == b""
        # Methods that talk to no gateway: the port area, the driver's version text.
        gw.call("SetPort", b"\x01\x02\x03\x04", 0x100)
        assert gw.call("GetPort", bytes(4), 0x100) == (b"\x01\x02\x03\x04", 0x100)
        assert gw.call("kaVGetVersion")
        # A pair passed by pointer comes back as a pair.
        assert gw.call("kaVSetModuleStreamDataPosition", [0x12, 0x34]) == [0x12, 0x34]
        with pytest.raises(tamrik.BadArgumentError, match="no method"):
            gw.call("kaVNoSuchMethod")
        with pytest.raises(tamrik.BadArgumentError, match="lBaudrate missing"):
            gw.call("kaVSetBaudrate")
        with pytest.raises(tamrik.BadArgumentError, match="32-bit"):
            gw.call("kaVSetBaudrate", "fast")


def test_every_method_of_the_table_is_in_the_library():
    from tamrik._calls import TABLE

    library = tamrik._library.library()
    assert len(TABLE) == 67
    for name, method in TABLE.items():
        assert getattr(library, "tamrik_" + name).argtypes[0] is not None
        assert len(method.params) == len(getattr(library, "tamrik_" + name).argtypes) - 2


@pytest.mark.parametrize("link", ["udp", "pty"])
def test_udp_and_serial_links(link):
    with Simulator(link, control=False) as sim:
        with sim.gateway(timeout=1.0) as gw:
            assert gw.set_outputs(b"\x11\x22") == b"\x11\x22"
            assert gw.outputs()[:2] == b"\x11\x22"
            assert gw.identity().id_string
            assert gw.link.kind == ("serial" if link == "pty" else "udp")


def test_demonstration_station(tmp_path):
    # The driver writes into the file, so the test works on a copy.
    ini = tmp_path / "kaVdmo.ini"
    shutil.copy(REPO / "examples" / "kaVdmo.ini", ini)
    station = configparser.ConfigParser()
    station.read(ini)
    with tamrik.Gateway.demo(ini) as gw:
        identity = gw.identity()
        assert identity.id_string == station["Station"]["GWIdString"]
        assert identity.version == int(station["Station"]["GWVersion"])
        assert identity.gateway_id == int(station["Station"]["GatewayId"], 16)
        modules = gw.modules()
        assert [m.id for m in modules] == [int(station["Station"][f"ModId{i}"], 16) for i in range(1, 5)]
        assert all(m.status is None and m.sw_revision is None for m in modules)
        assert len(gw.errors()) == int(station["Station"]["GWErrors"])
        clock_ms = int(station["Station"]["TimeA"]) * 65536 + int(station["Station"]["TimeB"])
        assert gw.clock() == datetime.timedelta(seconds=clock_ms // 1000)
        gw.set_outputs(b"\x0f\x00\x00")
        assert gw.outputs()[0] == 0x0F
        assert gw.download_image(bytes(600)) == 3
    with pytest.raises(tamrik.BadArgumentError, match="no demonstration file"):
        tamrik.Gateway.demo(tmp_path / "missing.ini")


def test_trace_goes_to_the_tamrik_logger_when_asked(caplog):
    with Simulator(control=False) as sim:
        with caplog.at_level(logging.INFO, logger="tamrik"):
            with sim.gateway() as gw:
                gw.inputs()
        assert not [r for r in caplog.records if r.name == "tamrik"]
        with caplog.at_level(logging.DEBUG, logger="tamrik"):
            with sim.gateway() as gw:
                gw.inputs()
        traced = [r.getMessage() for r in caplog.records if r.name == "tamrik" and r.levelno == logging.DEBUG]
        assert any("kaVGetProcessInData" in line for line in traced)
        # Asked for explicitly, whatever the logger's level.
        caplog.clear()
        with caplog.at_level(logging.DEBUG, logger="tamrik"):
            with sim.gateway(trace=False) as gw:
                gw.inputs()
        assert not [r for r in caplog.records if r.name == "tamrik"]


def test_closed_gateway_refuses_calls():
    with Simulator(control=False) as sim:
        gw = sim.gateway()
        gw.close()
        gw.close()
        assert gw.closed
        with pytest.raises(tamrik.LinkError) as raised:
            gw.inputs()
        assert raised.value.name == "NothingOpen" and raised.value.method == "kaVGetProcessInData"

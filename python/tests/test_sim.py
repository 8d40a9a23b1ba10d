"""The simulator steered while it runs, through its control channel, as the gateway sees it."""

import datetime
import socket
import subprocess
import time

import pytest

import tamrik
from tamrik.sim import ControlError, Simulator

from support import outcomes


def test_station_set_while_running_is_what_the_gateway_reads(tamrik_sim, tamrik_gateway):
    sim, gw = tamrik_sim, tamrik_gateway
    sim.set_inputs(b"\x01\x02\x03\x04\x05\x06")
    # From then on, until the next change: no animation in between.
    assert gw.inputs() == gw.inputs() == sim.inputs() == b"\x01\x02\x03\x04\x05\x06"
    sim.set_inputs(bytes(6))
    assert gw.inputs() == bytes(6)
    gw.set_outputs(b"\x5a\xa5\x0f")
    assert sim.outputs() == b"\x5a\xa5\x0f"
    sim.set_outputs(b"\x00\x01\x02")
    assert gw.outputs() == b"\x00\x01\x02"
    sim.set_parameters(b"\x09" * len(sim.parameters()))
    assert gw.parameters() == sim.parameters()
    sim.set_diagnosis(bytes(range(len(sim.diagnosis()))))
    assert gw.diagnosis() == sim.diagnosis()

    sim.set_modules([
        {"id": 0x0A9203, "type": "A", "status": 7, "sw_revision": 0x31, "type_code": 2, "inputs": "1122"},
        {"id": 0x011001, "inputs": "33"},
    ])
    assert [(m.id, m.status, m.sw_revision, m.type, m.diag_bytes) for m in gw.modules()] == [
        (0x0A9203, 7, 0x31, 2, 8),
        (0x011001, 1, 0x10, 1, 1),
    ]
    # New modules move their inputs until told otherwise.
    sim.set_inputs(b"\xaa\xbb\xcc")
    assert gw.inputs() == b"\xaa\xbb\xcc"

    errors = [tamrik.ErrorEntry(0x31, datetime.timedelta(seconds=90), b"\x01"), tamrik.ErrorEntry(5, datetime.timedelta(0), b"")]
    sim.set_errors(errors)
    assert gw.errors() == sim.errors() == errors

    sim.set_clock(datetime.timedelta(days=2, hours=3, seconds=7))
    assert gw.clock() == sim.clock() == datetime.timedelta(days=2, hours=3, seconds=7)
    sim.set_clock(None)
    assert gw.clock() < datetime.timedelta(minutes=5)

    sim.set_identity(identity="LINE 4 GATEWAY", version=0x0207, switches=0x0101)
    identity = gw.identity()
    assert (identity.id_string, identity.version, identity.switches) == ("LINE 4 GATEWAY", 0x0207, 0x0101)
    assert sim.identity()["identity"] == "LINE 4 GATEWAY"
    assert sim.station()["modules"][0]["id"] == 0x0A9203


def test_faults_once_every_nth_and_for_one_service(tamrik_sim):
    sim = tamrik_sim
    with sim.gateway(timeout=0.05) as gw:
        sim.fault("silence", count=1)
        with pytest.raises(tamrik.NoAnswerError):
            gw.inputs()
        assert gw.inputs() is not None

        rule = sim.fault("refuse", service=3, every=2)

        def outputs_then_inputs():
            gw.outputs()  # another service, never refused
            gw.inputs()

        got = outcomes(outputs_then_inputs, 4)
        assert [r if r == "ok" else (type(r), r.service) for r in got] == [
            "ok", (tamrik.RefusedError, 3), "ok", (tamrik.RefusedError, 3)
        ]
        assert [(f["id"], f["kind"], f["applied"], f["count"]) for f in sim.faults()] == [(rule, "refuse", 2, None)]

        sim.fault("corrupt", count=2, service=4)
        sim.fault("refuse", 0x07, base=0xC000, count=1, service=6)
        with pytest.raises(tamrik.FrameError):
            gw.outputs()
        with pytest.raises(tamrik.RefusedError) as refused:
            gw.parameters()
        assert refused.value.data_byte == 7
        assert [f["kind"] for f in sim.faults()] == ["refuse", "corrupt"]
        assert sim.faults()[1]["count"] == 1
        sim.clear_faults()
        assert sim.faults() == []
        assert gw.outputs() and gw.inputs() and gw.parameters()


def test_fault_kinds_as_the_driver_sees_them(tamrik_sim):
    sim = tamrik_sim
    cases = [
        ("noise", 3, None),  # a few bytes before the start byte are skipped
        ("noise", 40, tamrik.FrameError),
        ("truncate", 5, tamrik.NoAnswerError),
        ("delay", 20, None),
        ("delay", 600, tamrik.NoAnswerError),
        ("drop", None, tamrik.NoAnswerError),
    ]
    for kind, value, expected in cases:
        # A connection of its own each: what is left of a spoilt answer stays in the old one.
        with sim.gateway(timeout=0.2) as gw:
            sim.fault(kind, value, count=1)
            if expected is None:
                assert gw.identity().id_string, kind
            else:
                with pytest.raises(expected):
                    gw.call("kaVGetGatewayVersion")
    with sim.gateway(timeout=0.2) as gw:
        sim.fault("late", 250, count=1)
        with pytest.raises(tamrik.TamrikError):
            gw.inputs()
        time.sleep(0.3)
        # The late answer lies ahead of the next one; the driver gets past it to its own.
        assert gw.call("kaVGetGatewayVersion") == sim.identity()["version"]
        rule = sim.fault("pace", 9600)
        began = time.monotonic()
        gw.identity()
        assert time.monotonic() - began > 9 * 0.010  # nine answers of ten bytes and more at 9600 baud
        sim.control("DELETE", f"/faults/{rule}")
        # The connection is gone: reading fails, and writing on it after that.
        sim.fault("drop", count=1)
        kinds = [type(r) for r in outcomes(gw.inputs, 4)]
        assert kinds[0] is tamrik.NoAnswerError and kinds[-1] is tamrik.LinkError


def test_request_log_and_reset(tamrik_sim, tamrik_gateway):
    sim, gw = tamrik_sim, tamrik_gateway
    gw.set_outputs(b"\x01\x02")
    gw.inputs()
    log = sim.requests()
    assert [(r.service, r.name, r.link, r.data) for r in log] == [
        (5, "ProcessOutWrite", "tcp", b"\x01\x02"),
        (3, "ProcessIn", "tcp", b""),
    ]
    assert log[0].answer[:1] == b"\xaa" and log[0].time <= log[1].time
    sim.clear_requests()
    assert sim.requests() == []

    started = sim.station()
    sim.set_identity(identity="CHANGED")
    sim.fault("silence")
    sim.reset()
    assert sim.faults() == [] and sim.requests() == []
    assert sim.station()["identity"] == started["identity"]
    assert gw.identity().id_string == started["identity"]


def test_cancelled_image_download_is_announced(tamrik_sim, tamrik_gateway):
    sim, gw = tamrik_sim, tamrik_gateway
    sim.fault("silence", service=289, every=3, count=1)
    with pytest.raises(tamrik.TamrikError) as failed:
        gw.download_image(bytes(1000))
    assert failed.value.name == "ImageBlockFailed"
    services = [r.service for r in sim.requests()]
    assert services == [288, 289, 289, 289, 288]
    # The cancel is an announcement of an image of length 0.
    assert int.from_bytes(sim.requests()[-1].data[:4], "little") == 0


def test_control_refuses_bad_requests_with_a_reason(tamrik_sim):
    sim = tamrik_sim
    cases = [
        (lambda: sim.set_inputs(b"\x01"), 400, "the inputs image has 6 bytes, not 1"),
        (lambda: sim.fault("lightning"), 400, "kind: one of"),
        (lambda: sim.fault("delay"), 400, '"value" missing'),
        (lambda: sim.fault("silence", every=0), 400, "at least 1"),
        (lambda: sim.set_identity(version=0x10000), 400, "version: a whole number from 0 to 65535"),
        (lambda: sim.set_identity(colour="red"), 400, 'no field "colour"'),
        (lambda: sim.set_modules([{"type": "D"}]), 400, '"id" missing'),
        (lambda: sim.control("PUT", "/station/outputs", {"data": "0g"}), 400, "no hexadecimal digit"),
        (lambda: sim.control("DELETE", "/faults/42"), 404, "no fault 42"),
        (lambda: sim.control("GET", "/nowhere"), 404, "no call GET /nowhere"),
    ]
    before = sim.station()
    for call, status, message in cases:
        with pytest.raises(ControlError) as refused:
            call()
        assert refused.value.status == status and message in refused.value.message, refused.value.message
    # A refused request changes nothing.
    assert sim.station()["identity"] == before["identity"] and sim.station()["modules"] == before["modules"]


def test_control_channel_listens_on_127_0_0_1_only():
    with Simulator("udp") as sim:
        port = int(sim.control_url.rsplit(":", 1)[1])
        assert sim.control_url.startswith("http://127.0.0.1:")
        # Another address of the loopback range: nothing there.
        with socket.socket() as probe:
            probe.settimeout(2)
            assert probe.connect_ex(("127.0.0.2", port)) != 0
        with sim.gateway() as gw:
            sim.set_inputs(b"\x10" * 6)
            assert gw.inputs() == b"\x10" * 6


def test_program_has_no_control_channel_for_the_boot_loader():
    run = subprocess.run(
        [tamrik.sim.find_program(), "--boot", "lines", "--control", "0"], capture_output=True, text=True, timeout=10
    )
    assert run.returncode == 2
    assert "tamrik-sim: --control" in run.stderr

"""Every kind of failure raises its exception, with the driver's code, name and meaning."""

import logging
import socket

import pytest

import tamrik
from tamrik.sim import Simulator

from support import outcomes


def check(failure: tamrik.TamrikError, kind: type, name: str, method: str) -> None:
    assert type(failure) is kind
    assert failure.name == name
    assert failure.method == method
    assert failure.text and failure.text != "Unknown"
    assert f"0x{failure.code:X} {name}" in str(failure)


def test_no_answer_in_time():
    with Simulator(control=False, args=["--silence"]) as sim, sim.gateway(timeout=0.05) as gw:
        with pytest.raises(TimeoutError) as raised:
            gw.inputs()
        check(raised.value, tamrik.NoAnswerError, "ReadFailed", "kaVGetProcessInData")


def test_refused_by_the_gateway_with_the_service_code():
    with Simulator(control=False, args=["--refuse", "3", "--refuse", "4:0xC000:7"]) as sim, sim.gateway() as gw:
        with pytest.raises(tamrik.RefusedError) as raised:
            gw.inputs()
        check(raised.value, tamrik.RefusedError, "Refused", "kaVGetProcessInData")
        assert (raised.value.service, raised.value.answer_code, raised.value.data_byte) == (3, 0x8003, None)
        with pytest.raises(tamrik.RefusedError) as raised:
            gw.outputs()
        check(raised.value, tamrik.RefusedError, "RefusedWithByte", "kaVGetProcessOutData")
        assert raised.value.data_byte == 7
        # Other services still answer.
        assert gw.parameters()


def test_bad_frames():
    with Simulator(control=False, args=["--corrupt-every", "1"]) as sim, sim.gateway() as gw:
        with pytest.raises(tamrik.FrameError) as raised:
            gw.identity()
        check(raised.value, tamrik.FrameError, "BadCheckValue", "kaVGetGatewayIdSring")


def test_link_failures():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    # Nothing listens on the port any more.
    with pytest.raises(ConnectionError) as raised:
        tamrik.Gateway.tcp("127.0.0.1", port)
    check(raised.value, tamrik.LinkError, "ConnectFailed", "kaVOpenEthernet")
    with pytest.raises(tamrik.LinkError) as raised:
        tamrik.Gateway.tcp("0.0.0.0", port)
    assert raised.value.name == "ConnectFailed"
    with pytest.raises(tamrik.LinkError) as raised:
        tamrik.Gateway.serial("/dev/no-such-line")
    check(raised.value, tamrik.LinkError, "ComNoDevice", "kaVOpenComPort")
    # The simulator drops the connection instead of answering: the write after fails.
    with Simulator(control=False, args=["--drop"]) as sim, sim.gateway() as gw:
        assert type(outcomes(gw.inputs, 3)[-1]) is tamrik.LinkError


def test_bad_arguments_from_the_driver_and_from_the_package():
    with Simulator(control=False) as sim, sim.gateway() as gw:
        # A stream segment of length 0: the driver refuses it before anything goes out.
        with pytest.raises(ValueError) as raised:
            gw.call("kaVSetModuleStreamSegmentData", [0x21, 0, 1, 2])
        check(raised.value, tamrik.BadArgumentError, "BadArgument", "kaVSetModuleStreamSegmentData")
        with pytest.raises(tamrik.BadArgumentError, match="values 0 to 255"):
            gw.set_outputs([1, 256])
        with pytest.raises(tamrik.BadArgumentError, match="empty"):
            gw.download_image(b"")
        with pytest.raises(tamrik.BadArgumentError, match="permutation"):
            sim.gateway(privileged_bits=[0] * 32)
        with pytest.raises(tamrik.BadArgumentError, match="timeout"):
            sim.gateway(timeout=-1)
        assert gw.stats().exchanges == 0


def test_busy_when_a_trace_handler_calls_its_own_gateway():
    seen = []

    class CallBack(logging.Handler):
        def emit(self, record):
            if "kaVGetProcessInData" in record.getMessage() and not seen:
                try:
                    gateway.outputs()
                except tamrik.TamrikError as failure:
                    seen.append(failure)

    logger = logging.getLogger("tamrik")
    handler = CallBack(logging.DEBUG)
    logger.addHandler(handler)
    logger.setLevel(logging.DEBUG)
    try:
        with Simulator(control=False) as sim, sim.gateway() as gateway:
            assert gateway.inputs()
    finally:
        logger.removeHandler(handler)
        logger.setLevel(logging.NOTSET)
    assert len(seen) == 1
    check(seen[0], tamrik.BusyError, "Busy", "kaVGetProcessOutData")
    assert seen[0].code == 0x999999


def test_exceptions_survive_pickling():
    import pickle

    failure = tamrik.errors.error_for(0x20000 + 0x8003, "kaVGetProcessInData")
    again = pickle.loads(pickle.dumps(failure))
    assert type(again) is tamrik.RefusedError and again.service == 3 and str(again) == str(failure)

"""The Python side of tamrik-bench: Gateway.inputs() of the tamrik package, or pymodbus's
synchronous client reading 4 holding registers, against a far end the benchmark started.

    python3 python_client.py tamrik|pymodbus PORT [--package DIR] [--library PATH]

It connects to 127.0.0.1:PORT, says "ready" on its first line and then waits for the
benchmark's turns on stdin: "run COUNT BUDGET_NS" makes up to COUNT calls, ending early once
BUDGET_NS have passed, and answers "ok" and the time of each call in ns on one line, or
"fail" and the reason. It ends at the end of its input, and after five minutes in any case,
so that it cannot outlive a benchmark that was killed.
"""

import os
import signal
import socket
import sys
import time


def tamrik_call(port, package, library):
    if library:
        os.environ["TAMRIK_LIBRARY"] = library
    if package:
        sys.path.insert(0, package)
    import tamrik

    gateway = tamrik.Gateway.tcp("127.0.0.1", port)

    def call():
        # The benchmark's station has 9 bytes of inputs.
        return len(gateway.inputs()) == 9

    return call


def pymodbus_call(port):
    from pymodbus.client import ModbusTcpClient

    client = ModbusTcpClient("127.0.0.1", port=port, timeout=2, retries=0)
    if not client.connect():
        raise RuntimeError(f"pymodbus cannot connect to 127.0.0.1:{port}")
    # Every other client of the benchmark sends without waiting on Nagle.
    client.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def call():
        result = client.read_holding_registers(0, 4, slave=1)
        return not result.isError() and result.registers[3] == 0x1103

    return call


def serve(call):
    clock = time.perf_counter_ns
    for line in sys.stdin:
        words = line.split()
        if len(words) != 3 or words[0] != "run":
            print(f"fail unknown command {line.strip()!r}", flush=True)
            continue
        count, budget = int(words[1]), int(words[2])
        times = []
        deadline = clock() + budget
        reason = ""
        for _ in range(count):
            t0 = clock()
            try:
                ok = call()
            except Exception as error:  # a failed call ends the turn with its reason
                ok, reason = False, f"{type(error).__name__}: {error}"
            t1 = clock()
            if not ok:
                reason = reason or "wrong answer"
                break
            times.append(t1 - t0)
            if t1 >= deadline:
                break
        if reason:
            print("fail", reason.replace("\n", " "), flush=True)
        else:
            print("ok", *times, flush=True)


def main(argv):
    if len(argv) < 3 or argv[1] not in ("tamrik", "pymodbus"):
        print(__doc__, file=sys.stderr)
        return 2
    signal.alarm(300)
    kind, port = argv[1], int(argv[2])
    options = dict(zip(argv[3::2], argv[4::2]))
    if kind == "tamrik":
        call = tamrik_call(port, options.get("--package"), options.get("--library"))
    else:
        call = pymodbus_call(port)
    print("ready", flush=True)
    serve(call)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

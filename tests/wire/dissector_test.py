#!/usr/bin/python3
"""The Wireshark dissector in tshark, on a capture this test makes itself on loopback.

Three simulated gateways, each with faults of its own, are captured on `lo` while the tool talks
to them and a small sender puts several frames in one TCP segment and one frame in two. tshark
then reads the capture with the dissector, once with the ports set in its preferences and once
by its heuristic alone, and the fields must say what the tool and its decode command say about
the same bytes. Exits 77 where capturing is not permitted.
"""
import argparse
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SKIP = 77


class Failures:
    def __init__(self):
        self.messages = []

    def check(self, condition, message):
        if not condition:
            self.messages.append(message)
        return condition


def wait_for_line(stream, text, seconds):
    """The first line of stream that holds text, waiting at most seconds; None when none came."""
    deadline = time.monotonic() + seconds
    buffered = b""
    while time.monotonic() < deadline:
        ready, _, _ = select.select([stream], [], [], max(0.0, deadline - time.monotonic()))
        if not ready:
            break
        chunk = os.read(stream.fileno(), 4096)
        if not chunk:
            break
        buffered += chunk
        for line in buffered.decode(errors="replace").splitlines():
            if text in line:
                return line
    return None


class Processes:
    """Every process the test starts, stopped by its own id at the end."""

    def __init__(self):
        self.started = []

    def start(self, args, **kwargs):
        process = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **kwargs)
        self.started.append(process)
        return process

    def stop(self, process, seconds=10):
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
        try:
            process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait(timeout=seconds)

    def stop_all(self):
        for process in self.started:
            self.stop(process)


def start_sim(processes, sim, options):
    process = processes.start([sim] + options)
    line = wait_for_line(process.stdout, "127.0.0.1:", 10)
    if line is None:
        raise RuntimeError("tamrik-sim %s did not say where it listens" % " ".join(options))
    return process, int(line.rsplit(":", 1)[1])


def run_tool(tool, args, trace_file=None):
    """The tool's JSON document; its trace goes to trace_file when one is given."""
    command = [tool, "--json"] + (["--trace"] if trace_file else []) + args
    result = subprocess.run(command, capture_output=True, timeout=60)
    if trace_file:
        with open(trace_file, "wb") as out:
            out.write(result.stderr)
    return json.loads(result.stdout)


def request_frames(trace_file):
    """The request frames the tool wrote, from its own trace: the sender reuses them."""
    frames = {}
    with open(trace_file, encoding="utf-8", errors="replace") as trace:
        for line in trace:
            if "Write Stream (len:" in line:
                frame = bytes.fromhex(line.rsplit(": ", 1)[1].strip())
                frames[int.from_bytes(frame[1:3], "little")] = frame
    return frames


def send_in_segments(port, frames, split, answers_expected):
    """Two requests in one segment, then one request in two segments a moment apart."""
    with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.sendall(frames[0] + frames[1])
        time.sleep(0.3)
        connection.sendall(split[:3])
        time.sleep(0.3)
        connection.sendall(split[3:])
        deadline = time.monotonic() + 5
        received = b""
        while received.count(b"\xaa") < answers_expected and time.monotonic() < deadline:
            try:
                chunk = connection.recv(4096)
            except socket.timeout:
                break
            if not chunk:
                break
            received += chunk


def tshark_packets(dissector, capture, preferences):
    command = ["tshark", "-X", "lua_script:" + dissector, "-r", capture, "-T", "json", "--no-duplicate-keys"]
    for preference in preferences:
        command += ["-o", preference]
    result = subprocess.run(command, capture_output=True, timeout=120)
    if result.returncode != 0:
        raise RuntimeError("tshark failed: " + result.stderr.decode(errors="replace"))
    return json.loads(result.stdout)


def as_list(value):
    return value if isinstance(value, list) else [value]


def frames_of(packets):
    """(packet layers, one tamrik tree) for every frame, in capture order."""
    out = []
    for packet in packets:
        layers = packet["_source"]["layers"]
        for tree in as_list(layers.get("tamrik", [])):
            out.append((layers, tree))
    return out


def port_of(layers, side):
    for transport in ("tcp", "udp"):
        if transport in layers:
            return int(as_list(layers[transport][transport + "." + side])[0])
    return None


def field(tree, name):
    """A field anywhere in one frame's tree (decoded data sits under the data item)."""
    if name in tree:
        return tree[name]
    for value in tree.values():
        if isinstance(value, dict):
            found = field(value, name)
            if found is not None:
                return found
    return None


def fields(tree, name):
    """Every value of a field under one frame's tree."""
    found = []
    for key, value in tree.items():
        if key == name:
            found += as_list(value)
        elif isinstance(value, dict):
            found += fields(value, name)
        elif isinstance(value, list) and value and isinstance(value[0], dict):
            for item in value:
                found += fields(item, name)
    return found


def kind(tree):
    return {"0": "request", "1": "answer", "2": "refusal", "3": "not recognised"}[field(tree, "tamrik.kind")]


def crc_good(tree):
    return field(tree, "tamrik.crc.status") == "1"


def capture(args, work):
    """Runs the whole session under dumpcap; returns what the checks need to know."""
    processes = Processes()
    try:
        # A: TCP, every answer after three noise bytes, every fourth answer with a wrong check
        # value, GatewayVersion refused with a reason byte. B: UDP, two noise bytes, BootVersion
        # refused without one. C: TCP, every answer paced out byte by byte.
        sim_a, port_a = start_sim(processes, args.sim,
                                  ["--tcp", "0", "--noise", "3", "--corrupt-every", "4", "--refuse", "0x101:0x8000:0x07"])
        sim_b, port_b = start_sim(processes, args.sim, ["--udp", "0", "--noise", "2", "--refuse", "0x103:0xC000"])
        sim_c, port_c = start_sim(processes, args.sim, ["--tcp", "0", "--pace", "20000"])
        capture_file = os.path.join(work, "wire.pcapng")
        dumpcap = processes.start(["dumpcap", "-q", "-i", "lo", "-f",
                                   "port %d or port %d or port %d" % (port_a, port_b, port_c), "-w", capture_file])
        if wait_for_line(dumpcap.stderr, "Capturing on", 15) is None:
            processes.stop(dumpcap)
            print("dumpcap cannot capture on lo here: " + dumpcap.stderr.read().decode(errors="replace"))
            sys.exit(SKIP)
        # dumpcap says so a moment before its filter is in place.
        time.sleep(1.0)
        session = {"ports": (port_a, port_b, port_c), "capture": capture_file,
                   "trace_a": os.path.join(work, "a.trace"), "trace_c": os.path.join(work, "c.trace")}
        session["info_a"] = run_tool(args.tool, ["--tcp", "127.0.0.1:%d" % port_a, "info"], session["trace_a"])
        session["info_b"] = run_tool(args.tool, ["--udp", "127.0.0.1:%d" % port_b, "info"])
        link_c = ["--tcp", "127.0.0.1:%d" % port_c]
        session["info_c"] = run_tool(args.tool, link_c + ["info"], session["trace_c"])
        session["modules"] = run_tool(args.tool, link_c + ["modules"])
        session["errors"] = run_tool(args.tool, link_c + ["errors"])
        session["clock"] = run_tool(args.tool, link_c + ["clock"])
        requests = request_frames(session["trace_c"])
        session["sender"] = [0x112, 0x10F, 0x105]
        send_in_segments(port_a, [requests[0x112], requests[0x10F]], requests[0x105], 3)
        time.sleep(0.5)  # the last packets reach the capture file
        processes.stop(dumpcap)
        return session
    finally:
        processes.stop_all()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tool", required=True)
    parser.add_argument("--sim", required=True)
    parser.add_argument("--dissector", required=True)
    parser.add_argument("--keep", help="keep the capture and traces in this folder")
    args = parser.parse_args()
    for program in ("dumpcap", "tshark"):
        if shutil.which(program) is None:
            print(program + " is not installed")
            return SKIP
    work = args.keep or tempfile.mkdtemp(prefix="tamrik-wire-")
    os.makedirs(work, exist_ok=True)
    try:
        session = capture(args, work)
        failures = Failures()
        check_all(args, session, failures)
    finally:
        if not args.keep:
            shutil.rmtree(work, ignore_errors=True)
    for message in failures.messages:
        print("FAILED: " + message)
    return 1 if failures.messages else 0


def number(text):
    return int(str(text).split()[0], 0)


def on_port(frames, port):
    return [(layers, tree) for layers, tree in frames if port in (port_of(layers, "srcport"), port_of(layers, "dstport"))]


def answers(frames):
    return [(layers, tree) for layers, tree in frames if kind(tree) != "request"]


def noise_length(tree):
    noise = tree.get("tamrik.noise")
    return len(noise.split(":")) if noise else 0


def check_faults(frames, port_a, port_b, failures):
    """Noise, refusals and wrong check values where the simulators put them, and only there."""
    failures.check(all(crc_good(t) for _, t in frames if kind(t) == "request"), "a request's check value flagged bad")
    on_a = answers(on_port(frames, port_a))
    failures.check(len(on_a) >= 12, "too few answers from the noisy TCP gateway: %d" % len(on_a))
    flags = [crc_good(t) for _, t in on_a]
    failures.check(flags == [(i + 1) % 4 != 0 for i in range(len(on_a))],
                   "every fourth answer, and only it, must be flagged bad: %s" % flags)
    failures.check(all(noise_length(t) == 3 and "tamrik.noise_tree" in t for _, t in on_a),
                   "three bytes before every start byte from the noisy TCP gateway")
    refusals = [t for _, t in on_a if kind(t) == "refusal"]
    failures.check([(t["tamrik.code"], field(t, "tamrik.refusal.reason")) for t in refusals] == [("0x8101", "0x07")],
                   "GatewayVersion refused with reason 7: %s" % refusals)
    on_b = on_port(frames, port_b)
    failures.check(len(on_b) == 22, "eleven exchanges over UDP: %d frames" % len(on_b))
    failures.check(all(noise_length(t) == 2 for _, t in answers(on_b)), "two noise bytes before every UDP answer")
    refused = [t for _, t in on_b if kind(t) == "refusal"]
    failures.check([(t["tamrik.code"], t["tamrik.name"], t["tamrik.length"]) for t in refused]
                   == [("0xc103", "BootVersion", "0")], "BootVersion refused with 0xC000: %s" % refused)


def decoded_by_tool(tool, trace_file):
    result = subprocess.run([tool, "--json", "decode", trace_file], capture_output=True, timeout=60)
    return json.loads(result.stdout)["frames"]


def summary_of_tool(frame):
    decoded = frame.get("decoded", {})
    # Packed values (a gateway identifier) are a list in the tool's document, one field each in tshark's.
    value = decoded.get("value", (decoded.get("values") or [None])[0])
    return (frame["kind"], frame["code"], frame["length"], frame["check_value_good"], len(frame.get("noise", [])),
            decoded.get("text"), value)


def summary_of_tshark(tree):
    value = field(tree, "tamrik.value")
    return (kind(tree), number(tree["tamrik.code"]), number(tree["tamrik.length"]), crc_good(tree), noise_length(tree),
            field(tree, "tamrik.text"), number(value) if value is not None else None)


def check_same_as_decode(args, session, frames, failures):
    """The tool's decode of its own trace and the dissector of the same bytes on the wire agree."""
    first_stream = None
    wire = []
    for layers, tree in on_port(frames, session["ports"][0]):
        stream = layers["tcp"]["tcp.stream"]
        first_stream = first_stream or stream
        if stream == first_stream:
            wire.append(summary_of_tshark(tree))
    traced = [summary_of_tool(f) for f in decoded_by_tool(args.tool, session["trace_a"])]
    failures.check(len(traced) >= 22 and traced == wire,
                   "decode of the trace and the dissector differ:\n%s\n%s" % (traced, wire))


def check_values(session, frames, failures):
    """The decoded data are what the tool read through the driver from the paced gateway."""
    on_c = on_port(frames, session["ports"][2])
    by_name = {}
    for _, tree in answers(on_c):
        by_name.setdefault(tree["tamrik.name"], tree)
    identity = session["info_c"]["identity"]
    failures.check(field(by_name["GatewayIdString"], "tamrik.text") == identity, "identity text " + identity)
    failures.check(number(field(by_name["GatewayVersion"], "tamrik.value")) == session["info_c"]["version"], "version")
    modules = [number(v) for v in fields(by_name["ModuleList"], "tamrik.module.id")]
    failures.check(modules == [m["id"] for m in session["modules"]["modules"]], "module identifiers %s" % modules)
    codes = [number(v) for v in fields(by_name["ErrorList"], "tamrik.error.code")]
    failures.check(codes == [e["code"] for e in session["errors"]["errors"]], "error codes %s" % codes)
    # The clock command's exchange is the last one with the paced gateway.
    clock = [t for _, t in answers(on_c) if t["tamrik.name"] == "GatewayTime"][-1]
    clock_ms = number(field(clock, "tamrik.clock.ms"))
    failures.check(clock_ms // 1000 == session["clock"]["total_seconds"]
                   and field(clock, "tamrik.clock").startswith(session["clock"]["clock"] + "."),
                   "clock %d ms, %s" % (clock_ms, field(clock, "tamrik.clock")))
    # A paced answer leaves byte by byte, but a simulator that falls behind on a busy machine
    # sends the bytes it owes together: some answers may come in one segment. Every answer must
    # be whole and good all the same, and those that came in pieces reassembled.
    paced = answers(on_c)
    whole = [t for layers, t in paced if "tcp.segments" in layers]
    failures.check(whole and all(crc_good(t) for _, t in paced),
                   "paced answers reassembled from their segments (%d of %d)" % (len(whole), len(paced)))


def check_segments(session, packets, failures):
    """Several frames in one segment all shown; one frame in two segments shown once, whole."""
    together = [as_list(p["_source"]["layers"]["tamrik"]) for p in packets
                if isinstance(p["_source"]["layers"].get("tamrik"), list)]
    names = [[t["tamrik.name"] for t in trees] for trees in together]
    failures.check(["Switches", "GatewayTime"] in names, "two requests of one segment: %s" % names)
    split = [p["_source"]["layers"] for p in packets if "tcp.segments" in p["_source"]["layers"]
             and port_of(p["_source"]["layers"], "dstport") == session["ports"][0]]
    failures.check(any(l["tcp.segments"]["tcp.segment.count"] == "2" and l["tamrik"]["tamrik.name"] == "GetOperationMode"
                       for l in split), "the request sent in two segments, reassembled")


def check_all(args, session, failures):
    ports = session["ports"]
    by_port = tshark_packets(args.dissector, session["capture"],
                             ["tamrik.tcp_ports:%d,%d" % (ports[0], ports[2]), "tamrik.udp_ports:%d" % ports[1]])
    frames = frames_of(by_port)
    check_faults(frames, ports[0], ports[1], failures)
    check_same_as_decode(args, session, frames, failures)
    check_values(session, frames, failures)
    check_segments(session, by_port, failures)
    # Without ports the heuristic finds the same frames.
    heuristic = frames_of(tshark_packets(args.dissector, session["capture"], []))
    key = lambda frames: [(l["frame"]["frame.number"], t["tamrik.code"], t["tamrik.crc.status"]) for l, t in frames]
    failures.check(key(heuristic) == key(frames), "the heuristic alone finds %d frames of %d" % (len(heuristic), len(frames)))
    print("%d frames checked" % len(frames))


if __name__ == "__main__":
    sys.exit(main())

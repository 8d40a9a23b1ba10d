#!/usr/bin/python3
"""A stand-in for the HTTP side of `tamrik serve`, for working on the page without building the
service: the files of serve/web and the /api routes with N animated gateways (gw3 not writable,
gw3 with a failure). Listens on loopback only; prints the same `http: listening on` line as the service.

    /usr/bin/python3 tests/browser/mock_serve.py [--port 8080] [--gateways 4]
"""
import argparse
import datetime
import json
import mimetypes
import pathlib
import queue
import random
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import urlsplit

WEB = pathlib.Path(__file__).resolve().parents[2] / "serve" / "web"


def now():
    return datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="milliseconds").replace("+00:00", "Z")


class Fleet:
    def __init__(self, count):
        self.lock = threading.Lock()
        self.listeners = []
        self.started = time.monotonic()
        self.gateways = {}
        for i in range(1, count + 1):
            name = f"gw{i}"
            self.gateways[name] = {
                "name": name, "link": f"tcp 127.0.0.1:{5000 + i}", "online": True, "writable": i != 3,
                "last_good": now(), "exchanges": 0, "failures": 0, "rate": 0.0, "reconnects": 0,
                "last_failure": None if i != 3 else {"code": 65616, "name": "AnswerTimeout",
                                                     "text": "no answer within the time-out", "ts": now()},
                "identity": {"identity": "TAMRIK-SIM GW-1", "version": "1.2", "gateway_id": "0x12345678",
                             "station_address": 3, "operation_mode": 1},
                "modules": [{"slot": 0, "id": "0x021101", "type": "D", "inputs": 2, "outputs": 2, "status": "ok"},
                            {"slot": 1, "id": "0x045203", "type": "A", "inputs": 4, "outputs": 0, "status": "ok"},
                            {"slot": 2, "id": "0x013004", "type": "D", "inputs": 0, "outputs": 1, "status": "ok"}],
                "inputs": {"ts": now(), "bytes": [0] * 6}, "outputs": {"ts": now(), "bytes": [0] * 3},
                "diagnosis": {"ts": now(), "bytes": [0, 0]},
                "errors": [{"code": "0x11", "time_ms": 1000}, {"code": "0x22", "time_ms": 10000, "data": "AA BB"}],
                "clock": {"ts": now(), "ms": 0},
            }

    @staticmethod
    def summary(g):
        return {k: g[k] for k in ("name", "link", "online", "writable", "last_good", "exchanges", "failures",
                                  "rate", "reconnects", "last_failure")}

    def publish(self, name, topic, value):
        data = json.dumps({"gateway": name, "topic": topic, "value": value})
        for q in list(self.listeners):
            q.put(data)

    def tick(self, step):
        with self.lock:
            for name, g in self.gateways.items():
                if not g["online"]:
                    continue
                b = g["inputs"]["bytes"]
                b[0] = step & 0xFF
                b[1] = (step * 7) & 0xFF
                b[2] = int(128 + 100 * __import__("math").sin(step / 10))
                b[3] = random.randrange(256) if step % 10 == 0 else b[3]
                g["inputs"] = {"ts": now(), "bytes": b}
                g["exchanges"] += 3
                g["rate"] = 30.0
                g["last_good"] = now()
                g["clock"] = {"ts": now(), "ms": int((time.monotonic() - self.started) * 1000)}
                self.publish(name, "inputs", g["inputs"])
                if step % 10 == 0:
                    self.publish(name, "counters", {k: g[k] for k in ("exchanges", "failures", "rate", "reconnects",
                                                                     "last_good", "last_failure")})
                    self.publish(name, "clock", g["clock"])


def handler(fleet):
    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *args):
            pass

        def send(self, status, body, ctype="application/json"):
            data = body if isinstance(body, bytes) else json.dumps(body).encode()
            self.send_response(status)
            self.send_header("Content-Type", ctype)
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)

        def do_GET(self):
            path = urlsplit(self.path).path
            if path == "/api/gateways":
                with fleet.lock:
                    return self.send(200, {"gateways": [Fleet.summary(g) for g in fleet.gateways.values()]})
            if path.startswith("/api/gateways/"):
                g = fleet.gateways.get(path.rsplit("/", 1)[1])
                if not g:
                    return self.send(404, {"error": "no such gateway"})
                with fleet.lock:
                    return self.send(200, g)
            if path == "/api/events":
                return self.events()
            file = WEB / ("index.html" if path == "/" else path.lstrip("/"))
            if WEB in file.resolve().parents and file.is_file():
                ctype = mimetypes.guess_type(file.name)[0] or "application/octet-stream"
                return self.send(200, file.read_bytes(), ctype)
            return self.send(404, b"not found", "text/plain")

        def events(self):
            self.send_response(200)
            self.send_header("Content-Type", "text/event-stream")
            self.send_header("Cache-Control", "no-cache")
            self.end_headers()
            q = queue.Queue()
            fleet.listeners.append(q)
            try:
                while True:
                    try:
                        data = q.get(timeout=15)
                        self.wfile.write(f"event: change\ndata: {data}\n\n".encode())
                    except queue.Empty:
                        self.wfile.write(b": keepalive\n\n")
                    self.wfile.flush()
            except OSError:
                pass
            finally:
                fleet.listeners.remove(q)

        def do_POST(self):
            parts = urlsplit(self.path).path.split("/")
            g = fleet.gateways.get(parts[3]) if len(parts) == 5 and parts[4] == "outputs" else None
            if not g:
                return self.send(404, {"error": "no such gateway"})
            body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
            try:
                data = json.loads(body)["bytes"]
                assert all(isinstance(b, int) and 0 <= b < 256 for b in data)
            except Exception:
                return self.send(400, {"ok": False, "code": 0, "name": "BadRequest", "text": "bytes expected"})
            if not g["writable"]:
                return self.send(403, {"ok": False, "code": 0, "name": "NotWritable", "text": "not writable"})
            with fleet.lock:
                g["outputs"] = {"ts": now(), "bytes": data}
            fleet.publish(g["name"], "outputs", g["outputs"])
            return self.send(200, {"ok": True})

    return Handler


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--gateways", type=int, default=4)
    args = parser.parse_args()
    fleet = Fleet(args.gateways)
    server = ThreadingHTTPServer(("127.0.0.1", args.port), handler(fleet))
    server.daemon_threads = True
    print(f"http: listening on http://127.0.0.1:{server.server_address[1]}", flush=True)

    def animate():
        step = 0
        while True:
            time.sleep(0.1)
            step += 1
            fleet.tick(step)

    threading.Thread(target=animate, daemon=True).start()
    server.serve_forever()


if __name__ == "__main__":
    main()

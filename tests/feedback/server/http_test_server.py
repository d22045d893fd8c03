#!/usr/bin/python3
"""A recording HTTP/1.1 server for the network autotests and benchmarks.

Standard library only. It binds 127.0.0.1 (port 0 picks a free one), writes
the port it got to --port-file and its PID to --pid-file, and serves:

  GET  /update_check.php     the scripted version reply (see /control/script)
  GET  /blob?size=N&seed=S   N deterministic pseudo-random bytes, streamed in chunks;
                             &cut=M closes the connection after M of them,
                             &stall=M stops sending after M of them until released
  GET  /redirect?to=PATH     302 to PATH, with a small HTML body
  POST /app/logupload.php    a multipart form, parsed here part by part
  POST /activate.php         any body
  any path scripted as "hang" accepts and never answers until
                             POST /control/release closes it (or 120 s pass);
                             "stall" sends the headers and "sent" body bytes of a
                             longer body, then nothing until released; "endless"
                             sends a body that never ends (until released)

With --tls-cert and --tls-key it speaks https instead, with that chain and key.

Every request to a non-control path is recorded: method, path, query,
headers in order, and for bodies their length, SHA-256 and (when small) the
bytes; multipart forms are split into parts with their headers. The tests
read the record with GET /control/requests and clear it with POST
/control/reset. GET /control/digest?size=N&seed=S gives the SHA-256 of a blob.
"""

import argparse
import base64
import hashlib
import json
import mmap
import os
import random
import socket
import tempfile
import threading
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

CHUNK = 64 * 1024
SMALL_BODY = 1024 * 1024
HANG_LIMIT_S = 120

state_lock = threading.Lock()
requests = []
scripts = {}  # path -> {"mode": "reply"|"hang"|"close", "status", "body", "contentType"}
release_event = threading.Event()
blocks = {}


def block_for(seed):
    # A block of a length that is not a power of two, so chunk and block
    # borders never line up.
    with state_lock:
        if seed not in blocks:
            blocks[seed] = random.Random(seed).randbytes(1024 * 1024 + 7)
        return blocks[seed]


def blob_chunks(size, seed):
    block = block_for(seed)
    offset = 0
    while offset < size:
        start = offset % len(block)
        piece = block[start:start + min(CHUNK, size - offset)]
        offset += len(piece)
        yield piece


def blob_digest(size, seed):
    digest = hashlib.sha256()
    for piece in blob_chunks(size, seed):
        digest.update(piece)
    return digest.hexdigest()


def describe_body(data):
    entry = {"length": len(data), "sha256": hashlib.sha256(data).hexdigest()}
    if len(data) <= SMALL_BODY:
        entry["base64"] = base64.b64encode(bytes(data)).decode("ascii")
    return entry


def parse_part_headers(raw):
    headers = []
    for line in raw.split(b"\r\n"):
        if not line:
            continue
        name, _, value = line.partition(b":")
        headers.append([name.decode("latin-1"), value.strip().decode("latin-1")])
    return headers


def parse_multipart(view, content_type):
    """Splits a multipart body (a bytes-like view) into its parts, by the rules of RFC 2046."""
    boundary = None
    for item in content_type.split(";"):
        key, _, value = item.strip().partition("=")
        if key.lower() == "boundary":
            boundary = value.strip('"')
    if not boundary:
        return {"error": "no boundary"}
    delimiter = b"--" + boundary.encode("latin-1")
    first = view.find(delimiter)
    if first != 0:
        return {"error": "body does not start with the delimiter"}
    parts = []
    position = len(delimiter)
    while True:
        if view[position:position + 2] == b"--":
            trailer = bytes(view[position + 2:])
            return {"boundary": boundary, "parts": parts, "trailer": base64.b64encode(trailer).decode("ascii")}
        if view[position:position + 2] != b"\r\n":
            return {"error": "delimiter not followed by CRLF", "parts": parts}
        position += 2
        header_end = view.find(b"\r\n\r\n", position)
        if header_end < 0:
            return {"error": "unterminated part headers", "parts": parts}
        headers = parse_part_headers(bytes(view[position:header_end]))
        body_start = header_end + 4
        next_delimiter = view.find(b"\r\n" + delimiter, body_start)
        if next_delimiter < 0:
            return {"error": "unterminated part", "parts": parts}
        body = view[body_start:next_delimiter]
        parts.append({"headers": headers, "body": describe_body(body)})
        position = next_delimiter + 2 + len(delimiter)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, format, *args):  # quiet: the record is the log
        pass

    # ---- helpers -------------------------------------------------------
    def send_bytes(self, status, body, content_type="application/octet-stream", extra=()):
        self.send_response(status)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        for name, value in extra:
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def send_json(self, value, status=200):
        self.send_bytes(status, json.dumps(value).encode("utf-8"), "application/json")

    def read_body_to_file(self):
        length = int(self.headers.get("Content-Length", "0") or "0")
        spool = tempfile.TemporaryFile()
        remaining = length
        while remaining > 0:
            data = self.rfile.read(min(CHUNK * 4, remaining))
            if not data:
                break
            spool.write(data)
            remaining -= len(data)
        spool.flush()
        return spool, length - remaining

    def record(self, body_entry=None, form=None):
        url = urllib.parse.urlsplit(self.path)
        entry = {
            "method": self.command,
            "path": url.path,
            "rawQuery": url.query,
            "query": urllib.parse.parse_qs(url.query, keep_blank_values=True),
            "headers": [[name, value] for name, value in self.headers.items()],
        }
        if body_entry is not None:
            entry["body"] = body_entry
        if form is not None:
            entry["form"] = form
        with state_lock:
            requests.append(entry)

    def scripted(self, path):
        with state_lock:
            return scripts.get(path)

    def hang(self):
        # Accepts and answers nothing until the test releases it; then the
        # connection is closed without a response.
        release_event.wait(HANG_LIMIT_S)
        self.close_connection = True
        try:
            self.connection.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass

    def apply_script(self, script):
        mode = script.get("mode", "reply")
        if mode == "hang":
            self.hang()
            return
        if mode == "close":
            self.close_connection = True
            self.connection.shutdown(socket.SHUT_RDWR)
            return
        if mode == "stall":
            sent = script.get("sent", 0)
            self.send_response(script.get("status", 200))
            self.send_header("Content-Type", script.get("contentType", "application/octet-stream"))
            self.send_header("Content-Length", str(sent + 1000))
            self.end_headers()
            self.wfile.write(b"x" * sent)
            self.wfile.flush()
            self.hang()
            return
        if mode == "endless":
            self.send_response(script.get("status", 200))
            self.send_header("Content-Type", script.get("contentType", "application/json"))
            self.end_headers()
            self.close_connection = True
            piece = b"[" * CHUNK
            try:
                while not release_event.is_set():
                    self.wfile.write(piece)
            except OSError:
                pass
            return
        body = script.get("body", "").encode("utf-8")
        self.send_bytes(script.get("status", 200), body, script.get("contentType", "application/json"))

    # ---- methods -------------------------------------------------------
    def do_GET(self):
        url = urllib.parse.urlsplit(self.path)
        query = urllib.parse.parse_qs(url.query)
        if url.path == "/control/requests":
            with state_lock:
                self.send_json(list(requests))
            return
        if url.path == "/control/digest":
            self.send_json({"sha256": blob_digest(int(query["size"][0]), int(query.get("seed", ["0"])[0]))})
            return
        self.record()
        script = self.scripted(url.path)
        if script is not None:
            self.apply_script(script)
            return
        if url.path == "/blob":
            self.send_blob(int(query["size"][0]), int(query.get("seed", ["0"])[0]),
                           int(query["cut"][0]) if "cut" in query else None,
                           int(query["stall"][0]) if "stall" in query else None)
            return
        if url.path == "/redirect":
            body = b"<html><body>Moved</body></html>"
            self.send_bytes(302, body, "text/html", [("Location", query.get("to", ["/"])[0])])
            return
        if url.path == "/update_check.php":
            self.send_json({"var": "0.0.0.1"})
            return
        self.send_bytes(404, b"not found", "text/plain")

    def send_blob(self, size, seed, cut, stall=None):
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        self.send_header("Content-Length", str(size))
        self.end_headers()
        sent = 0
        for piece in blob_chunks(size, seed):
            if cut is not None and sent + len(piece) > cut:
                self.wfile.write(piece[:cut - sent])
                self.wfile.flush()
                self.close_connection = True
                self.connection.shutdown(socket.SHUT_RDWR)
                return
            if stall is not None and sent + len(piece) > stall:
                self.wfile.write(piece[:stall - sent])
                self.wfile.flush()
                self.hang()
                return
            self.wfile.write(piece)
            sent += len(piece)

    def do_POST(self):
        url = urllib.parse.urlsplit(self.path)
        if url.path.startswith("/control/"):
            spool, _ = self.read_body_to_file()
            spool.seek(0)
            payload = spool.read()
            spool.close()
            self.control(url.path, json.loads(payload) if payload else {})
            return
        script = self.scripted(url.path)
        if script is not None and script.get("mode") in ("hang", "close"):
            self.record()
            self.apply_script(script)
            return
        spool, received = self.read_body_to_file()
        try:
            form = None
            body_entry = {"length": received}
            content_type = self.headers.get("Content-Type", "")
            if received > 0:
                with mmap.mmap(spool.fileno(), 0, access=mmap.ACCESS_READ) as view:
                    if content_type.lower().startswith("multipart/"):
                        form = parse_multipart(view, content_type)
                        body_entry["sha256"] = hashlib.sha256(view).hexdigest()
                    else:
                        body_entry = describe_body(view)
            else:
                body_entry = describe_body(b"")
        finally:
            spool.close()
        self.record(body_entry, form)
        if script is not None:
            self.apply_script(script)
            return
        self.send_bytes(200, b'{"result":"ok"}', "application/json")

    def control(self, path, payload):
        if path == "/control/reset":
            with state_lock:
                requests.clear()
                scripts.clear()
            release_event.set()
            release_event.clear()
            self.send_json({"ok": True})
        elif path == "/control/script":
            with state_lock:
                scripts[payload["path"]] = payload
            self.send_json({"ok": True})
        elif path == "/control/release":
            release_event.set()
            self.send_json({"ok": True})
        else:
            self.send_json({"error": "unknown control"}, 404)


class Server(ThreadingHTTPServer):
    daemon_threads = True
    allow_reuse_address = True


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--port-file")
    parser.add_argument("--pid-file")
    parser.add_argument("--tls-cert")
    parser.add_argument("--tls-key")
    arguments = parser.parse_args()
    server = Server(("127.0.0.1", arguments.port), Handler)
    if arguments.tls_cert:
        import ssl
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(arguments.tls_cert, arguments.tls_key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    if arguments.pid_file:
        with open(arguments.pid_file + ".tmp", "w") as handle:
            handle.write(str(os.getpid()))
        os.replace(arguments.pid_file + ".tmp", arguments.pid_file)
    if arguments.port_file:
        with open(arguments.port_file + ".tmp", "w") as handle:
            handle.write(str(server.server_address[1]))
        os.replace(arguments.port_file + ".tmp", arguments.port_file)
    server.serve_forever()


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""Loopback HTTP(S) server for the zrx2dsticker tests (standard library only).

Usage: sticker_server.py --root DIR [--tls CERT KEY] [--verbose]

Binds two ephemeral ports on 127.0.0.1 and prints, flushed, on stdout:
    PORT <port>       serves the routes below (HTTPS with --tls)
    CONTROL <port>    plain HTTP, serves the control routes only
Nothing else is ever written to stdout. The server runs until its stdin
reaches end-of-file or it gets SIGTERM or SIGINT, so a parent that holds a
pipe to its stdin never leaves it behind.

Routes (NAME is a path below --root, percent-decoded, ".." refused; a
missing file gives 404; HEAD works everywhere and sends the headers only):
  /files/NAME             the file, with Content-Length
  /chunked/NAME           the file, Transfer-Encoding: chunked, no length
  /status/CODE            status CODE (200-599) with a small HTML body
  /redirect/N/NAME        302 to /redirect/N-1/NAME, ..., /redirect/1/NAME
                          302s to /files/NAME: N redirects, then the file
  /loop?ms=N              302 to /loop, forever, each reply held back N ms
                          (default 20): a loop as fast as loopback allows
                          ends on libcurl's cap on the headers it collects
                          across redirects (300 KiB) within about a second
  /slow/NAME?bps=N        the file with Content-Length, trickled at about
                          N bytes a second (default 1024)
  /stall/NAME?bytes=K     Content-Length of the whole file, its first K bytes
                          (default half), then silence: the connection is
                          held until the client leaves or the server stops
  /drop/NAME?bytes=K      Content-Length of the whole file, its first K bytes
                          (default half), then the connection is closed
Control routes (on both ports, never counted):
  /__requests             {"connections": C, "requests": {TARGET: N, ...}}
  /__reset                zeroes the counters

Every other request is counted under its request target as sent (path and
query). "connections" counts the connections accepted on the main port,
also those whose TLS handshake then failed.
"""

import argparse
import json
import os
import re
import signal
import socket
import socketserver
import ssl
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, unquote, urlsplit

# Errors of a client that went away or never finished its TLS handshake:
# part of the tests' normal business, never worth a stack trace.
QUIET_ERRORS = (ConnectionError, TimeoutError, ssl.SSLError)
HANDSHAKE_TIMEOUT = 10.0
CHUNK = 16 * 1024


class State:
    """Counters and settings shared by both listeners and all threads."""

    def __init__(self, root, verbose):
        self.root = os.path.realpath(root)
        self.verbose = verbose
        self.closing = threading.Event()
        self._lock = threading.Lock()
        self._requests = {}
        self._connections = 0

    def count_request(self, target):
        with self._lock:
            self._requests[target] = self._requests.get(target, 0) + 1

    def count_connection(self):
        with self._lock:
            self._connections += 1

    def snapshot(self):
        with self._lock:
            return {"connections": self._connections,
                    "requests": dict(self._requests)}

    def reset(self):
        with self._lock:
            self._requests.clear()
            self._connections = 0

    def resolve(self, name):
        """Absolute path of the regular file NAME below the root, or None."""
        name = unquote(name)
        if ".." in re.split(r"[/\\]", name):
            return None
        path = os.path.realpath(os.path.join(self.root, name))
        if not path.startswith(self.root + os.sep) or not os.path.isfile(path):
            return None
        return path


class Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 128

    def __init__(self, state, tls_context, control):
        self.state = state
        self.tls_context = tls_context
        self.control = control
        super().__init__(("127.0.0.1", 0), Handler)

    def server_bind(self):
        # HTTPServer.server_bind looks the host name up; nothing here needs
        # it and a slow resolver would delay the start.
        socketserver.TCPServer.server_bind(self)
        self.server_name = "127.0.0.1"
        self.server_port = self.server_address[1]

    def process_request(self, request, client_address):
        if not self.control:
            self.state.count_connection()
        super().process_request(request, client_address)

    def finish_request(self, request, client_address):
        if self.tls_context is None:
            super().finish_request(request, client_address)
            return
        # The handshake runs here, in the connection's own thread, so a
        # client that never completes it cannot hold up the accept loop.
        request.settimeout(HANDSHAKE_TIMEOUT)
        tls = self.tls_context.wrap_socket(request, server_side=True)
        try:
            tls.settimeout(None)
            self.RequestHandlerClass(tls, client_address, self)
        finally:
            tls.close()

    def handle_error(self, request, client_address):
        error = sys.exc_info()[1]
        if isinstance(error, QUIET_ERRORS) or self.state.closing.is_set():
            return
        super().handle_error(request, client_address)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "zrx-test-server"

    ROUTES = [
        (re.compile(r"/files/(.+)"), "do_file"),
        (re.compile(r"/chunked/(.+)"), "do_chunked"),
        (re.compile(r"/status/([2-5][0-9][0-9])"), "do_status"),
        (re.compile(r"/redirect/([0-9]+)/(.+)"), "do_redirect"),
        (re.compile(r"/loop"), "do_loop"),
        (re.compile(r"/slow/(.+)"), "do_slow"),
        (re.compile(r"/stall/(.+)"), "do_stall"),
        (re.compile(r"/drop/(.+)"), "do_drop"),
    ]

    def version_string(self):
        return self.server_version

    def log_message(self, format, *args):  # noqa: A002 (base signature)
        if self.server.state.verbose:
            super().log_message(format, *args)

    def do_GET(self):
        self.dispatch(send_body=True)

    def do_HEAD(self):
        self.dispatch(send_body=False)

    def dispatch(self, send_body):
        self.send_body = send_body
        state = self.server.state
        target = urlsplit(self.path)
        self.query = parse_qs(target.query)
        if target.path == "/__requests":
            self.reply(200, json.dumps(state.snapshot(), sort_keys=True),
                       "application/json")
            return
        if target.path == "/__reset":
            state.reset()
            self.reply(200, "{}", "application/json")
            return
        if self.server.control:
            self.reply_status(404)
            return
        state.count_request(self.path)
        for pattern, method in self.ROUTES:
            match = pattern.fullmatch(target.path)
            if match:
                getattr(self, method)(*match.groups())
                return
        self.reply_status(404)

    # Helpers -------------------------------------------------------------

    def write(self, data):
        if self.send_body and data:
            self.wfile.write(data)

    def reply(self, code, body, content_type, headers=()):
        data = body.encode("utf-8")
        self.send_response(code)
        self.send_header("Content-Type", content_type)
        for name, value in headers:
            self.send_header(name, value)
        if code not in (204, 304):
            self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        if code not in (204, 304):
            self.write(data)

    def reply_status(self, code, headers=()):
        reason = self.responses.get(code, ("Status",))[0]
        body = ("<html><head><title>{0} {1}</title></head>"
                "<body><h1>{0} {1}</h1></body></html>\n").format(code, reason)
        self.reply(code, body, "text/html; charset=utf-8", headers)

    def load(self, name):
        """The bytes of NAME, or None after answering 404."""
        path = self.server.state.resolve(name)
        if path is None:
            self.reply_status(404)
            return None
        with open(path, "rb") as f:
            return f.read()

    def file_headers(self, length=None):
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        if length is None:
            self.send_header("Transfer-Encoding", "chunked")
        else:
            self.send_header("Content-Length", str(length))
        self.end_headers()

    def int_param(self, name, default):
        try:
            return int(self.query[name][0])
        except (KeyError, IndexError, ValueError):
            return default

    def prefix_length(self, data):
        return max(0, min(len(data), self.int_param("bytes", len(data) // 2)))

    # Routes --------------------------------------------------------------

    def do_file(self, name):
        data = self.load(name)
        if data is not None:
            self.file_headers(len(data))
            self.write(data)

    def do_chunked(self, name):
        data = self.load(name)
        if data is None:
            return
        self.file_headers(None)
        if not self.send_body:
            return
        for start in range(0, len(data), CHUNK):
            piece = data[start:start + CHUNK]
            self.wfile.write(b"%X\r\n%s\r\n" % (len(piece), piece))
        self.wfile.write(b"0\r\n\r\n")

    def do_status(self, code):
        self.reply_status(int(code))

    def do_redirect(self, count, name):
        count = int(count)
        if count == 0:
            self.do_file(name)
            return
        location = ("/redirect/%d/%s" % (count - 1, name) if count > 1
                    else "/files/" + name)
        self.reply_status(302, [("Location", location)])

    def do_loop(self):
        if self.server.state.closing.wait(self.int_param("ms", 20) / 1000.0):
            self.close_connection = True
            return
        self.reply_status(302, [("Location", "/loop")])

    def do_slow(self, name):
        data = self.load(name)
        if data is None:
            return
        self.file_headers(len(data))
        if not self.send_body:
            return
        rate = max(1, self.int_param("bps", 1024))
        piece = max(1, rate // 10)
        closing = self.server.state.closing
        start = time.monotonic()
        sent = 0
        while sent < len(data):
            self.wfile.write(data[sent:sent + piece])
            sent = min(len(data), sent + piece)
            if sent < len(data):
                delay = start + sent / rate - time.monotonic()
                if delay > 0 and closing.wait(delay):
                    self.close_connection = True
                    return

    def do_stall(self, name):
        data = self.load(name)
        if data is None:
            return
        self.file_headers(len(data))
        self.write(data[:self.prefix_length(data)])
        self.close_connection = True
        if not self.send_body:
            return
        # Hold on until the client closes its end or the server stops;
        # whatever the client sends meanwhile is ignored.
        closing = self.server.state.closing
        self.connection.settimeout(0.2)
        while not closing.is_set():
            try:
                if not self.connection.recv(4096):
                    return
            except (socket.timeout, ssl.SSLWantReadError):
                continue
            except OSError:
                return

    def do_drop(self, name):
        data = self.load(name)
        if data is None:
            return
        self.file_headers(len(data))
        self.write(data[:self.prefix_length(data)])
        self.close_connection = True
        if self.send_body:
            try:
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass


def watch_stdin(stopping):
    try:
        while os.read(0, 4096):
            pass
    except OSError:
        pass
    stopping.set()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--root", required=True, help="directory served")
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"),
                        help="serve HTTPS with this certificate and key")
    parser.add_argument("--verbose", action="store_true",
                        help="log every request on stderr")
    args = parser.parse_args()

    if not os.path.isdir(args.root):
        sys.exit("sticker_server: not a directory: %s" % args.root)
    context = None
    if args.tls:
        try:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(args.tls[0], args.tls[1])
        except (OSError, ssl.SSLError) as error:
            sys.exit("sticker_server: cannot load %s / %s: %s"
                     % (args.tls[0], args.tls[1], error))

    state = State(args.root, args.verbose)
    main_server = Server(state, context, control=False)
    control_server = Server(state, None, control=True)

    # Event.set is safe from a signal handler here: the main thread only
    # ever polls is_set, so it never holds the event's lock.
    stopping = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stopping.set())
    signal.signal(signal.SIGINT, lambda *_: stopping.set())
    threading.Thread(target=watch_stdin, args=(stopping,), daemon=True).start()
    for server in (main_server, control_server):
        threading.Thread(target=server.serve_forever,
                         kwargs={"poll_interval": 0.1}, daemon=True).start()

    sys.stdout.write("PORT %d\nCONTROL %d\n"
                     % (main_server.server_port, control_server.server_port))
    sys.stdout.flush()

    while not stopping.is_set():
        time.sleep(0.05)
    # Connections still open (stalls, trickles) end with the process; no
    # thread is waited for.
    state.closing.set()
    sys.stderr.flush()
    os._exit(0)


if __name__ == "__main__":
    main()

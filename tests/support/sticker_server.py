#!/usr/bin/env python3
# Loopback HTTP(S) server for the tests: sticker_server.py ROOT LOG [CERT KEY]
# Prints "PORT <port> <pid>" once listening on 127.0.0.1, appends to LOG a
# "+" line per accepted connection and each request target as sent, and
# exits with its parent process. Routes (NAME is a file below ROOT):
#   /files/NAME  /chunked/NAME  /status/CODE  /redirect/N/NAME (N 302s first)
#   /slow/NAME?bps=N (trickled)  /stall/NAME (half, then silence)
#   /drop/NAME (half, then the connection is closed)
import os
import socket
import socketserver
import ssl
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import parse_qs, unquote, urlsplit

ROOT = os.path.realpath(sys.argv[1])
LOG = os.open(sys.argv[2], os.O_WRONLY | os.O_CREAT | os.O_APPEND)


def note(line):
    os.write(LOG, (line + "\n").encode())


class Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 128
    tls = None

    def server_bind(self):  # without HTTPServer's host name lookup
        socketserver.TCPServer.server_bind(self)

    def process_request(self, request, address):
        note("+")
        super().process_request(request, address)

    def finish_request(self, request, address):
        if self.tls is None:
            return super().finish_request(request, address)
        request.settimeout(10)
        with self.tls.wrap_socket(request, server_side=True) as tls:
            tls.settimeout(None)
            self.RequestHandlerClass(tls, address, self)

    def handle_error(self, request, address):
        # Clients that leave early or fail their handshake are expected.
        if not isinstance(sys.exc_info()[1], OSError):
            super().handle_error(request, address)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *args):
        pass

    def do_GET(self):
        note(self.path)
        url = urlsplit(self.path)
        self.query = parse_qs(url.query)
        route, _, rest = url.path[1:].partition("/")
        getattr(self, "route_" + route, lambda _: self.status(404))(rest)

    def status(self, code, location=None):
        body = b"<html><body><h1>%d</h1></body></html>\n" % code
        self.send_response(code)
        if location:
            self.send_header("Location", location)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def load(self, name, length=True):
        path = os.path.realpath(os.path.join(ROOT, unquote(name)))
        if not path.startswith(ROOT + os.sep) or not os.path.isfile(path):
            return self.status(404)
        with open(path, "rb") as f:
            data = f.read()
        self.send_response(200)
        self.send_header("Content-Type", "application/octet-stream")
        if length:
            self.send_header("Content-Length", str(len(data)))
        else:
            self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        return data

    def route_files(self, name):
        self.wfile.write(self.load(name) or b"")

    def route_chunked(self, name):
        data = self.load(name, length=False)
        if data is not None:
            for i in range(0, len(data), 16384):
                piece = data[i:i + 16384]
                self.wfile.write(b"%X\r\n%s\r\n" % (len(piece), piece))
            self.wfile.write(b"0\r\n\r\n")

    def route_status(self, code):
        self.status(int(code))

    def route_redirect(self, rest):
        count, _, name = rest.partition("/")
        count = int(count)
        self.status(302, "/redirect/%d/%s" % (count - 1, name)
                    if count > 1 else "/files/" + name)

    def route_slow(self, name):
        data = self.load(name) or b""
        rate = int(self.query.get("bps", ["1024"])[0])
        piece = max(1, rate // 10)
        start = time.monotonic()
        for sent in range(0, len(data), piece):
            time.sleep(max(0, start + sent / rate - time.monotonic()))
            self.wfile.write(data[sent:sent + piece])

    def route_stall(self, name, drop=False):
        data = self.load(name)
        if data is not None:
            self.wfile.write(data[:len(data) // 2])
            self.close_connection = True
            if drop:
                return self.connection.shutdown(socket.SHUT_RDWR)
            while self.connection.recv(4096):  # until the client leaves
                pass

    def route_drop(self, name):
        self.route_stall(name, drop=True)


server = Server(("127.0.0.1", 0), Handler)
if len(sys.argv) > 4:
    server.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    server.tls.load_cert_chain(sys.argv[3], sys.argv[4])
threading.Thread(target=server.serve_forever, daemon=True).start()
print("PORT", server.server_address[1], os.getpid(), flush=True)
parent = os.getppid()
while os.getppid() == parent:
    time.sleep(0.2)

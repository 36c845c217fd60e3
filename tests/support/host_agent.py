#!/usr/bin/env python3
# The Linux side of the tests that run under Wine: a Windows test process
# can't start a Linux program and learn how it ended, so it asks this agent,
# which runs on 127.0.0.1 for a whole ctest run.
#
#   host_agent.py start STATE   start the agent in the background; STATE
#                               (a file only its owner reads) receives its
#                               port and a token once it listens
#   host_agent.py stop STATE    end it, and every process it started
#
# One request a connection, a JSON line each way; each request carries the
# token ("token": T), so that no other user of the machine can run commands
# through the agent:
#   {"op": "run", "cmd": C}     /bin/sh -c C, answered {"status": N} when it
#                               has ended (N: its exit status, -1 if killed)
#   {"op": "spawn", "cmd": C}   /bin/sh -c C in a session of its own,
#                               answered {"line": L} with the first line of
#                               its standard output; the session is killed
#                               when the client closes the connection
#   {"op": "quit"}              the agent ends
# It ends on its own after an hour without a connection, so that an
# interrupted ctest run leaves nothing behind for long.
import hmac
import json
import os
import secrets
import signal
import socket
import socketserver
import subprocess
import sys
import threading
import time

IDLE_LIMIT = 3600
TOKEN = secrets.token_hex(16)

children = set()
children_lock = threading.Lock()
last_seen = time.monotonic()


def kill_session(process):
    try:
        os.killpg(process.pid, signal.SIGTERM)
        process.wait(timeout=5)
    except (ProcessLookupError, subprocess.TimeoutExpired):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


class Handler(socketserver.StreamRequestHandler):
    def reply(self, value):
        self.wfile.write((json.dumps(value) + "\n").encode())
        self.wfile.flush()

    def handle(self):
        global last_seen
        last_seen = time.monotonic()
        line = self.rfile.readline().decode("utf-8", "surrogateescape")
        request = json.loads(line or "{}")
        if not hmac.compare_digest(str(request.get("token", "")), TOKEN):
            return
        op = request.get("op")
        if op == "run":
            status = subprocess.call(["/bin/sh", "-c", request["cmd"]])
            self.reply({"status": status if status >= 0 else -1})
        elif op == "spawn":
            process = subprocess.Popen(["/bin/sh", "-c", request["cmd"]],
                                       stdout=subprocess.PIPE,
                                       start_new_session=True)
            with children_lock:
                children.add(process)
            try:
                line = process.stdout.readline().decode(errors="replace")
                self.reply({"line": line.rstrip("\n")})
                while self.request.recv(4096):  # until the client leaves
                    pass
            except OSError:
                pass
            finally:
                kill_session(process)
                with children_lock:
                    children.discard(process)
        elif op == "quit":
            self.reply({})
            threading.Thread(target=self.server.shutdown).start()
        last_seen = time.monotonic()


class Server(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True
    request_queue_size = 64


def serve(state):
    server = Server(("127.0.0.1", 0), Handler)

    def watch_idle():
        while time.monotonic() - last_seen < IDLE_LIMIT:
            time.sleep(10)
        server.shutdown()

    threading.Thread(target=watch_idle, daemon=True).start()
    fd = os.open(state + ".tmp", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    with os.fdopen(fd, "w") as f:
        f.write("%d %s\n" % (server.server_address[1], TOKEN))
    os.replace(state + ".tmp", state)
    try:
        server.serve_forever()
    finally:
        with children_lock:
            for process in list(children):
                kill_session(process)
        if os.path.exists(state):
            os.remove(state)


def start(state):
    if os.path.exists(state):
        stop(state)
    # Nothing of ctest's: it waits until every holder of a test's output
    # has closed it. What the agent has to say goes to STATE.log.
    with open(state + ".log", "w") as log:
        subprocess.Popen([sys.executable, os.path.abspath(__file__), "serve",
                          state], start_new_session=True,
                         stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    deadline = time.monotonic() + 30
    while not os.path.exists(state):
        if time.monotonic() > deadline:
            sys.exit("host agent did not start")
        time.sleep(0.05)


def stop(state):
    try:
        with open(state) as f:
            port, token = f.read().split()
        with socket.create_connection(("127.0.0.1", int(port)),
                                      timeout=30) as s:
            s.sendall(json.dumps({"op": "quit", "token": token}).encode() +
                      b"\n")
            s.recv(64)
    except (OSError, ValueError):
        # No agent answers: the state was left by one that died.
        if os.path.exists(state):
            os.remove(state)
    deadline = time.monotonic() + 30
    while os.path.exists(state) and time.monotonic() < deadline:
        time.sleep(0.05)
    if os.path.exists(state):
        os.remove(state)


if __name__ == "__main__":
    {"start": start, "stop": stop, "serve": serve}[sys.argv[1]](sys.argv[2])

"""Shared pieces of the Python tests: a zelsim program started per test on free ports."""

import os
import re
import signal
import socket
import subprocess
import threading
import time

import pytest

ZELSIM = os.environ.get("ZELSIM", "zelsim")
LISTENING = re.compile(r"zelsim: node-(\d+) [\d.]+:(\d+): listening")


class Cluster:
    """A running zelsim: ports[n] is node n's port (1-based)."""

    def __init__(self, *args: str) -> None:
        self.process = subprocess.Popen(
            [ZELSIM, "--user", "alice:secret", "--admin", "root:toor", *args],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        self.ports = {}
        nodes = int(args[args.index("--nodes") + 1]) if "--nodes" in args else 3
        deadline = time.monotonic() + 20
        while len(self.ports) < nodes and time.monotonic() < deadline:
            line = self.process.stderr.readline()
            if not line:
                break
            found = LISTENING.search(line)
            if found:
                self.ports[int(found.group(1))] = found.group(2)
        assert len(self.ports) == nodes, "zelsim did not start"

    def stop(self) -> None:
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stderr.close()


@pytest.fixture
def cluster():
    """Starts clusters with the given zelsim flags; stops them after the test."""
    started = []

    def start(*args: str) -> Cluster:
        c = Cluster(*args)
        started.append(c)
        return c

    yield start
    for c in started:
        c.stop()


@pytest.fixture
def silent_node():
    """A node that answers the hello (with the client's own) and then nothing: its port."""
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)

    def serve():
        peer, _ = listener.accept()
        with peer:
            hello = peer.recv(64)
            peer.sendall(hello)
            while peer.recv(65536):
                pass

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    yield str(listener.getsockname()[1])
    listener.close()

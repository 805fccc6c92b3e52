"""Shared pieces of the Python tests: a zelsim program started per test on free ports, a node
that the test scripts packet by packet, and Ctrl-C sent while a call waits."""

import os
import platform
import queue
import signal
import socket
import struct
import threading
import time
from typing import Optional

import pytest

import zelcapi
from zelsim_program import ZelsimProgram

ZELSIM = os.environ.get("ZELSIM", "zelsim")


class Cluster(ZelsimProgram):
    """A running zelsim with the tests' users: ports[n] is node n's port (1-based)."""

    def __init__(self, *args: str) -> None:
        super().__init__(ZELSIM, "--user", "alice:secret", "--admin", "root:toor", *args)


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


class ScriptedNode:
    """A node on 127.0.0.1 that the test drives: it answers the hello with the client's own
    (unless `mute`), records each packet it receives as (type, name, props), echoes the props
    of a request named "test.echo" at once and leaves every other unanswered until told."""

    def __init__(self, mute: bool = False) -> None:
        self.mute = mute
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(4)
        self.port = str(self.listener.getsockname()[1])
        self.received: "queue.Queue" = queue.Queue()
        self.accepted = threading.Event()
        self.peer: Optional[socket.socket] = None
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self) -> None:
        try:
            peer, _ = self.listener.accept()
        except OSError:
            return
        self.peer = peer
        self.accepted.set()
        with peer:
            hello = peer.recv(64)
            if self.mute:
                while peer.recv(65536):
                    pass
                return
            peer.sendall(hello)
            buffered = b""
            while True:
                try:
                    data = peer.recv(65536)
                except OSError:
                    return
                if not data:
                    return
                buffered += data
                while len(buffered) >= 4:
                    size = struct.unpack(">I", buffered[:4])[0]
                    if len(buffered) < 4 + size:
                        break
                    type_, name, props = zelcapi.decode(buffered[4:4 + size])
                    buffered = buffered[4 + size:]
                    self.received.put((type_, name, props))
                    if name == "test.echo":
                        self.send(4, name, props)

    def send(self, type_: int, name: str, props: dict) -> None:
        """Sends a packet to the client."""
        payload = zelcapi.encode([type_, name, props])
        self.peer.sendall(struct.pack(">I", len(payload)) + payload)

    def next_packet(self, timeout: float = 20) -> tuple:
        """The next packet the client sent, as (type, name, props)."""
        return self.received.get(timeout=timeout)

    def drop(self) -> None:
        """Closes the client's link."""
        self.peer.shutdown(socket.SHUT_RDWR)

    def close(self) -> None:
        self.listener.close()


@pytest.fixture
def scripted_node():
    """Starts ScriptedNodes (ScriptedNode(mute=...)); closes them after the test."""
    started = []

    def start(mute: bool = False) -> ScriptedNode:
        node = ScriptedNode(mute)
        started.append(node)
        return node

    yield start
    for node in started:
        node.close()


@pytest.fixture
def silent_node(scripted_node):
    """A node that answers the hello (with the client's own) and then nothing: its port."""
    return scripted_node().port


# poll(2) and ppoll(2) by machine, as /proc/<pid>/task/<tid>/syscall names them.
POLL_SYSCALLS = {"x86_64": {"7", "271"}, "aarch64": {"73"}}.get(platform.machine(), set())


def blocked_in_poll(native_id: int) -> bool:
    """Whether the thread sits in poll(2): a blocking call of a connection is waiting."""
    try:
        with open(f"/proc/self/task/{native_id}/syscall") as syscall:
            return syscall.read().split()[0] in POLL_SYSCALLS
    except OSError:
        return False


def wait_until_blocked(native_id: int, limit: float = 30) -> None:
    end = time.monotonic() + limit
    while not blocked_in_poll(native_id):
        assert time.monotonic() < end, "the thread never waited in poll(2)"
        time.sleep(0.001)


def interrupt_when_blocked() -> threading.Thread:
    """Sends SIGINT (Ctrl-C) to the main thread once it waits in poll(2)."""
    main = threading.main_thread()

    def interrupt() -> None:
        wait_until_blocked(main.native_id)
        signal.pthread_kill(main.ident, signal.SIGINT)

    thread = threading.Thread(target=interrupt, daemon=True)
    thread.start()
    return thread

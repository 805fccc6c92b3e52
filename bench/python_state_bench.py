#!/usr/bin/env python3
"""State notifications applied by the library and delivered to a Python handler as dicts,
against python3-msgpack's Unpacker reading the same stream into dicts in pure Python with
nothing applied. A writer process streams 200,000 "cluster.api.state.update-item" notifications
for 20,000 jobs over loopback each time a reader asks (a process of its own, so that it never
waits for the reader's GIL); the two sides take turns, five passes each, and each is judged on
its fastest pass.

    PYTHONPATH=build/release/python python3 bench/python_state_bench.py [--passes N]
"""

import argparse
import multiprocessing
import socket
import struct
import threading
import time

import msgpack

import zelcapi

NOTIFICATIONS = 200000
JOBS = 20000
TARGET = 1.0
HELLO = b"\x00\x00\x00\x07\x92\xa4zelp\x02"


def frame(payload: bytes) -> bytes:
    return struct.pack(">I", len(payload)) + payload


def notification(i: int) -> bytes:
    job = i % JOBS
    fields = {"item-type": 5, "state": {"host": "node-%d" % (job % 64), "progress": i % 101,
                                        "status": i % 7},
              "state-id": "JOB-%d" % (1000000 + job)}
    return frame(msgpack.packb([3, "cluster.api.state.update-item", fields]))


STREAM = b"".join(notification(i) for i in range(NOTIFICATIONS))


def read_frame(sock: socket.socket) -> bytes:
    head = b""
    while len(head) < 4:
        chunk = sock.recv(4 - len(head))
        if not chunk:
            return b""
        head += chunk
    (length,) = struct.unpack(">I", head)
    body = b""
    while len(body) < length:
        chunk = sock.recv(length - len(body))
        if not chunk:
            return b""
        body += chunk
    return head + body


class Writer:
    """Serves each client from a process of its own: answers its hello, then writes the stream
    for every frame it sends."""

    def __init__(self) -> None:
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(4)
        self.port = str(self.listener.getsockname()[1])
        self.process = multiprocessing.get_context("fork").Process(
            target=self._accept, args=(self.listener,), daemon=True)
        self.process.start()

    @classmethod
    def _accept(cls, listener: socket.socket) -> None:
        while True:
            peer, _ = listener.accept()
            threading.Thread(target=cls._serve, args=(peer,), daemon=True).start()

    @staticmethod
    def _serve(peer: socket.socket) -> None:
        with peer:
            if not read_frame(peer):
                return
            peer.sendall(HELLO)
            while read_frame(peer):
                peer.sendall(STREAM)


class Counting(zelcapi.StateHandler):
    def __init__(self) -> None:
        super().__init__()
        self.count = 0
        self.last = None

    def item_updated(self, type, id, update):
        self.count += 1
        self.last = update


def library_pass(c: zelcapi.StateConnection, h: Counting) -> float:
    h.count = 0
    start = time.perf_counter()
    c.send("go")
    # Short waits: a wait returns only when its time is up, so a long one would round the pass.
    while h.count < NOTIFICATIONS:
        c.wait(1)
    assert isinstance(h.last, dict) and "progress" in h.last
    return time.perf_counter() - start


def msgpack_pass(sock: socket.socket) -> float:
    start = time.perf_counter()
    sock.sendall(frame(msgpack.packb([2, "go", {}])))
    unpacker = msgpack.Unpacker(raw=False)
    buffer = b""
    count = 0
    last = None
    while count < NOTIFICATIONS:
        chunk = sock.recv(1 << 16)
        if not chunk:
            raise RuntimeError("the writer closed")
        buffer += chunk
        pos = 0
        while len(buffer) - pos >= 4:
            (length,) = struct.unpack_from(">I", buffer, pos)
            if len(buffer) - pos - 4 < length:
                break
            unpacker.feed(buffer[pos + 4:pos + 4 + length])
            last = unpacker.unpack()
            pos += 4 + length
            count += 1
        buffer = buffer[pos:]
    assert isinstance(last[2], dict) and "state" in last[2]
    return time.perf_counter() - start


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--passes", type=int, default=5, help="passes of each side (default 5)")
    passes = parser.parse_args().passes
    writer = Writer()
    h = Counting()
    c = zelcapi.StateConnection(h)
    if c.connect("127.0.0.1", writer.port, 5) != zelcapi.ResultCode.CONNECTION_OK:
        raise SystemExit("cannot connect to the writer")
    raw = socket.create_connection(("127.0.0.1", int(writer.port)))
    raw.sendall(HELLO)
    read_frame(raw)
    ours, peer = [], []
    for _ in range(passes):
        ours.append(library_pass(c, h))
        peer.append(msgpack_pass(raw))
    ours_rate = NOTIFICATIONS / min(ours)
    peer_rate = NOTIFICATIONS / min(peer)
    ratio = ours_rate / peer_rate
    ours.sort()
    peer.sort()
    print("zelcapi: %.0f notifications/s applied and delivered as dicts (fastest of %d)"
          % (ours_rate, passes))
    print("msgpack Unpacker: %.0f notifications/s read into dicts (fastest of %d)"
          % (peer_rate, passes))
    print("%-48s %6.2fx  (target >= %.2fx)  %-7s  median %.2fx"
          % ("python handler dicts vs msgpack Unpacker", ratio, TARGET,
             "met" if ratio >= TARGET else "NOT MET", peer[passes // 2] / ours[passes // 2]))
    return 0


if __name__ == "__main__":
    raise SystemExit(main())

"""Ctrl-C ends a blocking call at once, with the connection left usable; a connection serves one
thread at a time, and a second thread is refused with a clear error."""

import logging
import signal
import sqlite3
import threading
import time

import pytest

import zelcapi
from conftest import interrupt_when_blocked, wait_until_blocked

# Far longer than any interrupted call may take: a call that ran into it was not interrupted.
LONG = 60


def interrupted(call):
    """Runs call() while SIGINT comes once it waits in poll(2); the seconds it took."""
    interrupter = interrupt_when_blocked()
    started = time.monotonic()
    with pytest.raises(KeyboardInterrupt):
        call()
    took = time.monotonic() - started
    interrupter.join()
    return took


def still_answers(c):
    assert c.is_connected
    assert c.request("test.echo", {"n": 7}, 10) == {"n": 7}


BLOCKING_CALLS = {
    "request": lambda c: c.request("test.unanswered", None, LONG),
    "wait": lambda c: c.wait(LONG * 1000),
    "login": lambda c: c.login("alice", "secret", LONG),
    "admin_login": lambda c: c.admin_login("root", "toor", LONG),
    "request_new_state_sync": lambda c: c.request_new_state_sync(),
}


@pytest.mark.parametrize("name", sorted(BLOCKING_CALLS))
def test_ctrl_c_ends_a_blocking_call_and_the_connection_stays_usable(scripted_node, name):
    node = scripted_node()
    c = zelcapi.StateConnection(zelcapi.StateHandler())
    c.timeout = LONG
    assert c.connect("127.0.0.1", node.port, 5) == zelcapi.ResultCode.CONNECTION_OK
    assert interrupted(lambda: BLOCKING_CALLS[name](c)) < LONG / 2
    still_answers(c)


def test_ctrl_c_ends_a_connect_and_the_next_connect_succeeds(scripted_node):
    mute = scripted_node(mute=True)
    c = zelcapi.Connection()
    assert interrupted(lambda: c.connect("127.0.0.1", mute.port, LONG)) < LONG / 2
    assert not c.is_connected
    node = scripted_node()
    assert c.connect("127.0.0.1", node.port, 5) == zelcapi.ResultCode.CONNECTION_OK
    still_answers(c)


def interrupt_when_blocked_in_save():
    """Sends SIGINT to the main thread once the saver thread has begun its save."""
    started = threading.Event()

    class Started(logging.Handler):
        def emit(self, record):
            if record.getMessage() == "Starting save of state-db to disk":
                started.set()

    handler = Started()
    logging.getLogger("zelcapi").addHandler(handler)
    main = threading.main_thread()

    def interrupt():
        started.wait(LONG)
        logging.getLogger("zelcapi").removeHandler(handler)
        signal.pthread_kill(main.ident, signal.SIGINT)

    thread = threading.Thread(target=interrupt, daemon=True)
    thread.start()
    return thread


def test_ctrl_c_ends_the_wait_for_a_save_that_cannot_write(cluster, tmp_path, caplog):
    sim = cluster("--warm-up", "500", "--jobs", "20", "--rate", "1")
    c = zelcapi.StateConnection(zelcapi.StateHandler())
    c.connect("127.0.0.1", sim.ports[1], 5)
    c.login("alice", "secret", 5)
    path = str(tmp_path / "state.db")
    c.state.load(zelcapi.SQLiteStateDB(path))
    c.request_new_state_sync()
    caplog.set_level("DEBUG", logger="zelcapi")
    # Another program holds the file's write lock: the save waits for it (up to the store's
    # busy time-out of 5 s) until this test lets go.
    holder = sqlite3.connect(path, isolation_level=None)
    holder.execute("BEGIN EXCLUSIVE")
    try:
        interrupter = interrupt_when_blocked_in_save()
        with pytest.raises(KeyboardInterrupt):
            c.state.save(wait=True)
        interrupter.join()
        ended = [r.getMessage() for r in caplog.records if "save of state-db" in r.getMessage()]
        assert ended == ["Starting save of state-db to disk"], "the save ended before Ctrl-C"
    finally:
        holder.execute("ROLLBACK")
        holder.close()
    # Whether the interrupted save committed or gave up, the next one writes the replica.
    c.state.save(wait=True)
    loaded = zelcapi.StateConnection(zelcapi.StateHandler())
    loaded.state.load(zelcapi.SQLiteStateDB(path))
    assert loaded.state.items(zelcapi.ItemType.JOB) == c.state.items(zelcapi.ItemType.JOB)


def test_a_second_thread_is_refused_while_another_waits_in_a_call(scripted_node):
    node = scripted_node()
    c = zelcapi.StateConnection(zelcapi.StateHandler())
    c.connect("127.0.0.1", node.port, 5)
    replies = []
    first = threading.Thread(target=lambda: replies.append(c.request("test.held", None, LONG)))
    first.start()
    assert node.next_packet()[1] == "test.held"
    wait_until_blocked(first.native_id)
    for call in (lambda: c.request("test.echo", {"n": 1}, 5), lambda: c.wait(1), c.step,
                 lambda: c.state.count(zelcapi.ItemType.JOB), lambda: c.disconnect("x", False)):
        with pytest.raises(zelcapi.BusyError, match="in use by another thread"):
            call()
    node.send(4, "test.held", {"held": True})
    first.join()
    assert replies == [{"held": True}]
    # Free again: this thread may use it.
    still_answers(c)


def test_two_threads_requesting_at_once_each_get_their_own_replies_or_a_refusal(scripted_node):
    node = scripted_node()
    c = zelcapi.Connection()
    c.connect("127.0.0.1", node.port, 5)
    outcomes = {1: [], 2: []}

    def requests(me):
        for i in range(300):
            try:
                reply = c.request("test.echo", {"thread": me, "i": i}, 10)
                outcomes[me].append(reply == {"thread": me, "i": i})
            except zelcapi.BusyError:
                outcomes[me].append("refused")

    threads = [threading.Thread(target=requests, args=(me,)) for me in (1, 2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    answered = [o for me in (1, 2) for o in outcomes[me] if o != "refused"]
    assert False not in answered, "a thread got another thread's reply"
    assert len(answered) > 0
    still_answers(c)

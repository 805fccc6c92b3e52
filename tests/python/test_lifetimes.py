"""What the library keeps a pointer to lives as long as the connection that keeps it: the
replica's store, the handlers, the watch callback and the callbacks of asynchronous calls,
even when the caller holds no reference of its own; and all of it goes with the connection."""

import gc
import weakref

import zelcapi

KINDS = range(7)


class Told(zelcapi.Handler):
    """Records what it is told in a list that outlives it."""

    def __init__(self, events):
        super().__init__()
        self.events = events

    def status(self, code, text, flag):
        self.events.append(code)


class Counting(zelcapi.StateHandler):
    def __init__(self, counts):
        super().__init__()
        self.counts = counts

    def new_state(self, state):
        self.counts.append("new_state")


def logged_in(sim, handler):
    c = zelcapi.StateConnection(handler)
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    assert "node-id" in c.login("alice", "secret", 5)
    return c


def test_the_documented_load_and_save_writes_the_replica_into_the_file(cluster, tmp_path):
    sim = cluster("--warm-up", "500", "--jobs", "100", "--rate", "1")
    c = logged_in(sim, zelcapi.StateHandler())
    path = str(tmp_path / "state.db")
    c.state.load(zelcapi.SQLiteStateDB(path))
    c.request_new_state_sync()
    gc.collect()
    c.state.save(wait=True)
    loaded = zelcapi.StateConnection(zelcapi.StateHandler())
    loaded.state.load(zelcapi.SQLiteStateDB(path))
    assert loaded.state.count(zelcapi.ItemType.JOB) == c.state.count(zelcapi.ItemType.JOB) > 0
    for kind in KINDS:
        assert loaded.state.items(kind) == c.state.items(kind)


def test_a_store_lives_as_long_as_the_connection_and_no_longer(cluster, tmp_path):
    sim = cluster("--warm-up", "500", "--jobs", "20", "--rate", "1")
    c = logged_in(sim, zelcapi.StateHandler())
    db = zelcapi.SQLiteStateDB(str(tmp_path / "state.db"))
    store = weakref.ref(db)
    c.state.load(db)
    del db
    gc.collect()
    assert store() is not None, "the replica's store was freed while the replica writes to it"
    c.request_new_state_sync()
    c.state.save(wait=False)
    del c
    gc.collect()
    assert store() is None, "the store outlived its connection"


def test_a_store_replaced_by_another_load_is_let_go(tmp_path):
    c = zelcapi.StateConnection(zelcapi.StateHandler())
    first = zelcapi.SQLiteStateDB(str(tmp_path / "first.db"))
    released = weakref.ref(first)
    c.state.load(first)
    del first
    c.state.load(zelcapi.SQLiteStateDB(str(tmp_path / "second.db")))
    gc.collect()
    assert released() is None
    c.state.save(wait=True)


def test_a_handler_given_only_to_the_connection_is_kept_and_called(cluster):
    sim = cluster("--idle")
    events = []
    c = zelcapi.Connection(Told(events))
    gc.collect()
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    assert events == [zelcapi.ResultCode.CONNECTION_OK]


def test_a_state_handler_given_only_to_the_connection_is_kept_and_called(cluster):
    sim = cluster("--warm-up", "500", "--jobs", "10", "--rate", "1")
    counts = []
    c = logged_in(sim, Counting(counts))
    gc.collect()
    c.request_new_state_sync()
    assert counts == ["new_state"]


def test_a_watch_callback_given_only_to_the_connection_is_kept_and_called(cluster):
    sim = cluster("--idle")
    calls = []
    c = zelcapi.Connection()
    c.set_watch_callback(lambda: calls.append(len(c.watched_files())))
    gc.collect()
    ended = []
    c.connect_async("127.0.0.1", sim.ports[1], 5, ended.append)
    assert calls and calls[0] == 1
    while not ended:
        c.wait(10)
    c.set_watch_callback(None)  # the callback refers to the connection: a cycle that we break


def test_the_callbacks_of_asynchronous_calls_are_kept_until_they_are_called(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    ended = {}
    c.connect_async("127.0.0.1", sim.ports[1], 5, lambda r: ended.setdefault("connect", r))
    gc.collect()
    while "connect" not in ended:
        c.wait(10)
    c.login_async("alice", "secret", 5, lambda r, e: ended.setdefault("login", (r, e)))
    c.request_async("test.none", None, 5, lambda r, e: ended.setdefault("request", (r, e)))
    gc.collect()
    while len(ended) < 3:
        c.wait(10)
    assert ended["connect"] == zelcapi.ResultCode.CONNECTION_OK
    assert ended["login"][1] is None and "node-id" in ended["login"][0]
    assert ended["request"] == ({"error": "unknown request 'test.none'"}, None)


def test_a_replica_held_alone_keeps_its_connection(cluster):
    sim = cluster("--warm-up", "500", "--jobs", "10", "--rate", "1")
    c = logged_in(sim, zelcapi.StateHandler())
    c.request_new_state_sync()
    jobs = c.state.count(zelcapi.ItemType.JOB)
    replica = c.state
    del c
    gc.collect()
    assert replica.count(zelcapi.ItemType.JOB) == jobs > 0


def test_a_connection_let_go_lets_go_of_its_handler():
    events = []
    handler = Told(events)
    released = weakref.ref(handler)
    c = zelcapi.Connection(handler)
    del handler
    gc.collect()
    assert released() is not None
    del c
    gc.collect()
    assert released() is None

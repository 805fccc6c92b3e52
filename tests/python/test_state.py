"""A state mirror converging with zelsim, its SQLite store, history requests, a raising
handler, and no growth of memory over 100,000 callbacks."""

import os
import time

import pytest

import zelcapi

KINDS = range(7)


class Counter(zelcapi.StateHandler):
    def __init__(self):
        super().__init__()
        self.changes = 0
        self.histories = {}

    def item_set(self, type, id, record):
        assert isinstance(record, dict)
        self.changes += 1

    def item_updated(self, type, id, update):
        self.changes += 1

    def item_removed(self, type, id):
        self.changes += 1

    def history_reply(self, request_id, history):
        self.histories[request_id] = history


def follow(sim, handler, node=1, **kwargs):
    c = zelcapi.StateConnection(handler, **kwargs)
    assert c.connect("127.0.0.1", sim.ports[node], 5) == zelcapi.ResultCode.CONNECTION_OK
    assert "error" not in c.login("alice", "secret", 5)
    return c


def wait_quiet(c, handler, quiet=1.0, limit=60.0):
    """Waits until no change came for `quiet` seconds."""
    end = time.monotonic() + limit
    last, seen = time.monotonic(), handler.changes
    while time.monotonic() < end:
        c.wait(50)
        if handler.changes != seen:
            last, seen = time.monotonic(), handler.changes
        elif time.monotonic() - last >= quiet:
            return
    pytest.fail("the changes did not stop")


def test_a_mirror_ends_equal_to_a_fresh_snapshot_of_the_master(cluster):
    sim = cluster("--rate", "2000", "--changes", "4000", "--jobs", "300", "--nodes", "2",
                  "--master", "2")
    h = Counter()
    mirror = follow(sim, h)
    mirror.request_new_state_sync()
    wait_quiet(mirror, h)
    assert h.changes > 0
    fresh = follow(sim, Counter())
    fresh.request_new_state_sync()
    for kind in KINDS:
        assert mirror.state.items(kind) == fresh.state.items(kind), zelcapi.ItemType(kind)
    assert mirror.state.count(zelcapi.ItemType.JOB) > 0
    some_job = next(iter(mirror.state.items(zelcapi.ItemType.JOB)))
    assert mirror.state.item(zelcapi.ItemType.JOB, some_job) == fresh.state.item(5, some_job)
    with pytest.raises(zelcapi.ArgError) as raised:
        mirror.state.item(zelcapi.ItemType.JOB, "no-such-job")
    assert str(raised.value) == "state does not have item id no-such-job"


def test_the_replica_saves_to_sqlite_and_loads_back(cluster, tmp_path):
    sim = cluster("--rate", "0", "--changes", "2000", "--jobs", "200")
    h = Counter()
    c = follow(sim, h)
    c.request_new_state_sync()
    wait_quiet(c, h, quiet=0.5)
    db = zelcapi.SQLiteStateDB(str(tmp_path / "state.db"))
    c.state.load(db)  # an empty file: the replica becomes its store, then is saved into it
    c.request_new_state_sync()
    c.state.save(True)
    loaded = zelcapi.StateConnection(Counter())
    loaded.state.load(zelcapi.SQLiteStateDB(str(tmp_path / "state.db")))
    for kind in KINDS:
        assert loaded.state.items(kind) == c.state.items(kind)
    assert loaded.state.count(zelcapi.ItemType.JOB) > 0
    # Nothing changed since: the next save writes no record.
    c.state.save(True)
    counts = db.last_save_counts()
    assert counts["written"] == 0 and counts["removed"] == 0
    assert counts["unchanged"] == sum(c.state.count(kind) for kind in KINDS) + len(
        c.state.snapshot()["workflows"])


def test_a_history_request_reaches_history_reply_with_its_id(cluster):
    # Three seconds of changes: most come after the login, into the replica's own history.
    sim = cluster("--rate", "1000", "--changes", "3000", "--jobs", "50")
    h = Counter()
    c = follow(sim, h, history_keep_time=3600)
    wait_quiet(c, h, quiet=0.5)
    assert len(c.state.history()["jobs"]) > 0
    with pytest.raises(zelcapi.UnspecifiedError, match="can't get history without history"):
        follow(sim, Counter()).state.history()
    c.request_history(zelcapi.ItemType.JOB, 7)
    end = time.monotonic() + 10
    while 7 not in h.histories and time.monotonic() < end:
        c.wait(50)
    assert isinstance(h.histories[7], list)
    assert len(h.histories[7]) > 0


class RaisesOnce(Counter):
    def __init__(self):
        super().__init__()
        self.raised = False

    def item_set(self, type, id, record):
        if not self.raised:
            self.raised = True
            raise RuntimeError("handler failed")
        super().item_set(type, id, record)


def test_a_raising_handler_reaches_the_caller_and_the_next_changes_still_come(cluster):
    sim = cluster("--rate", "500", "--jobs", "100")
    h = RaisesOnce()
    c = follow(sim, h)
    with pytest.raises(RuntimeError, match="handler failed"):
        end = time.monotonic() + 20
        while time.monotonic() < end:
            c.wait(50)
    before = h.changes
    end = time.monotonic() + 20
    while h.changes < before + 50 and time.monotonic() < end:
        c.wait(50)
    assert h.changes >= before + 50
    assert c.is_connected


def under_address_sanitizer():
    with open("/proc/self/maps") as maps:
        return "libasan" in maps.read()


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


@pytest.mark.skipif(under_address_sanitizer(),
                    reason="AddressSanitizer holds freed memory in its quarantine by design")
def test_memory_does_not_grow_over_100000_callbacks(cluster):
    sim = cluster("--rate", "0", "--jobs", "200", "--changes", "100000")
    h = Counter()
    c = follow(sim, h, replica=False)
    end = time.monotonic() + 120
    while h.changes < 20000 and time.monotonic() < end:
        c.wait(50)
    baseline = resident_bytes()
    while h.changes < 100000 and time.monotonic() < end:
        c.wait(50)
    assert h.changes >= 100000
    growth = resident_bytes() - baseline
    assert growth < 4 << 20, f"resident memory grew by {growth} bytes over 80,000 callbacks"

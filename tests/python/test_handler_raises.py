"""A state handler that raises every Nth time it is asked before the replica changes: the
exception reaches the caller of wait(), and the replica still ends equal to the master's state."""

import time

import pytest

import zelcapi

KINDS = range(7)


class RaisesEveryNth(zelcapi.StateHandler):
    """Counts every change; once the snapshot is in, every `every`-th call of the callbacks that
    come before the replica's change (and of the question before a workflow command) raises."""

    def __init__(self, every):
        super().__init__()
        self.every = every
        self.armed = False
        self.asked = 0
        self.raised = 0
        self.changes = 0

    def new_state(self, state):
        self.armed = True

    def _asked_first(self):
        self.changes += 1
        if not self.armed:
            return
        self.asked += 1
        if self.asked % self.every == 0:
            self.raised += 1
            raise RuntimeError("the application's handler failed")

    def item_removed(self, type, id):
        self._asked_first()

    def item_erased_property_ref(self, type, id, ref):
        self._asked_first()

    def item_historized(self, type, id):
        self._asked_first()

    def workflow_result_removed(self, id):
        self._asked_first()

    def pre_workflow_update(self, command):
        self._asked_first()

    def item_set(self, type, id, record):
        self.changes += 1

    def item_updated(self, type, id, update):
        self.changes += 1


class Quiet(zelcapi.StateHandler):
    pass


def follow(sim, handler):
    c = zelcapi.StateConnection(handler)
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    assert "error" not in c.login("alice", "secret", 5)
    c.request_new_state_sync()
    return c


def test_a_replica_whose_handler_raises_every_97th_time_ends_equal_to_the_master(cluster):
    sim = cluster("--rate", "2000", "--changes", "8000", "--jobs", "300", "--nodes", "2",
                  "--master", "2")
    h = RaisesEveryNth(97)
    mirror = follow(sim, h)
    caught = 0
    end = time.monotonic() + 120
    last, seen = time.monotonic(), h.changes
    while time.monotonic() < end:
        try:
            mirror.wait(50)
        except RuntimeError as error:
            assert str(error) == "the application's handler failed"
            caught += 1
        if h.changes != seen:
            last, seen = time.monotonic(), h.changes
        elif time.monotonic() - last >= 1.0:
            break
    else:
        pytest.fail("the changes did not stop")
    assert h.raised > 10
    assert caught == h.raised
    fresh = follow(sim, Quiet())
    for kind in KINDS:
        assert mirror.state.items(kind) == fresh.state.items(kind), zelcapi.ItemType(kind)
    mine, master = mirror.state.snapshot(), fresh.state.snapshot()
    assert mine["workflow-results"] == master["workflow-results"]
    assert sorted(mine["workflows"]) == sorted(master["workflows"])
    assert mine["workflow-seq-nr"] == master["workflow-seq-nr"]

"""Submitting, steering, waiting for and following work from Python, against zelsim."""

import asyncio
import socket
import struct
import threading
import time

import pytest

import zelcapi
from conftest import wait_until_blocked

# A job that runs until cancelled, as far as a test is concerned.
LONG_MS = 3_600_000


def idle(run_ms=0):
    """zelsim's flags for a cluster that runs only what clients submit, each job taking
    run_ms unless it says otherwise."""
    return ("--idle", "--run-ms", str(run_ms), "--nodes", "1", "--user", "bob:builder")


def chain(name, **first):
    """A workflow of five tasks: a, then b and c, then d after both, then e."""
    tasks = [
        {"name": "a", "command": "prepare", **first},
        {"name": "b", "command": "left", "after": "a"},
        {"name": "c", "command": "right", "after": "a"},
        {"name": "d", "command": "join", "after": ["b", "c"]},
        {"name": "e", "command": "publish", "after": "d"},
    ]
    return {"name": name, "tasks": tasks}


def blocking_connection(port, user="alice", password="secret", admin=False):
    c = zelcapi.StateConnection(zelcapi.StateHandler(), 600)
    assert c.connect("127.0.0.1", port) == zelcapi.ResultCode.CONNECTION_OK
    if admin:
        c.admin_login(user, password)
    else:
        c.login(user, password, broadcasts=True)
    c.request_new_state_sync()
    return c


async def async_connection(port, user="alice", password="secret"):
    c = zelcapi.AsyncStateConnection(history_keep_time=600)
    assert await c.connect("127.0.0.1", port) == zelcapi.ResultCode.CONNECTION_OK
    await c.login(user, password)
    await c.snapshot()
    return c


def master_results(port):
    """The workflow results of the master's state, as a fresh login's snapshot gives them."""
    c = blocking_connection(port)
    try:
        return c.state.snapshot().get("workflow-results", {})
    finally:
        c.disconnect()


def test_a_thousand_workflows_from_asyncio_end_with_the_masters_results(cluster):
    port = cluster(*idle()).ports[1]

    async def run():
        async with await async_connection(port) as c:
            descriptions = [chain(f"w{i}") for i in range(1000)]
            # The forced failure: its first task fails both of its attempts.
            descriptions.append(chain("doomed", **{"fail-attempts": 2, "max-attempts": 2}))
            started = time.monotonic()
            submitted = await asyncio.gather(*(c.submit(d) for d in descriptions))
            ids = [s.ids[0] for s in submitted]
            assert all(s.all_ok and len(s.items) == 1 for s in submitted)
            assert len(set(ids)) == len(descriptions)
            ends = await asyncio.gather(*(c.wait(i, timeout=120) for i in ids))
            elapsed = time.monotonic() - started
            results = c.state.snapshot()["workflow-results"]
            replica = {i: results[i] for i in ids}
            return ids, ends, replica, elapsed

    ids, ends, replica, elapsed = asyncio.run(run())
    print(f"1001 workflows of five tasks submitted and ended in {elapsed:.2f} s")
    assert [e.state for e in ends[:-1]] == ["finished"] * 1000
    assert all(e.result == {"st": 2, "ht": 5} for e in ends[:-1])
    doomed = ends[-1]
    assert doomed.state == "failed"
    assert doomed.result["ht"] == 2  # both attempts of the first task, nothing after it
    master = master_results(port)
    assert replica == {i: master[i] for i in ids}


def test_another_users_workflow_is_refused_naming_the_owner_and_the_admin_may(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]
    alice = blocking_connection(port)
    bob = blocking_connection(port, "bob", "builder")
    root = blocking_connection(port, "root", "toor", admin=True)
    try:
        wid = alice.submit(chain("mine")).ids[0]
        with pytest.raises(zelcapi.AccessDenied) as refused:
            bob.cancel(wid)
        assert isinstance(refused.value, zelcapi.Refused)
        assert refused.value.owner == "alice"
        assert refused.value.id == wid
        assert "alice" in str(refused.value)
        assert refused.value.result.items[0].outcome == "access-denied"
        # Without check the outcome comes back per item, the missing id's beside it.
        result = bob.cancel([wid, "WOFL-none"], check=False)
        assert [i.outcome for i in result.items] == ["access-denied", "not-found"]
        assert not result.all_ok
        assert root.cancel(wid).items[0].outcome == "done"
        assert alice.wait_for(wid, timeout=30).state == "killed"
    finally:
        for c in (alice, bob, root):
            c.disconnect()


def test_a_wait_that_times_out_raises_with_the_last_state(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]

    async def run():
        async with await async_connection(port) as c:
            wid = (await c.submit(chain("slow"))).ids[0]
            with pytest.raises(zelcapi.WaitTimeout) as timed_out:
                await c.wait(wid, timeout=0.05)
            return wid, timed_out.value

    wid, error = asyncio.run(run())
    assert error.reason == "timed-out"
    assert error.last.id == wid and error.last.live and not error.last.ended
    assert error.last.state == "running"
    assert "waited 50 ms" in str(error) and "is running" in str(error)

    c = blocking_connection(port)
    try:
        job = c.submit({"jobs": [{"command": "sleep"}]}).ids[0]
        with pytest.raises(zelcapi.WaitTimeout) as blocked:
            c.wait_for(job, timeout=0.05)
        assert blocked.value.last.kind == "job"
        assert blocked.value.last.state == "running"
    finally:
        c.disconnect()


def test_follow_yields_the_changes_and_ends(cluster):
    port = cluster(*idle(20)).ports[1]

    async def run():
        async with await async_connection(port) as c:
            wid = (await c.submit(chain("followed"))).ids[0]
            return [r async for r in c.follow(wid)]

    seen = asyncio.run(run())
    assert len(seen) > 1
    assert all(not r.ended for r in seen[:-1])
    assert seen[-1].ended and seen[-1].state == "finished"
    assert seen[-1].result == {"st": 2, "ht": 5}
    # Every record yielded differs from the one before it.
    forms = [(r.live, r.state, r.result, r.record) for r in seen]
    assert all(a != b for a, b in zip(forms, forms[1:]))


def test_follow_of_removed_work_raises_work_removed(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]

    async def run():
        async with await async_connection(port) as c:
            wid = (await c.submit(chain("dropped"))).ids[0]
            seen = []
            with pytest.raises(zelcapi.WorkRemoved) as removed:
                async for record in c.follow(wid):
                    seen.append(record)
                    if len(seen) == 1:
                        await c.remove(wid)
            return seen, removed.value

    seen, error = asyncio.run(run())
    assert seen and not seen[0].ended
    assert error.reason == "removed" and not error.last.live


def test_a_description_with_errors_names_every_path_and_sends_nothing(scripted_node):
    node = scripted_node()
    c = zelcapi.Connection()
    assert c.connect("127.0.0.1", node.port) == zelcapi.ResultCode.CONNECTION_OK
    bad = {
        "name": "",
        "tasks": [
            {"name": "a b", "command": "x"},
            {"name": "c", "comand": "y", "after": "nobody"},
        ],
    }
    with pytest.raises(ValueError) as invalid:
        c.submit(bad)
    assert isinstance(invalid.value, zelcapi.DescriptionError)
    assert not isinstance(invalid.value, TypeError)
    paths = [path for path, _, _ in invalid.value.errors]
    assert paths == ["/name", "/tasks/0/name", "/tasks/1/comand", "/tasks/1/command",
                     "/tasks/1/after"]
    for path in paths:
        assert path + ": " in str(invalid.value)

    with pytest.raises(TypeError) as mistyped:
        c.submit({"name": "w", "tasks": [{"name": "a", "command": "x", "cores": "four"}]},
                 values={"nothing": 1})
    assert isinstance(mistyped.value, zelcapi.DescriptionTypeError)
    assert [p for p, _, _ in mistyped.value.errors] == ["/tasks/0/cores", "values['nothing']"]

    # The first packet the node sees is a request sent after the refused ones.
    c.send("test.after", {})
    assert node.next_packet()[1] == "test.after"
    c.disconnect()


class DroppingProxy:
    """Relays one client to a node, leaving out the first `drops` replies named `name`."""

    def __init__(self, port: str, name: str, drops: int) -> None:
        self.target = int(port)
        self.name = name
        self.drops = drops
        self.dropped = 0
        self.listener = socket.socket()
        self.listener.bind(("127.0.0.1", 0))
        self.listener.listen(1)
        self.port = str(self.listener.getsockname()[1])
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self) -> None:
        client, _ = self.listener.accept()
        server = socket.create_connection(("127.0.0.1", self.target))
        threading.Thread(target=self._pipe, args=(client, server), daemon=True).start()
        self._replies(server, client)

    @staticmethod
    def _pipe(source, sink) -> None:
        while data := source.recv(65536):
            sink.sendall(data)
        sink.shutdown(socket.SHUT_WR)

    def _replies(self, server, client) -> None:
        buffered = b""
        hello = True
        while data := server.recv(65536):
            buffered += data
            while len(buffered) >= 4 and len(buffered) >= 4 + struct.unpack(">I", buffered[:4])[0]:
                size = 4 + struct.unpack(">I", buffered[:4])[0]
                frame, buffered = buffered[:size], buffered[size:]
                if not hello and self.dropped < self.drops:
                    type_, name, _ = zelcapi.decode(frame[4:])
                    if type_ == 4 and name == self.name:
                        self.dropped += 1
                        continue
                hello = False
                client.sendall(frame)
        client.shutdown(socket.SHUT_WR)

    def close(self) -> None:
        self.listener.close()


def test_a_retry_with_the_same_key_after_a_dropped_reply_makes_one_workflow(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]
    proxy = DroppingProxy(port, "cluster.api.workflow.update", 1)
    c = blocking_connection(proxy.port)
    try:
        c.write_timeout = 1
        c.write_retries = 0
        with pytest.raises(zelcapi.WriteError) as lost:
            c.submit(chain("once"), key="render-once")
        assert lost.value.reason == "timed-out" and lost.value.key == "render-once"
        assert proxy.dropped == 1
        again = c.submit(chain("once"), key=lost.value.key)
        assert again.repeated and again.key == "render-once"
        named = [w for w in c.state.snapshot()["workflows"].values()
                 if w["meta-data"].get("name") == "once"]
        assert len(named) == 1
    finally:
        c.disconnect()
        proxy.close()


def test_two_submits_at_once_with_one_key_make_one_workflow(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]

    async def run():
        async with await async_connection(port) as c:
            first, second = await asyncio.gather(c.submit(chain("twice"), key="twice-key"),
                                                 c.submit(chain("twice"), key="twice-key"))
            named = [w for w in c.state.snapshot()["workflows"].values()
                     if w["meta-data"].get("name") == "twice"]
            return first, second, named

    first, second, named = asyncio.run(run())
    assert first.ids == second.ids
    assert sorted([first.repeated, second.repeated]) == [False, True]
    assert len(named) == 1


def test_jobs_are_submitted_and_steered_with_outcomes_per_item(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]
    c = blocking_connection(port)
    try:
        submitted = c.submit({"name": "batch", "jobs": [{"command": "a"}, {"command": "b"}]})
        assert submitted.submission_id and len(submitted.ids) == 2
        result = c.steer_jobs("cancel", submitted.ids + ["job-none"], check=False)
        assert [i.outcome for i in result.items] == ["done", "done", "not-found"]
        assert c.wait_for(submitted.ids[0], timeout=30).state == "cancelled"
        with pytest.raises(zelcapi.NotFound):
            c.steer_jobs("hold", "job-none")
        with pytest.raises(ValueError):
            c.steer_jobs("pause", submitted.ids)
    finally:
        c.disconnect()


def test_a_blocking_wait_sees_ctrl_c_and_refuses_a_second_thread(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]
    c = blocking_connection(port)
    root = blocking_connection(port, "root", "toor", admin=True)
    try:
        wid = c.submit(chain("steered")).ids[0]
        waited = {}

        def wait() -> None:
            try:
                waited["record"] = c.wait_for(wid, timeout=60)
            except Exception as e:  # noqa: BLE001 - the test looks at it
                waited["error"] = e

        waiter = threading.Thread(target=wait)
        waiter.start()
        wait_until_blocked(waiter.native_id)
        with pytest.raises(zelcapi.BusyError):
            c.cancel(wid)
        root.cancel(wid)
        waiter.join(30)
        assert waited["record"].state == "killed"

        from conftest import interrupt_when_blocked
        other = c.submit(chain("interrupted")).ids[0]
        interrupt_when_blocked()
        with pytest.raises(KeyboardInterrupt):
            c.wait_for(other, timeout=60)
        assert c.cancel(other).items[0].outcome == "done"
    finally:
        c.disconnect()
        root.disconnect()


def test_workflows_are_steered_each_change_reaching_the_replica(cluster):
    port = cluster(*idle(LONG_MS)).ports[1]
    c = blocking_connection(port)
    try:
        trial = c.submit(chain("trial"), dry_run=True)
        assert trial.dry_run and trial.items[0].outcome == "done"
        assert not [w for w in c.state.snapshot()["workflows"].values()
                    if w["meta-data"].get("name") == "trial"]

        first, second = c.submit_many([chain("first"), chain("second")]).ids
        c.set_priority([first, second], 7)
        assert c.wait_for(first, timeout=30, until=lambda r: r.record["priority"] == 7).live

        assert c.add_dependant(first, second).items[0].outcome == "done"
        c.wait_for(first, timeout=30, until=lambda r: second in r.record["dependants"])

        # A task that failed for good, in a workflow that lives on while another task runs.
        flaky = c.submit({"name": "flaky", "tasks": [
            {"name": "a", "command": "x", "run-ms": 0, "fail-attempts": 1},
            {"name": "b", "command": "y"}]}).ids[0]
        c.wait_for(flaky, timeout=30,
                   until=lambda r: r.record["tasks"]["a"]["num-attempts"] == 1)
        assert c.retry_task(flaky, "a").items[0].outcome == "done"
        # It runs again, and its second attempt finishes.
        c.wait_for(flaky, timeout=30,
                   until=lambda r: r.record["tasks"]["a"]["num-attempts"] == 2
                   and r.record["tasks"]["a"]["max-attempts"] == 2)

        # A template comes with the workflow its values spawn; values sent to it spawn more.
        shot = {"name": "shot", "template": True, "inputs": {"frames": {"kind": "string"}},
                "tasks": [{"name": "render", "command": "render", "run-ms": 0}]}
        template_id, spawned = c.submit(shot, values={"frames": "1-10"}).ids
        again = c.pass_values(template_id, {"render>frames": "11-20"}).ids[0]
        assert len({template_id, spawned, again}) == 3
        for workflow in (spawned, again):
            assert c.wait_for(workflow, timeout=30).state == "finished"
        assert c.state.snapshot()["workflows"][template_id]["type"] == 0
    finally:
        c.disconnect()

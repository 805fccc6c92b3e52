"""The asyncio monitor: connect, login and snapshot awaited, changes through async for, the
application's own timer running in between, and requests awaited."""

import asyncio

import pytest

import zelcapi


@pytest.mark.asyncio
async def test_an_asyncio_monitor_follows_the_changes_beside_its_own_timer(cluster):
    sim = cluster("--rate", "1000", "--jobs", "200", "--master", "2")
    ticks = 0

    async def tick():
        nonlocal ticks
        while True:
            await asyncio.sleep(0.005)
            ticks += 1

    ticker = asyncio.ensure_future(tick())
    async with zelcapi.AsyncStateConnection() as c:
        assert await c.connect("127.0.0.1", sim.ports[1]) == zelcapi.ResultCode.CONNECTION_OK
        reply = await c.login("alice", "secret")
        assert reply["node-id"] == "node-2"
        await c.snapshot()
        assert c.state.count(zelcapi.ItemType.NODE) > 0
        seen = []
        async for change in c.changes():
            seen.append(change)
            if len(seen) == 300:
                break
        assert {change.kind for change in seen} & {"set", "update"}
        assert all(isinstance(change.id, str) for change in seen)
        status = await c.request("cluster.api.state.request", {"bounce": {"n": 1}})
        assert status["bounce"] == {"n": 1}
        with pytest.raises(TypeError):
            await c.request("cluster.api.state.request", {"bad": 1.0})
    ticker.cancel()
    # The loop was never held for the whole session (a count would depend on the machine's pace).
    assert ticks > 0


@pytest.mark.asyncio
async def test_a_request_times_out_from_the_loops_timer_alone(silent_node):
    async with zelcapi.AsyncStateConnection() as c:
        assert await c.connect("127.0.0.1", silent_node) == zelcapi.ResultCode.CONNECTION_OK
        started = asyncio.get_running_loop().time()
        with pytest.raises(zelcapi.UnspecifiedError, match="Connection timeout"):
            await c.request("test.unanswered", None, 1)
        assert asyncio.get_running_loop().time() - started >= 1.0
        assert await c.connect("no-such-host.invalid", "1") == zelcapi.ResultCode.CONNECTION_FAILED


@pytest.mark.asyncio
async def test_a_refused_login_raises_in_asyncio_too(cluster):
    sim = cluster("--idle")
    async with zelcapi.AsyncStateConnection() as c:
        assert await c.connect("127.0.0.1", int(sim.ports[1])) == zelcapi.ResultCode.CONNECTION_OK
        with pytest.raises(zelcapi.AccessDenied) as raised:
            await c.login("alice", "wrong")
        assert raised.value.code == zelcapi.ResultCode.ACCESS_DENIED
        assert (await c.login("alice", "secret"))["node-id"] == "node-1"


@pytest.mark.asyncio
async def test_the_login_sends_the_id_io_port_and_storages(scripted_node):
    node = scripted_node()
    async with zelcapi.AsyncStateConnection() as c:
        await c.connect("127.0.0.1", node.port)
        login = asyncio.ensure_future(
            c.login("alice", "secret", id="client-7", io_port="7100", storages={"s": "/x"}))
        _, name, props = await asyncio.get_running_loop().run_in_executor(None, node.next_packet)
        assert (props["id"], props["io-port"], props["storages"]) == ("client-7", "7100", {"s": "/x"})
        node.send(4, name, {"node-id": "node-1", "master-id": "node-1"})
        assert (await login)["node-id"] == "node-1"


@pytest.mark.asyncio
async def test_a_snapshot_awaited_when_the_link_drops_raises(scripted_node):
    node = scripted_node()
    async with zelcapi.AsyncStateConnection() as c:
        await c.connect("127.0.0.1", node.port)
        snapshot = asyncio.ensure_future(c.snapshot())
        packet = await asyncio.get_running_loop().run_in_executor(None, node.next_packet)
        assert packet[1] == "cluster.api.state.request"
        node.drop()
        with pytest.raises(zelcapi.UnspecifiedError, match="^Connection error"):
            await asyncio.wait_for(snapshot, 30)


@pytest.mark.asyncio
async def test_changes_survive_a_cancelled_wait_and_report_workflows_added_and_removed(
        scripted_node):
    node = scripted_node()
    async with zelcapi.AsyncStateConnection() as c:
        await c.connect("127.0.0.1", node.port)
        changes = c.changes().__aiter__()
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(changes.__anext__(), 0.05)
        node.send(3, "cluster.api.state.set-item",
                  {"item-type": 5, "state-id": "job-1", "state": {"state": "running"}})
        node.send(3, "cluster.api.state.add-workflow",
                  {"state-id": "wf-1", "workflow": {"name": "nightly"}})
        node.send(3, "cluster.api.state.remove-workflow", {"state-id": "wf-1"})
        seen = [await asyncio.wait_for(changes.__anext__(), 30) for _ in range(3)]
        assert seen == [
            zelcapi.Change("set", zelcapi.ItemType.JOB, "job-1", {"state": "running"}),
            zelcapi.Change("workflow-added", None, "wf-1", {"name": "nightly"}),
            zelcapi.Change("workflow-removed", None, "wf-1", None),
        ]
        node.drop()
        with pytest.raises(StopAsyncIteration):
            await asyncio.wait_for(changes.__anext__(), 30)


@pytest.mark.asyncio
async def test_changes_are_kept_from_the_first_call_of_changes_on(scripted_node):
    node = scripted_node()
    async with zelcapi.AsyncStateConnection() as c:
        await c.connect("127.0.0.1", node.port)
        node.send(3, "cluster.api.state.set-item",
                  {"item-type": 5, "state-id": "job-1", "state": {"state": "queued"}})
        node.send(3, "cluster.api.state.add-workflow",
                  {"state-id": "wf-1", "workflow": {"name": "nightly"}})
        # A wait on job-1 sees it by its id alone; nothing is queued for changes() yet.
        record = await asyncio.wait_for(c.wait("job-1", until=lambda r: True), 30)
        assert record.id == "job-1"
        changes = c.changes().__aiter__()
        node.send(3, "cluster.api.state.set-item",
                  {"item-type": 5, "state-id": "job-2", "state": {"state": "running"}})
        node.send(3, "cluster.api.state.remove-workflow", {"state-id": "wf-1"})
        seen = [await asyncio.wait_for(changes.__anext__(), 30) for _ in range(2)]
        assert seen == [
            zelcapi.Change("set", zelcapi.ItemType.JOB, "job-2", {"state": "running"}),
            zelcapi.Change("workflow-removed", None, "wf-1", None),
        ]

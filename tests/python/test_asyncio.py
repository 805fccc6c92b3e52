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
    assert ticks > 10


@pytest.mark.asyncio
async def test_a_request_times_out_from_the_loops_timer_alone(silent_node):
    async with zelcapi.AsyncStateConnection() as c:
        assert await c.connect("127.0.0.1", silent_node) == zelcapi.ResultCode.CONNECTION_OK
        started = asyncio.get_running_loop().time()
        with pytest.raises(zelcapi.UnspecifiedError, match="Connection timeout"):
            await c.request("test.unanswered", None, 1)
        assert asyncio.get_running_loop().time() - started >= 1.0
        assert await c.connect("no-such-host.invalid", "1") == zelcapi.ResultCode.CONNECTION_FAILED

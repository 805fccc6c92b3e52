"""zelcapi inside a running asyncio loop.

LoopAttachment lets the loop watch a connection's files (add_reader, add_writer) and its
deadline (call_at), and calls the connection's step when one is due: the library never blocks
the loop. AsyncStateConnection builds on it: await connect, login, snapshot and requests,
``async for change in connection.changes()``, await submit and the steering calls, await wait,
and ``async for record in connection.follow(id)``.
"""

from __future__ import annotations

import asyncio
import collections
import copy
from typing import (Any, AsyncIterator, Callable, Deque, Dict, Iterable, List, NamedTuple,
                    Optional, Union)

from . import _zelcapi

_WRITABLE = 2


class LoopAttachment:
    """Drives `connection` from `loop` (the running loop by default) until close()."""

    def __init__(self, connection: _zelcapi.Connection,
                 loop: Optional[asyncio.AbstractEventLoop] = None) -> None:
        self._connection = connection
        self._loop = loop or asyncio.get_running_loop()
        self._readers: Dict[int, int] = {}  # descriptor -> serial of the file watched
        self._writers: set = set()
        self._timer: Optional[asyncio.TimerHandle] = None
        self._timer_when: Optional[float] = None
        connection.set_watch_callback(self._refresh)
        self._refresh()

    def close(self) -> None:
        """Stops watching; the connection is left as it is."""
        self._connection.set_watch_callback(None)
        for fd in self._readers:
            self._loop.remove_reader(fd)
        for fd in self._writers:
            self._loop.remove_writer(fd)
        self._readers.clear()
        self._writers.clear()
        if self._timer is not None:
            self._timer.cancel()
        self._timer = None
        self._timer_when = None

    def _refresh(self) -> None:
        # The watch callback: every change of the files comes through here.
        wanted = {fd: (events, serial) for fd, events, serial in self._connection.watched_files()}
        for fd in list(self._readers):
            if fd not in wanted or wanted[fd][1] != self._readers[fd]:
                self._loop.remove_reader(fd)
                del self._readers[fd]
                if fd in self._writers:
                    self._loop.remove_writer(fd)
                    self._writers.discard(fd)
        for fd, (events, serial) in wanted.items():
            if fd not in self._readers:
                self._loop.add_reader(fd, self._serve)
                self._readers[fd] = serial
            if events & _WRITABLE and fd not in self._writers:
                self._loop.add_writer(fd, self._serve)
                self._writers.add(fd)
            elif not events & _WRITABLE and fd in self._writers:
                self._loop.remove_writer(fd)
                self._writers.discard(fd)
        self._arm_timer()

    def _arm_timer(self) -> None:
        deadline = self._connection.next_deadline()
        if deadline != self._timer_when:
            if self._timer is not None:
                self._timer.cancel()
            self._timer = None if deadline is None else self._loop.call_at(deadline, self._on_timer)
            self._timer_when = deadline

    def _on_timer(self) -> None:
        self._timer = None
        self._timer_when = None
        self._serve()

    def _serve(self) -> None:
        # What a handler raised leaves here for the loop's exception handler; the input after
        # it is served next, as the deadline is then now. The files' changes came through the
        # watch callback already.
        try:
            self._connection.step()
        finally:
            self._arm_timer()


class Change(NamedTuple):
    """One change of the replica: kind is "set", "update", "remove", "historize", "erase",
    "result", "result-removed", "workflow" (an update-workflow command), "workflow-added" or
    "workflow-removed"; type the ItemType (None for workflows and results); data the record, the
    update, the property reference, the command or the workflow (or None)."""

    kind: str
    type: Optional[int]
    id: str
    data: Any


class _ChangeQueue(_zelcapi.StateHandler):
    """Queues the changes of a state connection and wakes who awaits them. Nothing is queued
    (nor converted) until someone asks for the changes: a program that only submits and waits
    keeps no growing queue, and its calls carry ids alone."""

    def __init__(self) -> None:
        super().__init__()
        self._ids_only = True
        # The snapshot only settles a future: it is never converted.
        self._snapshot_as_none = True
        # The queue, from the first call of changes() on.
        self.changes: Optional[Deque[Change]] = None
        self.wakeup: Optional[asyncio.Future] = None
        self.new_state_waiter: Optional[asyncio.Future] = None
        self.lost: Optional[str] = None
        # Waits and follows by the id they look at: woken by that id's changes.
        self.watchers: Dict[str, List[asyncio.Future]] = {}

    def watch(self, id: str) -> asyncio.Future:
        """A future that the next change of `id` (or the link's loss) completes."""
        future = asyncio.get_running_loop().create_future()
        self.watchers.setdefault(id, []).append(future)
        return future

    def _wake(self, futures: Optional[List[asyncio.Future]]) -> None:
        for future in futures or ():
            if not future.done():
                future.set_result(None)

    def record(self) -> None:
        """Queues the changes from now on, each with its record."""
        if self.changes is None:
            self.changes = collections.deque()
            self._ids_only = False

    def _put(self, kind: str, type: Optional[int], id: str, data: Any) -> bool:
        if self.changes is not None:
            self.changes.append(Change(kind, type, id, data))
            if self.wakeup is not None and not self.wakeup.done():
                self.wakeup.set_result(None)
        if self.watchers:
            self._wake(self.watchers.pop(id, None))
        return True

    def item_set(self, type: int, id: str, record: dict) -> bool:
        return self._put("set", type, id, record)

    def item_updated(self, type: int, id: str, update: dict) -> bool:
        return self._put("update", type, id, update)

    def item_removed(self, type: int, id: str) -> bool:
        return self._put("remove", type, id, None)

    def item_historized(self, type: int, id: str) -> bool:
        return self._put("historize", type, id, None)

    def item_erased_property_ref(self, type: int, id: str, ref: str) -> bool:
        return self._put("erase", type, id, ref)

    def workflow_result_added(self, id: str, status: int, ht: int) -> bool:
        return self._put("result", None, id, {"st": status, "ht": ht})

    def workflow_result_removed(self, id: str) -> bool:
        return self._put("result-removed", None, id, None)

    def workflow_updated(self, command: dict) -> bool:
        return self._put("workflow", None, str(command.get("state-id", "")), command)

    def workflow_added(self, id: str, workflow: dict) -> bool:
        return self._put("workflow-added", None, id, workflow)

    def workflow_removed(self, id: str) -> bool:
        return self._put("workflow-removed", None, id, None)

    def new_state(self, state: None) -> bool:
        if self.new_state_waiter is not None and not self.new_state_waiter.done():
            self.new_state_waiter.set_result(None)
        return True

    def disconnected(self, reason: str, reconnecting: bool) -> None:
        self.lost = reason
        if self.wakeup is not None and not self.wakeup.done():
            self.wakeup.set_result(None)
        for futures in self.watchers.values():
            self._wake(futures)
        self.watchers.clear()
        # A snapshot awaited on this link will not come.
        if self.new_state_waiter is not None and not self.new_state_waiter.done():
            self.new_state_waiter.set_exception(
                _zelcapi.UnspecifiedError(f"Connection error ({reason})"))


def _settle(future: asyncio.Future, reply: Any, error: Optional[BaseException]) -> None:
    if future.done():
        return
    if error is not None:
        future.set_exception(error)
    else:
        future.set_result(reply)


class AsyncStateConnection:
    """A state connection with a replica, driven by the running asyncio loop.

    async with AsyncStateConnection() as c:
        await c.connect("127.0.0.1", "7001")
        await c.login("demo", "demo")
        await c.snapshot()
        async for change in c.changes():
            ...
    """

    def __init__(self, history_keep_time: int = 0) -> None:
        self._queue = _ChangeQueue()
        self.connection = _zelcapi.StateConnection(self._queue, history_keep_time)
        self._attachment = LoopAttachment(self.connection)

    async def __aenter__(self) -> "AsyncStateConnection":
        return self

    async def __aexit__(self, *exc: Any) -> None:
        self.close()

    @property
    def state(self) -> _zelcapi.State:
        """The replica."""
        return self.connection.state

    def close(self) -> None:
        """Disconnects and stops watching."""
        if self.connection.is_connected:
            self.connection.disconnect("closed", False)
        self._attachment.close()

    async def connect(self, host: str, port: Union[str, int],
                      timeout: int = 15) -> _zelcapi.ResultCode:
        """Connects; returns the ResultCode (CONNECTION_OK on success)."""
        future = asyncio.get_running_loop().create_future()
        self._queue.lost = None
        self.connection.connect_async(host, port, timeout,
                                      lambda r: future.done() or future.set_result(r))
        return await future

    async def login(self, username: str, password: str, timeout: int = 15,
                    broadcasts: bool = True, id: str = "", io_port: str = "",
                    storages: Optional[Dict[str, str]] = None) -> dict:
        """Logs in (following the redirect to the master); returns the reply. A refused login
        raises LoginError (AccessDenied, NoSuchUser); a transport failure UnspecifiedError."""
        future = asyncio.get_running_loop().create_future()
        self.connection.login_async(username, password, timeout,
                                    lambda reply, error: _settle(future, reply, error),
                                    broadcasts, id, io_port, storages or {})
        return await future

    async def request(self, name: str, props: Optional[dict] = None, timeout: int = 15) -> dict:
        """Sends a request and returns its reply. Raises UnspecifiedError "Connection
        timeout", "Connection error" or "No connection"."""
        future = asyncio.get_running_loop().create_future()
        self.connection.request_async(name, props, timeout,
                                      lambda reply, error: _settle(future, reply, error))
        return await future

    async def snapshot(self) -> None:
        """Asks for the master's state and returns once the replica holds it. Raises
        UnspecifiedError "Connection error (<reason>)" when the link drops first."""
        future = asyncio.get_running_loop().create_future()
        self._queue.new_state_waiter = future
        self.connection.request_new_state()
        await future

    def changes(self) -> "Changes":
        """The replica's changes as they are applied from the first call of changes() on (none
        is kept before it); ends when the link is lost."""
        self._queue.record()
        return Changes(self)

    # The write side: the library's work client over this connection. Each call returns the
    # master's WriteResult; with check (the default) a refused item raises its Refused
    # (AccessDenied naming the owner, NotFound, NotAllowed, InvalidItem). A request left
    # unanswered raises WriteError; send it again with its key (WriteError.key) to make
    # nothing twice.

    async def _write(self, method: str, *args: Any, key: Optional[str], dry_run: bool,
                     check: bool) -> _zelcapi.WriteResult:
        future = asyncio.get_running_loop().create_future()
        getattr(self.connection, method + "_async")(
            *args, lambda result, error: _settle(future, result, error),
            key=key, dry_run=dry_run, check=check)
        return await future

    async def submit(self, description: dict, id: str = "", values: Optional[dict] = None, *,
                     key: Optional[str] = None, dry_run: bool = False,
                     check: bool = True) -> _zelcapi.WriteResult:
        """Checks a work description (a workflow or plain jobs) and submits it; a description
        with errors raises DescriptionError (a ValueError; DescriptionTypeError, also a
        TypeError, when a value has the wrong kind) naming each error's path, nothing sent."""
        return await self._write("submit", description, id, values, key=key, dry_run=dry_run,
                                 check=check)

    async def submit_many(self, descriptions: Iterable[dict], *, key: Optional[str] = None,
                          dry_run: bool = False, check: bool = True) -> _zelcapi.WriteResult:
        """Checks workflow descriptions and submits them in one request."""
        return await self._write("submit_many", list(descriptions), key=key, dry_run=dry_run,
                                 check=check)

    async def remove(self, ids: Union[str, Iterable[str]], *, key: Optional[str] = None,
                     dry_run: bool = False, check: bool = True) -> _zelcapi.WriteResult:
        """Removes workflows: their jobs end and no result is kept."""
        return await self._write("remove", ids, key=key, dry_run=dry_run, check=check)

    async def cancel(self, ids: Union[str, Iterable[str]], *, key: Optional[str] = None,
                     dry_run: bool = False, check: bool = True) -> _zelcapi.WriteResult:
        """Cancels workflows: their jobs end and they end killed, with a result."""
        return await self._write("cancel", ids, key=key, dry_run=dry_run, check=check)

    async def set_priority(self, ids: Union[str, Iterable[str]], priority: int, *,
                           key: Optional[str] = None, dry_run: bool = False,
                           check: bool = True) -> _zelcapi.WriteResult:
        """Sets the priority of workflows."""
        return await self._write("set_priority", ids, priority, key=key, dry_run=dry_run,
                                 check=check)

    async def retry_task(self, id: str, task: str, *, key: Optional[str] = None,
                         dry_run: bool = False, check: bool = True) -> _zelcapi.WriteResult:
        """Lets a failed task run once more (the workflow must be in the replica)."""
        return await self._write("retry_task", id, task, key=key, dry_run=dry_run, check=check)

    async def pass_values(self, id: str, values: dict, spawn_id: str = "", *,
                          key: Optional[str] = None, dry_run: bool = False,
                          check: bool = True) -> _zelcapi.WriteResult:
        """Sets in-values ('task>node' -> value); on a template it spawns a workflow."""
        return await self._write("pass_values", id, values, spawn_id, key=key, dry_run=dry_run,
                                 check=check)

    async def add_dependant(self, id: str, dependant: str, *, key: Optional[str] = None,
                            dry_run: bool = False, check: bool = True) -> _zelcapi.WriteResult:
        """Makes workflow `dependant` depend on workflow `id`."""
        return await self._write("add_dependant", id, dependant, key=key, dry_run=dry_run,
                                 check=check)

    async def steer_jobs(self, action: str, ids: Union[str, Iterable[str]], priority: int = 0, *,
                         key: Optional[str] = None, dry_run: bool = False,
                         check: bool = True) -> _zelcapi.WriteResult:
        """cancel, hold, release, retry or priority (with `priority`) on plain jobs."""
        return await self._write("steer_jobs", action, ids, priority, key=key, dry_run=dry_run,
                                 check=check)

    async def wait(self, id: str, timeout: Optional[float] = None, kind: Optional[str] = None,
                   until: Optional[Callable[[_zelcapi.WorkRecord], bool]] = None
                   ) -> _zelcapi.WorkRecord:
        """Returns the WorkRecord of job or workflow `id` once until(record) holds (default: it
        has ended). Raises WaitTimeout after `timeout` seconds, WorkRemoved when the work leaves
        the live state first, LinkLost when the link goes; each holds the last record."""
        loop = asyncio.get_running_loop()
        deadline = None if timeout is None else loop.time() + timeout
        record = _zelcapi.WorkRecord(id, kind)
        while not self.connection.check_wait(record, until):
            left = None if deadline is None else deadline - loop.time()
            if left is not None and left <= 0:
                raise _zelcapi.Connection.wait_timed_out(record, timeout)
            try:
                await asyncio.wait_for(self._queue.watch(id), left)
            except asyncio.TimeoutError:
                pass
        return record

    def follow(self, id: str, kind: Optional[str] = None) -> AsyncIterator[_zelcapi.WorkRecord]:
        """The WorkRecord of job or workflow `id` each time it changes, the last one when it has
        ended; raises WorkRemoved when it leaves the live state without ending and LinkLost when
        the link goes."""
        return self._follow(id, kind)

    async def _follow(self, id: str, kind: Optional[str]) -> AsyncIterator[_zelcapi.WorkRecord]:
        record = _zelcapi.WorkRecord(id, kind)
        last = None
        while True:
            ended = self.connection.check_wait(record)
            seen = (record.live, record.state, record.result, record.record)
            if record.seen and seen != last:
                last = seen
                yield copy.copy(record)
                if not ended:
                    continue  # looks again: the consumer may have let changes in meanwhile
            if ended:
                return
            await self._queue.watch(id)


class Changes:
    """The async iterator of AsyncStateConnection.changes(). A wait for the next change that is
    cancelled (asyncio.wait_for timing out) leaves it as it was: the next wait gets that change."""

    def __init__(self, owner: AsyncStateConnection) -> None:
        self._owner = owner

    def __aiter__(self) -> "Changes":
        return self

    async def __anext__(self) -> Change:
        queue = self._owner._queue
        while not queue.changes:
            if queue.lost is not None and not self._owner.connection.is_connected:
                raise StopAsyncIteration
            # A wait cancelled before (wait_for's time-out) left a cancelled future: replaced.
            if queue.wakeup is None or queue.wakeup.done():
                queue.wakeup = asyncio.get_running_loop().create_future()
            await queue.wakeup
        return queue.changes.popleft()

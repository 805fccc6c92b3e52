"""Client of the cluster job and workflow system.

Connection talks to one node: connect, login (following the node's redirect to the master),
requests. StateConnection keeps a replica of the cluster's state current and tells a
StateHandler subclass of every change. Records are dicts; a string that is not UTF-8 is bytes.
Blocking calls release the GIL; zelcapi.aio gives the same inside a running asyncio loop.
"""

from ._zelcapi import (
    ApiError,
    ArgError,
    Connection,
    Error,
    Handler,
    ItemType,
    ResultCode,
    SQLiteStateDB,
    State,
    StateConnection,
    StateDB,
    StateHandler,
    UnspecifiedError,
    decode,
    encode,
)
from .aio import AsyncStateConnection, Change, LoopAttachment

__all__ = [
    "ApiError",
    "ArgError",
    "AsyncStateConnection",
    "Change",
    "Connection",
    "Error",
    "Handler",
    "ItemType",
    "LoopAttachment",
    "ResultCode",
    "SQLiteStateDB",
    "State",
    "StateConnection",
    "StateDB",
    "StateHandler",
    "UnspecifiedError",
    "decode",
    "encode",
]

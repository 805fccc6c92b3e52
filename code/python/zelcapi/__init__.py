"""Client of the cluster job and workflow system.

Connection talks to one node: connect, login (following the node's redirect to the master),
requests. StateConnection keeps a replica of the cluster's state current and tells a
StateHandler subclass of every change. Records are dicts; a string that is not UTF-8 is bytes.
Blocking calls release the GIL and end at Ctrl-C; a connection serves one thread at a time;
zelcapi.aio gives the same inside a running asyncio loop. The library's report lines go to the
logger "zelcapi" (reports_to_stderr() sends them back to standard error).
"""

from ._zelcapi import (
    AccessDenied,
    ApiError,
    ArgError,
    BusyError,
    Connection,
    Error,
    Handler,
    ItemType,
    LoginError,
    NoSuchUser,
    ResultCode,
    SQLiteStateDB,
    State,
    StateConnection,
    StateDB,
    StateHandler,
    UnspecifiedError,
    decode,
    encode,
    reports_to_logging,
    reports_to_stderr,
)
from .aio import AsyncStateConnection, Change, LoopAttachment

__all__ = [
    "AccessDenied",
    "ApiError",
    "ArgError",
    "AsyncStateConnection",
    "BusyError",
    "Change",
    "Connection",
    "Error",
    "Handler",
    "ItemType",
    "LoginError",
    "LoopAttachment",
    "NoSuchUser",
    "ResultCode",
    "SQLiteStateDB",
    "State",
    "StateConnection",
    "StateDB",
    "StateHandler",
    "UnspecifiedError",
    "decode",
    "encode",
    "reports_to_logging",
    "reports_to_stderr",
]

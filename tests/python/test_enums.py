"""ItemType and ResultCode are IntEnums, as the stubs say, and handlers receive their members."""

import enum
import time

import zelcapi


def test_item_type_is_an_int_enum_of_the_seven_kinds():
    assert issubclass(zelcapi.ItemType, enum.IntEnum)
    assert [(t.name, int(t)) for t in zelcapi.ItemType] == [
        ("CLIENT", 0), ("NODE", 1), ("SUBMISSION", 2), ("SOURCE", 3), ("SLOT", 4), ("JOB", 5),
        ("TASK", 6)]
    assert isinstance(zelcapi.ItemType.JOB, int) and zelcapi.ItemType.JOB == 5
    assert zelcapi.ItemType(6) is zelcapi.ItemType.TASK


def test_result_code_is_an_int_enum_with_the_systems_texts():
    assert issubclass(zelcapi.ResultCode, enum.IntEnum)
    assert len(list(zelcapi.ResultCode)) == 16
    assert zelcapi.ResultCode.CONNECTION_OK == 1 and zelcapi.ResultCode.CONNECTION_CLOSED == 16
    assert zelcapi.ResultCode.RECONNECTING_TO_MASTER.text == "Reconecting to Master"
    assert zelcapi.ResultCode(11).text == "Access Denied"


class Kinds(zelcapi.StateHandler):
    def __init__(self):
        super().__init__()
        self.types = set()
        self.codes = []

    def item_set(self, type, id, record):
        self.types.add(type)

    def item_updated(self, type, id, update):
        self.types.add(type)

    def status(self, code, text, flag):
        self.codes.append(code)


def test_handlers_receive_enum_members(cluster):
    sim = cluster("--rate", "500", "--jobs", "50")
    h = Kinds()
    c = zelcapi.StateConnection(h)
    assert c.connect("127.0.0.1", sim.ports[1], 5) is zelcapi.ResultCode.CONNECTION_OK
    c.login("alice", "secret", 5)
    end = time.monotonic() + 20
    while not h.types and time.monotonic() < end:
        c.wait(50)
    assert h.types
    assert all(type(t) is zelcapi.ItemType for t in h.types)
    assert h.codes[:2] == [zelcapi.ResultCode.CONNECTION_OK, zelcapi.ResultCode.LOGIN_OK]
    assert all(type(code) is zelcapi.ResultCode for code in h.codes)
    assert c.state.count(zelcapi.ItemType.JOB) == c.state.count(5) > 0

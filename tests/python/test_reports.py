"""The library's report lines and debug prints reach Python's logging (logger "zelcapi"), from
the calling thread and from the saver thread alike, and can be sent back to standard error."""

import gc
import logging
import sqlite3
import subprocess
import sys
import threading

import pytest

import zelcapi


def zelcapi_records(caplog):
    return [r for r in caplog.records if r.name == "zelcapi"]


def test_a_report_reaches_the_zelcapi_logger_at_its_level(caplog):
    caplog.set_level(logging.DEBUG, logger="zelcapi")
    c = zelcapi.Connection()
    with pytest.raises(zelcapi.UnspecifiedError):
        c.request("cluster.api.state.request")
    [record] = zelcapi_records(caplog)
    assert (record.levelno, record.getMessage()) == (logging.ERROR, "No connection")
    assert record.category == "zelcapi" and record.severity == 3 and record.lineno > 0


def test_a_level_below_the_loggers_costs_no_record(caplog):
    caplog.set_level(logging.CRITICAL, logger="zelcapi")
    with pytest.raises(zelcapi.UnspecifiedError):
        zelcapi.Connection().request("cluster.api.state.request")
    assert zelcapi_records(caplog) == []


def test_the_savers_reports_arrive_from_its_thread_while_the_connection_goes(cluster, tmp_path,
                                                                          caplog):
    sim = cluster("--warm-up", "500", "--jobs", "200", "--rate", "1")
    caplog.set_level(logging.DEBUG, logger="zelcapi")
    c = zelcapi.StateConnection(zelcapi.StateHandler())
    c.connect("127.0.0.1", sim.ports[1], 5)
    c.login("alice", "secret", 5)
    c.state.load(zelcapi.SQLiteStateDB(str(tmp_path / "state.db")))
    c.request_new_state_sync()
    c.state.save(wait=False)
    # Letting go of the connection waits for its save, whose reports need Python's lock.
    del c
    gc.collect()
    saves = [r for r in zelcapi_records(caplog) if "save of state-db" in r.getMessage()]
    assert [r.getMessage().split(" in ")[0] for r in saves] == [
        "Starting save of state-db to disk", "Done with save of state-db to disk"]
    assert all(r.levelno == logging.DEBUG for r in saves)
    assert {r.thread for r in saves} != {threading.get_ident()}


def test_debug_prints_arrive_as_debug_records_with_their_category(cluster, caplog):
    sim = cluster("--idle")
    caplog.set_level(logging.DEBUG, logger="zelcapi")
    c = zelcapi.Connection(zelcapi.Handler())
    c.connect("127.0.0.1", sim.ports[1], 5)
    c.disconnect("done here", False)
    [printed] = [r for r in zelcapi_records(caplog) if r.category == "zelcapi::handler:error"]
    assert printed.levelno == logging.DEBUG
    assert printed.getMessage() == "disconnected. reason: 'done here' reconnecting: no"


def test_reports_go_back_to_standard_error_and_to_logging_again(capfd, caplog):
    caplog.set_level(logging.DEBUG, logger="zelcapi")
    c = zelcapi.Connection()
    zelcapi.reports_to_stderr()
    try:
        with pytest.raises(zelcapi.UnspecifiedError):
            c.request("cluster.api.state.request")
        assert zelcapi_records(caplog) == []
        assert "[zelcapi] No connection" in capfd.readouterr().err
    finally:
        zelcapi.reports_to_logging()
    with pytest.raises(zelcapi.UnspecifiedError):
        c.request("cluster.api.state.request")
    assert [r.getMessage() for r in zelcapi_records(caplog)] == ["No connection"]
    assert "No connection" not in capfd.readouterr().err


# Exits with a save still writing: the saver thread reports (needing the GIL) while the
# interpreter exits, and letting go of the connection at the end waits for that save.
EXITS_WHILE_SAVING = """
import logging, sys, zelcapi
logging.basicConfig(level=logging.DEBUG, stream=sys.stdout)
c = zelcapi.StateConnection(zelcapi.StateHandler())
c.connect("127.0.0.1", {port}, 5)
c.login("alice", "secret", 5)
c.state.load(zelcapi.SQLiteStateDB({path!r}))
c.request_new_state_sync()
c.state.save(wait=False)
"""


def test_an_interpreter_that_exits_while_its_replica_saves_ends_cleanly(cluster, tmp_path):
    sim = cluster("--warm-up", "3000", "--jobs", "2000", "--rate", "100")
    for run in range(10):
        path = str(tmp_path / f"state{run}.db")
        script = EXITS_WHILE_SAVING.format(port=sim.ports[1], path=path)
        ended = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                               timeout=120)
        assert ended.returncode == 0, ended.stdout[-2000:] + ended.stderr[-2000:]
        with sqlite3.connect(path) as saved:
            assert saved.execute("SELECT count(*) FROM jobs").fetchone()[0] > 0

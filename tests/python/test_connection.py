"""Connection, login with redirect, wrong password, requests and the library's errors."""

import gc
import threading
import time

import pytest

import zelcapi


class Recorder(zelcapi.Handler):
    def __init__(self):
        super().__init__()
        self.events = []

    def status(self, code, text, flag):
        self.events.append((code, text, flag))
        return True

    def disconnected(self, reason, reconnecting):
        self.events.append(("disconnected", reason, reconnecting))


def test_login_straight_to_the_master(cluster):
    sim = cluster("--idle")
    h = Recorder()
    c = zelcapi.Connection(h)
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    reply = c.login("alice", "secret", 5)
    assert "error" not in reply
    assert reply["node-id"] == reply["master-id"] == "node-1"
    assert h.events[-1] == (zelcapi.ResultCode.LOGIN_OK, "node-1", True)


def test_login_follows_the_redirect_to_the_master(cluster):
    sim = cluster("--idle", "--master", "2")
    h = Recorder()
    c = zelcapi.Connection(h)
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    reply = c.login("alice", "secret", 5)
    assert reply["node-id"] == "node-2"
    assert c.port == sim.ports[2]
    assert (zelcapi.ResultCode.RECONNECTING_TO_MASTER, "127.0.0.1", False) in h.events


def test_a_wrong_password_raises_access_denied_and_the_next_login_succeeds(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    assert c.connect("127.0.0.1", sim.ports[1], 5) == zelcapi.ResultCode.CONNECTION_OK
    with pytest.raises(zelcapi.AccessDenied) as raised:
        c.login("alice", "wrong", 5)
    refusal = raised.value
    assert isinstance(refusal, zelcapi.LoginError) and isinstance(refusal, zelcapi.Error)
    assert refusal.code == zelcapi.ResultCode.ACCESS_DENIED
    assert str(refusal) == "Access denied"
    assert refusal.reply == {"error": "Access denied"}
    assert c.login("alice", "secret", 5)["node-id"] == "node-1"


def test_an_unknown_user_raises_no_such_user(cluster):
    sim = cluster("--idle", "--master", "2")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    with pytest.raises(zelcapi.NoSuchUser) as raised:
        c.login("mallory", "secret", 5)
    assert raised.value.code == zelcapi.ResultCode.NO_SUCH_USER
    assert str(raised.value) == "No such user"


def test_a_refused_admin_login_raises_like_a_refused_login(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    with pytest.raises(zelcapi.AccessDenied):
        c.admin_login("root", "wrong", 5)
    with pytest.raises(zelcapi.NoSuchUser):
        c.admin_login("alice", "secret", 5)
    assert c.admin_login("root", "toor", 5)["admin"] is True


class StopsAtTheRedirect(zelcapi.Handler):
    def status(self, code, text, flag):
        return code != zelcapi.ResultCode.RECONNECTING_TO_MASTER


def test_a_login_given_up_on_this_side_raises_with_its_result_code(cluster):
    sim = cluster("--idle", "--master", "3")
    c = zelcapi.Connection(StopsAtTheRedirect())
    c.connect("127.0.0.1", sim.ports[1], 5)
    with pytest.raises(zelcapi.LoginError) as raised:
        c.login("alice", "secret", 5)
    assert type(raised.value) is zelcapi.LoginError
    assert raised.value.code == zelcapi.ResultCode.RECONNECTING_TO_MASTER
    assert str(raised.value) == zelcapi.ResultCode.RECONNECTING_TO_MASTER.text
    assert raised.value.reply["result-code"] == zelcapi.ResultCode.RECONNECTING_TO_MASTER


def test_a_refused_login_async_ends_with_the_refusal(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    ended = []
    c.login_async("alice", "wrong", 5, lambda reply, error: ended.append((reply, error)))
    while not ended:
        c.wait(10)
    reply, error = ended[0]
    assert reply is None and isinstance(error, zelcapi.AccessDenied)


def test_login_async_sends_the_id_io_port_and_storages(scripted_node):
    node = scripted_node()
    c = zelcapi.Connection()
    c.connect("127.0.0.1", int(node.port), 5)
    ended = []
    c.login_async("alice", "secret", 5, lambda reply, error: ended.append((reply, error)),
                  broadcasts=True, id="client-7", io_port="7100", storages={"scratch": "/tmp"})
    _, name, props = node.next_packet()
    assert name == "cluster.client.login"
    assert props["id"] == "client-7" and props["io-port"] == "7100"
    assert props["storages"] == {"scratch": "/tmp"} and props["broadcasts"] is True
    node.send(4, name, {"node-id": "node-1", "master-id": "node-1"})
    while not ended:
        c.wait(10)
    assert ended[0][1] is None


def test_connect_takes_the_port_as_an_int_or_a_string(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    assert c.connect("127.0.0.1", int(sim.ports[1]), 5) == zelcapi.ResultCode.CONNECTION_OK
    assert c.port == sim.ports[1]
    ended = []
    c.connect_async("127.0.0.1", int(sim.ports[2]), 5, ended.append)
    while not ended:
        c.wait(10)
    assert ended == [zelcapi.ResultCode.CONNECTION_OK] and c.port == sim.ports[2]
    with pytest.raises(TypeError, match="port"):
        c.connect("127.0.0.1", 7000.0, 5)
    with pytest.raises(ValueError, match="port 70000"):
        c.connect("127.0.0.1", 70000, 5)
    assert c.is_connected and c.port == sim.ports[2]


def test_a_request_returns_its_reply_as_a_dict(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    c.login("alice", "secret", 5)
    reply = c.request("cluster.api.state.request", {"bounce": {"tag": b"\xff"}}, 5)
    assert isinstance(reply["state"]["nodes"], dict)
    assert reply["bounce"] == {"tag": b"\xff"}


def test_a_request_the_tree_cannot_hold_raises_and_sends_nothing(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    c.login("alice", "secret", 5)
    with pytest.raises(TypeError) as raised:
        c.request("cluster.api.state.request", {"bounce": {"x": 1.5}}, 5)
    assert "at 'cluster.api.state.request/bounce/x'" in str(raised.value)
    assert c.is_connected
    assert "state" in c.request("cluster.api.state.request", None, 5)


def test_transport_failures_raise_the_librarys_errors(cluster):
    c = zelcapi.Connection()
    with pytest.raises(zelcapi.UnspecifiedError) as raised:
        c.request("cluster.api.state.request")
    assert str(raised.value) == "No connection"
    with pytest.raises(zelcapi.UnspecifiedError) as raised:
        c.login("alice", "secret", 5)
    assert str(raised.value) == "no connection"
    assert c.connect("no-such-host.invalid", "1", 5) == zelcapi.ResultCode.CONNECTION_FAILED


def test_the_non_blocking_calls_end_through_their_callbacks(cluster):
    sim = cluster("--idle", "--master", "3")
    c = zelcapi.Connection()
    ended = {}
    c.connect_async("127.0.0.1", sim.ports[1], 5, lambda r: ended.setdefault("connect", r))
    while "connect" not in ended:
        c.wait(10)
    assert ended["connect"] == zelcapi.ResultCode.CONNECTION_OK
    c.login_async("alice", "secret", 5, lambda reply, error: ended.setdefault("login", (reply, error)))
    while "login" not in ended:
        c.wait(10)
    reply, error = ended["login"]
    assert error is None and reply["node-id"] == "node-3"
    c.request_async("no.such.request", None, 5, lambda r, e: ended.setdefault("request", (r, e)))
    while "request" not in ended:
        c.wait(10)
    reply, error = ended["request"]
    assert error is None and reply == {"error": "unknown request 'no.such.request'"}


def test_an_unanswered_request_ends_with_the_timeout_error(silent_node):
    c = zelcapi.Connection()
    assert c.connect("127.0.0.1", silent_node, 5) == zelcapi.ResultCode.CONNECTION_OK
    ended = []
    c.request_async("test.unanswered", {"n": 1}, 1, lambda r, e: ended.append((r, e)))
    while not ended:
        c.wait(10)
    reply, error = ended[0]
    assert reply is None
    assert isinstance(error, zelcapi.UnspecifiedError) and str(error) == "Connection timeout"
    with pytest.raises(zelcapi.UnspecifiedError, match="^Connection timeout$"):
        c.request("test.unanswered", None, 1)


def test_other_threads_run_while_a_connection_waits(cluster):
    sim = cluster("--idle")
    c = zelcapi.Connection()
    c.connect("127.0.0.1", sim.ports[1], 5)
    spins = 0
    stop = False

    def spin():
        nonlocal spins
        while not stop:
            spins += 1

    thread = threading.Thread(target=spin)
    thread.start()
    time.sleep(0.05)
    before = spins
    assert c.wait(500) is False
    during = spins - before
    stop = True
    thread.join()
    # Holding Python's lock through the wait would have stopped the thread for half a second.
    assert during > 10000


def test_a_connection_let_go_calls_no_handler_while_it_is_destroyed(cluster):
    sim = cluster("--idle")
    h = Recorder()
    c = zelcapi.Connection(h)
    c.connect("127.0.0.1", sim.ports[1], 5)
    told = len(h.events)
    del c
    gc.collect()
    assert len(h.events) == told

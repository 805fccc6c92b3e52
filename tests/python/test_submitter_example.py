"""examples/submitter.py, run as it stands against zelsim: its output and its exit codes."""

import json
import pathlib
import re
import subprocess
import sys

SUBMITTER = pathlib.Path(__file__).resolve().parents[2] / "examples" / "submitter.py"


def submitter(port, *args, user="alice", password="secret"):
    return subprocess.run([sys.executable, str(SUBMITTER), "127.0.0.1", port, user, password,
                           *args], capture_output=True, text=True, timeout=120)


def test_the_submitter_follows_its_workflow_and_exits_0_when_it_finished(cluster):
    port = cluster("--idle", "--run-ms", "10", "--nodes", "1").ports[1]
    run = submitter(port)
    assert run.returncode == 0, run.stderr
    lines = run.stdout.splitlines()
    workflow = re.fullmatch(r"submitted (WOFL-[0-9a-f-]+)", lines[0]).group(1)
    assert len(lines) > 2
    assert lines[-1] == f"workflow '{workflow}' ended finished"
    assert all(line == f"workflow '{workflow}' is running" for line in lines[1:-1])


def test_the_submitter_exits_6_when_its_workflow_failed(cluster, tmp_path):
    port = cluster("--idle", "--run-ms", "10", "--nodes", "1").ports[1]
    failing = tmp_path / "failing.json"
    failing.write_text(json.dumps({"name": "doomed", "tasks": [
        {"name": "only", "command": "false", "fail-attempts": 2, "max-attempts": 2}]}))
    run = submitter(port, str(failing))
    assert run.returncode == 6, run.stderr
    assert run.stdout.splitlines()[-1].endswith(" ended failed")


def test_the_submitter_exits_5_when_the_master_refuses_its_workflow(cluster, tmp_path):
    port = cluster("--idle", "--nodes", "1").ports[1]
    too_big = tmp_path / "too-big.json"
    too_big.write_text(json.dumps({"name": "huge", "tasks": [
        {"name": "only", "command": "crunch", "cores": 1024}]}))
    run = submitter(port, str(too_big))
    assert run.returncode == 5, run.stderr
    assert run.stdout == ""
    assert run.stderr.startswith("submitter: ")


def test_the_submitter_prints_every_error_of_a_bad_description_and_exits_4(cluster, tmp_path):
    port = cluster("--idle", "--nodes", "1").ports[1]
    bad = tmp_path / "bad.json"
    bad.write_text(json.dumps({"name": "w", "tasks": [{"name": "a"}, {"name": "a", "cmd": 1}]}))
    run = submitter(port, str(bad))
    assert run.returncode == 4
    assert run.stdout == ""
    assert run.stderr.splitlines() == [
        "submitter: /tasks/0/command: 'command' is missing",
        "submitter: /tasks/1/cmd: unknown key 'cmd' (did you mean 'command'?)",
        "submitter: /tasks/1/command: 'command' is missing",
        "submitter: /tasks/1/name: task 'a' is also /tasks/0",
    ]


def test_the_submitter_exits_2_when_the_login_is_refused(cluster):
    port = cluster("--idle", "--nodes", "1").ports[1]
    run = submitter(port, password="wrong")
    assert run.returncode == 2
    assert run.stderr.startswith("submitter: ")

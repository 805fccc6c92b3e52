"""The README's Python programs, run as they stand against a cluster on another port."""

import os
import pathlib
import re
import subprocess
import sys

README = pathlib.Path(__file__).resolve().parents[2] / "README.md"


def readme_program(index, port):
    """The README's Python block `index`, talking to `port` instead of 7000."""
    blocks = re.findall(r"```python\n(.*?)```", README.read_text(), re.S)
    assert len(blocks) == 2
    assert blocks[index].count("7000") == 1
    return blocks[index].replace("7000", port)


def test_the_readme_monitor_prints_the_changes(cluster):
    sim = cluster("--rate", "500", "--jobs", "100")
    program = readme_program(0, sim.ports[1])
    try:
        run = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True,
                             timeout=4, env=dict(os.environ, PYTHONUNBUFFERED="1"))
        output = run.stdout + run.stderr
        assert False, "the monitor ended by itself: " + output
    except subprocess.TimeoutExpired as stopped:
        output = stopped.stdout.decode() if stopped.stdout else ""
    lines = output.splitlines()
    assert len(lines) > 10, output
    assert lines[0].split()[0] in {"set", "update", "remove", "historize", "erase", "result",
                                   "result-removed", "workflow"}


def test_the_readme_submitter_prints_how_its_workflow_ended(cluster):
    sim = cluster("--idle", "--run-ms", "10")
    run = subprocess.run([sys.executable, "-c", readme_program(1, sim.ports[1])],
                         capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    assert re.fullmatch(r"workflow 'WOFL-[0-9a-f-]+' ended finished\n", run.stdout), run.stdout

"""The README's Python monitor, run as it stands against a cluster on another port."""

import os
import pathlib
import re
import subprocess
import sys

README = pathlib.Path(__file__).resolve().parents[2] / "README.md"


def test_the_readme_monitor_prints_the_changes(cluster):
    blocks = re.findall(r"```python\n(.*?)```", README.read_text(), re.S)
    assert len(blocks) == 1
    sim = cluster("--rate", "500", "--jobs", "100")
    assert blocks[0].count("7000") == 1
    program = blocks[0].replace("7000", sim.ports[1])
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

"""The whole Python programs of docs/python.md, run as they stand against zelsim."""

import pathlib
import re
import subprocess
import sys

PYTHON_DOC = pathlib.Path(__file__).resolve().parents[2] / "docs" / "python.md"


def test_the_submitting_example_follows_its_workflow_to_the_end(cluster):
    blocks = re.findall(r"```python\n(.*?)```", PYTHON_DOC.read_text(), re.S)
    program = next(b for b in blocks if "c.follow(" in b)
    port = cluster("--idle", "--run-ms", "10", "--nodes", "1").ports[1]
    run = subprocess.run([sys.executable, "-c", program, port], capture_output=True, text=True,
                         timeout=60)
    assert run.returncode == 0, run.stderr
    lines = run.stdout.splitlines()
    assert re.fullmatch(r"workflow 'WOFL-[0-9a-f-]+' ended finished", lines[-1]), run.stdout
    assert all(line.endswith(" is running") for line in lines[:-1])

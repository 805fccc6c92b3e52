#!/usr/bin/env python3
"""Workflow submissions from Python asyncio against the C++ asynchronous path, in one run.

Each repetition of each side starts a fresh zelsim program (`--idle`, one node, every job
running for a day, so that nothing ends during a pass) and submits 1,000 workflows of five tasks
in a chain, 64 in flight, timed from the first send to the last reply:
- C++: `submit_bench --submit-to PORT`, work_client::submit_workflow_async with each reply's
  callback sending the next; it prints its seconds.
- Python: zelcapi.AsyncStateConnection.submit from 64 coroutines that each submit the next
  workflow when their previous one is answered. It submits the equivalent work description
  (a dict), so the Python side also pays for converting and checking the description on every
  submission, where the C++ side sends a workflow it built once.
Both log in as demo without broadcasts and keep no replica. The sides take turns, five
repetitions each; each is judged on its fastest repetition, the median printed beside it.

    PYTHONPATH=build/release/python python3 bench/python_submit_bench.py \\
        [--repetitions N] [--zelsim PATH] [--submit-bench PATH]
"""

import argparse
import asyncio
import os
import statistics
import subprocess
import sys
import time
from typing import List

import zelcapi

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests",
                                "python"))
from zelsim_program import ZelsimProgram  # noqa: E402  (found through the path above)

WORKFLOWS = 1000
WINDOW = 64
A_DAY_MS = 86400000
TARGET = 0.5

# The C++ side's workflow: five tasks in a chain, each after the one before.
WORKFLOW = {"name": "chain", "tasks": [
    {"name": "t%d" % i, "command": "step %d" % i, "max-attempts": 2, "run-ms": A_DAY_MS,
     **({"after": "t%d" % (i - 1)} if i > 1 else {})}
    for i in range(1, 6)]}


def cpp_pass(submit_bench: str, port: str) -> float:
    out = subprocess.run([submit_bench, "--submit-to", port, "--workflows", str(WORKFLOWS),
                          "--window", str(WINDOW)],
                         check=True, capture_output=True, text=True)
    return float(out.stdout.split()[-1])


async def python_pass_async(port: str) -> float:
    async with zelcapi.AsyncStateConnection() as c:
        if await c.connect("127.0.0.1", port) != zelcapi.ResultCode.CONNECTION_OK:
            raise RuntimeError("cannot connect to zelsim")
        await c.login("demo", "demo", broadcasts=False)
        left = WORKFLOWS
        refused = 0

        async def submitter() -> None:
            nonlocal left, refused
            while left > 0:
                left -= 1
                result = await c.submit(WORKFLOW, check=False)
                if not result.all_ok or len(result.items) != 1:
                    refused += 1

        start = time.perf_counter()
        await asyncio.gather(*(submitter() for _ in range(WINDOW)))
        seconds = time.perf_counter() - start
        if refused:
            raise RuntimeError("%d submissions were refused" % refused)
        return seconds


def python_pass(port: str) -> float:
    return asyncio.run(python_pass_async(port))


def on_fresh_cluster(program: str, run) -> float:
    sim = ZelsimProgram(program, "--idle", "--run-ms", str(A_DAY_MS), "--nodes", "1", "--port", "0")
    try:
        return run(sim.ports[1])
    finally:
        sim.stop()


def rates(seconds: List[float]) -> str:
    return "fastest %7.0f/s  median %7.0f/s" % (WORKFLOWS / min(seconds),
                                                WORKFLOWS / statistics.median(seconds))


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--repetitions", type=int, default=5)
    parser.add_argument("--zelsim", default="build/release/code/tools/zelsim/zelsim")
    parser.add_argument("--submit-bench", default="build/release/bench/submit_bench")
    args = parser.parse_args()
    cpp: List[float] = []
    python: List[float] = []
    for _ in range(args.repetitions):
        cpp.append(on_fresh_cluster(args.zelsim, lambda port: cpp_pass(args.submit_bench, port)))
        python.append(on_fresh_cluster(args.zelsim, python_pass))
        print("C++ %.3f s   Python %.3f s" % (cpp[-1], python[-1]), flush=True)
    print("C++ async       %s" % rates(cpp))
    print("Python asyncio  %s" % rates(python))
    ratio = min(cpp) / min(python)
    median_ratio = statistics.median(cpp) / statistics.median(python)
    print("%-52s %5.2f  (target >= %.2f)  %-7s  median %.2f"
          % ("workflow submissions, Python asyncio vs C++ async", ratio, TARGET,
             "met" if ratio >= TARGET else "NOT MET", median_ratio))


if __name__ == "__main__":
    main()

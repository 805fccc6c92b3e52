"""A zelsim program on free ports, started and stopped for the Python tests and benchmarks."""

import re
import signal
import subprocess
import time

LISTENING = re.compile(r"zelsim: node-(\d+) [\d.]+:(\d+): listening")


class ZelsimProgram:
    """A running zelsim: ports[n] is node n's port (1-based), a str."""

    def __init__(self, program: str, *args: str) -> None:
        self.process = subprocess.Popen([program, *args], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.PIPE, text=True)
        self.ports = {}
        nodes = int(args[args.index("--nodes") + 1]) if "--nodes" in args else 3
        deadline = time.monotonic() + 20
        while len(self.ports) < nodes and time.monotonic() < deadline:
            line = self.process.stderr.readline()
            if not line:
                break
            found = LISTENING.search(line)
            if found:
                self.ports[int(found.group(1))] = found.group(2)
        if len(self.ports) < nodes:
            self.stop()
            raise RuntimeError("zelsim did not start")

    def stop(self) -> None:
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stderr.close()

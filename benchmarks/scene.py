# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The pieces of a benchmark: a private bus, the servers on it, and what the kernel knows of a process."""
import contextlib
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = pathlib.Path(os.environ.get("KAVREL_BUILD", ROOT / "build/bench"))
PROGRAMS = {
    "bare": BUILD / "benchmarks/bare",
    "floor": BUILD / "benchmarks/floor",
    "memory": BUILD / "benchmarks/kavreld-memory",
    "daemon": BUILD / "src/kavreld",
}
MEASURE = BUILD / "benchmarks/measure"
NAME = "org.olvane.kavrel"
PATIENCE = 120  # seconds, for one step of a benchmark


class BenchError(Exception):
    """Ends the benchmark; its text is the one line for standard error."""


def with_parent(*command):
    """A command that ends with this program, however that ends."""
    return ["setpriv", "--pdeathsig", "TERM", *map(str, command)]


def end(process):
    if process.poll() is None:
        process.terminate()
    process.wait(PATIENCE)


class Server:
    """One of PROGRAMS on a private bus of its own, its log in a file and its TV on a tmpfs, while it is entered."""

    def __init__(self, kind, *arguments, under=(), log=None, environment=None):
        self.kind = kind
        self._command = [*under, PROGRAMS[kind], *arguments]
        self._log = log
        self._environment = environment or {}
        self._stack = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as stack:
            memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
            self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kavrel-bench.", dir=memory))
            stack.callback(shutil.rmtree, self.folder, ignore_errors=True)
            self.folder.chmod(0o755)  # a client of another user reaches the bus, too
            self.address = f"unix:path={self.folder}/bus"
            self.tv = self.folder / "tv"
            self._start_bus(stack)
            log = self._log or stack.enter_context(open(self.folder / "log", "ab"))
            self.process = subprocess.Popen(with_parent(*self._command), stdin=subprocess.DEVNULL, stderr=log,
                                            env=self.environment())
            stack.callback(self.stop)
            self.call("gdbus", "wait", "--address", self.address, "--timeout", "30", NAME)
            self._stack = stack.pop_all()
        return self

    def __exit__(self, *_exception):
        self._stack.close()

    def _start_bus(self, stack):
        bus = subprocess.Popen(
            with_parent("dbus-daemon", f"--config-file={ROOT}/scripts/private-bus.conf", "--nofork",
                        f"--address={self.address}", "--print-address=1"),
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        stack.callback(end, bus)
        stack.callback(bus.stdout.close)
        if not bus.stdout.readline():
            raise BenchError("dbus-daemon did not start")
        self.bus_pid = bus.pid

    def environment(self):
        return {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address, "KAVREL_TV_DIR": str(self.tv),
                "KAVREL_LOG": "info", **self._environment}

    def call(self, *command):
        """Runs a program in the server's environment and returns its output."""
        done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              env=self.environment(), timeout=PATIENCE, check=False)
        if done.returncode != 0:
            raise BenchError(f"{self.kind}: {pathlib.Path(command[0]).name} ended with {done.returncode}: "
                             f"{done.stderr.strip()}")
        return done.stdout

    def stop(self):
        """Ends the server; the program that runs it, if there is one, then ends by itself."""
        if self.process.poll() is None:
            os.kill(self.pid, signal.SIGTERM)
        self.process.wait(PATIENCE)

    @property
    def pid(self):
        """The process of the server itself, also where another program runs it."""
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        return int(children[0]) if children else self.process.pid

    def pss(self):
        """KiB of memory, with 1/n of a page that n processes share."""
        return int(re.search(r"^Pss: +(\d+) kB", pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text(), re.M)[1])

    def rss(self):
        """KiB of resident memory, shared pages included."""
        return int(self._status("VmRSS", self.pid))

    def threads(self):
        return int(self._status("Threads", self.pid))

    def context_switches(self):
        """How often its threads, all together, have been given a processor."""
        return sum(int(self._status(key, f"{self.pid}/task/{task}")) for task in os.listdir(f"/proc/{self.pid}/task")
                   for key in ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"))

    def cpu_time(self):
        """Nanoseconds that its threads, all together, have run."""
        return sum(int(path.read_text().split()[0]) for path in pathlib.Path(f"/proc/{self.pid}/task").glob("*/schedstat"))

    @staticmethod
    def _status(key, process):
        return re.search(rf"^{key}:\s+(\d+)", pathlib.Path(f"/proc/{process}/status").read_text(), re.M)[1]

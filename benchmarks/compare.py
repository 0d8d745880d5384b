# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Measures the daemon beside the least that any server of its kind costs, and prints a table."""
import argparse
import contextlib
import dataclasses
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import threading
import time

from scene import BUILD, MEASURE, PATIENCE, PROGRAMS, BenchError, Server

SERVERS = ("floor", "memory", "daemon")


@dataclasses.dataclass
class Line:
    """One line of the table. The reference is the floor, or what `against` names."""
    name: str
    unit: str
    reference: float | None = None
    memory: float | None = None
    daemon: float | None = None
    # To the reference: a ratio, or a difference.
    memory_to_reference: float | None = None
    daemon_to_reference: float | None = None
    goal: str = ""
    against: str = "floor"
    details: dict = dataclasses.field(default_factory=dict)  # in the JSON file only


@dataclasses.dataclass
class Effort:
    """How much is measured."""
    rounds: int
    idle: float  # seconds
    calls: int  # before the memory is looked at again
    traced_calls: int  # with strace
    clients: tuple[int, ...]
    fades: int
    rest: float  # seconds until the memory of a server is read


FULL = Effort(rounds=40, idle=10, calls=100_000, traced_calls=1_000, clients=(1, 4, 16, 64), fades=5, rest=1)
QUICK = Effort(rounds=5, idle=2, calls=2_000, traced_calls=200, clients=(1, 16), fades=1, rest=0.3)


class Comparison:
    """The three servers, started when a row first needs them, and the rows."""

    def __init__(self, effort, stack):
        self.effort = effort
        self._stack = stack
        self._servers = {}

    def servers(self):
        if not self._servers:
            self._servers = {kind: self._stack.enter_context(Server(kind)) for kind in SERVERS}
        return list(self._servers.values())

    def measure(self, what, *options, rounds, servers):
        """[[a number for each server] for each round]"""
        output = servers[0].call(MEASURE, what, "--rounds", rounds, *options, *(server.address for server in servers))
        return [[float(word) for word in line.split()] for line in output.splitlines()]

    def side_by_side(self, name, unit, what, *options, rounds=None, goal=""):
        rounds = self.measure(what, *options, rounds=rounds or self.effort.rounds, servers=self.servers())
        return [ratios_of(Line(name, unit, goal=goal), rounds)]

    # --- The rows

    def bus(self):
        rounds = self.measure("bus", "--calls", 200, rounds=self.effort.rounds, servers=self.servers()[:1])
        return [Line("call of the bus itself, p50", "us", reference=statistics.median(flat(rounds)))]

    def get(self):
        return self.side_by_side("get, p50", "us", "get", "--calls", 200, goal="<= 1.10")

    def get_32(self):
        return self.side_by_side("get, 32 in flight", "calls/s", "get-rate", "--in-flight", 32, "--calls", 2000,
                                 rounds=max(5, self.effort.rounds // 2), goal=">= 0.90")

    def set(self):
        return self.side_by_side("set with its signal, p50", "us", "set", "--calls", 150, goal="<= 1.25")

    def set_32(self):
        return self.side_by_side("set, 32 in flight", "calls/s", "set-rate", "--in-flight", 32, "--calls", 1000,
                                 rounds=max(5, self.effort.rounds // 2), goal=">= 0.78")

    def hear(self):
        return self.side_by_side("set until a second client hears", "us", "hear", "--clients", 2, "--calls", 100,
                                 rounds=max(5, self.effort.rounds // 2))

    def clients(self):
        rounds = max(3, self.effort.rounds // 8)
        lines = []
        for count in self.effort.clients:
            lines += self.side_by_side(f"get, clients: {count}", "calls/s", "get-rate", "--clients", count, "--calls", 2000,
                                       rounds=rounds)
        for count in self.effort.clients:
            lines += self.side_by_side(f"set until all hear, listeners: {count}", "us", "hear-all", "--clients", count + 1,
                                       "--calls", 50, rounds=rounds)
        return lines

    def cpu(self):
        """Other programs on the machine disturb this less than the times of calls."""
        lines = []
        for what in ("get", "set"):
            calls = 500
            rounds = []
            for _ in range(max(3, self.effort.rounds // 4)):
                rounds.append([self._cpu_of(server, what, calls) for server in self.servers()])
            lines.append(ratios_of(Line(f"CPU time of one {what}", "us"), rounds))
        return lines

    def _cpu_of(self, server, what, calls):
        before = server.cpu_time()
        self.measure(what, "--calls", calls, rounds=1, servers=[server])
        return (server.cpu_time() - before) / calls / 1000

    def system_calls(self):
        lines = []
        for what, goal in (("get", "<= +12"), ("set", "<= +18")):
            counts = [system_calls_of(kind, what, self.effort.traced_calls) for kind in SERVERS]
            floor, memory, daemon = (sum(count.values()) for count in counts)
            lines.append(Line(f"system calls of one {what}", "calls", floor, memory, daemon, memory - floor,
                              daemon - floor, goal, details=dict(zip(SERVERS, counts))))
        return lines

    def pss(self):
        rounds = []
        for _ in range(3 if self.effort is FULL else 1):
            with Server("daemon") as daemon:
                threads = daemon.threads()
                daemon_pss = self._pss_at_rest(daemon)
            with Server("bare", threads) as bare:
                bare_pss = self._pss_at_rest(bare)
            with Server("memory") as memory:
                rounds.append([bare_pss, self._pss_at_rest(memory), daemon_pss])
        return [ratios_of(Line("PSS", "KiB", goal="<= 1.08", against="bare program"), rounds)]

    def _pss_at_rest(self, server):
        time.sleep(self.effort.rest)
        return server.pss()

    def pss_after(self):
        calls = self.effort.calls
        values = []
        for kind in SERVERS:
            with Server(kind) as server:
                for what in ("get-rate", "set-rate"):
                    self.measure(what, "--in-flight", 32, "--calls", calls // 2, rounds=1, servers=[server])
                values.append(self._pss_at_rest(server))
        return [ratios_of(Line(f"PSS after {calls:,} calls", "KiB"), [values])]

    def start(self):
        lines = []
        with Server("bare") as scene:
            scene.stop()
            programs = [PROGRAMS[kind] for kind in SERVERS]
            for name, options in (("start until it has its name", []), ("the same on an empty TV directory", ["--file", scene.tv])):
                output = scene.call(MEASURE, "start", "--rounds", self.effort.rounds, *options, *programs)
                rounds = [[float(word) / 1000 for word in line.split()] for line in output.splitlines()]
                lines.append(ratios_of(Line(name, "ms", goal="" if options else "<= 1.5"), rounds))
        return lines

    def outside(self):
        daemon = self.servers()[-1]
        rounds = self.measure("outside", "--file", daemon.tv / "audio/master_volume", "--calls", 50,
                              rounds=max(3, self.effort.rounds // 8), servers=[daemon])
        return [Line("outside change until its signal, p50", "us", daemon=statistics.median(flat(rounds)),
                     goal="<= 300")]

    def idle(self):
        with contextlib.ExitStack() as stack:
            servers = [stack.enter_context(Server(kind)) for kind in SERVERS]
            time.sleep(1)
            before = [server.context_switches() for server in servers]
            time.sleep(self.effort.idle)
            woken = [server.context_switches() - start for server, start in zip(servers, before)]
        return [Line(f"wake-ups in {self.effort.idle:g} idle seconds", "", *woken, goal="0")]

    def fade(self):
        traces = [trace_of_fade() for _ in range(self.effort.fades)]
        stores = flat(trace.store_lateness() for trace in traces)
        writes = flat(trace.write_lateness() for trace in traces)
        last = [trace.last_store_lateness() for trace in traces]
        lengths = [trace.length() for trace in traces]
        return [
            Line("fade of 20 steps, beyond 1,500 ms", "ms", daemon=statistics.median(lengths) - 20 * FADE_STEP),
            Line("a gain store, late by (p50)", "us", daemon=statistics.median(stores) * 1000),
            Line("a gain store, late by (worst)", "us", daemon=max(stores) * 1000),
            Line("the 20th store, off the 75 ms grid", "us", daemon=statistics.median(last) * 1000),
            Line("a gain-out turn, late by (p50)", "us", daemon=statistics.median(writes) * 1000),
            Line("a gain-out turn, late by (worst)", "us", daemon=max(writes) * 1000),
        ]


ROWS = {
    "bus": Comparison.bus,
    "get": Comparison.get,
    "get-32": Comparison.get_32,
    "set": Comparison.set,
    "set-32": Comparison.set_32,
    "system-calls": Comparison.system_calls,
    "cpu": Comparison.cpu,
    "pss": Comparison.pss,
    "pss-after": Comparison.pss_after,
    "start": Comparison.start,
    "outside": Comparison.outside,
    "idle": Comparison.idle,
    "hear": Comparison.hear,
    "clients": Comparison.clients,
    "fade": Comparison.fade,
}


def flat(lists):
    return [value for values in lists for value in values]


def ratios_of(line, rounds):
    """Fills in the medians, and the medians of the ratios within each round."""
    line.reference, line.memory, line.daemon = (statistics.median(column) for column in zip(*rounds))
    line.memory_to_reference = statistics.median(memory / reference for reference, memory, _daemon in rounds)
    line.daemon_to_reference = statistics.median(daemon / reference for reference, _memory, daemon in rounds)
    return line


# --- System calls

def system_calls_of(kind, what, calls):
    """{system call: how many of it one call makes}, without futex. The lives of two servers differ by `calls` calls."""
    few = calls // 4
    less, more = traced_life(kind, what, few), traced_life(kind, what, few + calls)
    counts = {name: round((count - less.get(name, 0)) / calls, 1) for name, count in more.items()}
    return {name: count for name, count in sorted(counts.items()) if count != 0 and name != "futex"}


def traced_life(kind, what, calls):
    """{system call: how many of it a server makes from its start to its end}, with so many calls of a client."""
    summary = BUILD / f"strace-{os.getpid()}"
    strace = ("strace", "--follow-forks", "--summary-only", "--summary-columns=calls,name", f"--output={summary}")
    try:
        with Server(kind, under=strace) as server:
            server.call(MEASURE, what, "--calls", calls, server.address)
            server.stop()
            table = summary.read_text()
    finally:
        summary.unlink(missing_ok=True)
    counts = {name: int(count) for count, name in re.findall(r"^ *(\d+) (\w+)$", table, re.M)}
    if counts.pop("total", 0) < calls:
        raise BenchError(f"strace gave no summary of {kind}")
    return counts


# --- Fades

FADE_STEP = 75.0  # milliseconds
OUT_PERIOD = 60.0  # milliseconds


class FadeTrace:
    """The lines of a log at level debug with the milliseconds at which they came, of one fade-in."""

    def __init__(self, lines):
        self._lines = lines
        self._start, self._end = self._time_of(r"Wake \S+\. gain:0"), self._time_of(r"LastGain:100")

    def _time_of(self, pattern):
        return next(moment for moment, line in self._lines if re.search(pattern, line))

    def _times_of(self, pattern):
        return [moment for moment, line in self._lines if self._start <= moment < self._end and re.search(pattern, line)]

    def length(self):
        return self._end - self._start

    def _stores(self):
        stores = self._times_of(r"\[IN\].*::SetSrcGain\(")
        if len(stores) != 20:
            raise BenchError(f"a fade of {len(stores)} steps")
        return stores

    def store_lateness(self):
        """How much longer than a step each store waited for the one before."""
        stores = self._stores()
        return [after - before - FADE_STEP for before, after in zip(stores, stores[1:])]

    def last_store_lateness(self):
        stores = self._stores()
        return stores[-1] - stores[0] - (len(stores) - 1) * FADE_STEP

    def write_lateness(self):
        turns = self._times_of(r"\] Path:1 player:")
        return [after - before - OUT_PERIOD for before, after in zip(turns, turns[1:])]


def trace_of_fade():
    lines = []
    done = threading.Event()

    def read(stream):
        for line in stream:
            lines.append((time.monotonic() * 1000, line))
            if "LastGain:" in line:
                done.set()

    receiving, sending = os.pipe()
    with open(receiving, encoding="utf-8", errors="replace") as stream, contextlib.ExitStack() as stack:
        stack.callback(os.close, sending)
        reader = threading.Thread(target=read, args=[stream], daemon=True)
        reader.start()
        with Server("daemon", log=sending, environment={"KAVREL_LOG": "debug"}) as server:
            server.call(MEASURE, "fade", server.address)
            if not done.wait(PATIENCE):
                raise BenchError("a fade did not end")
        stack.close()
        reader.join(PATIENCE)
    return FadeTrace(lines)


# --- What is printed

def number(value):
    if value is None:
        return ""
    return f"{value:,.0f}" if abs(value) >= 1000 or value == int(value) else f"{value:.1f}"


def relation(line, value):
    if value is None:
        return ""
    return f"{value:+.1f}" if line.goal.startswith("<= +") else f"{value:.2f}"


def print_line(line):
    name = line.name if line.against == "floor" else f"{line.name} (reference: {line.against})"
    print(f"{name:40} {line.unit:>8} {number(line.reference):>10} {number(line.memory):>10} {number(line.daemon):>10}"
          f" {relation(line, line.memory_to_reference):>9} {relation(line, line.daemon_to_reference):>9}"
          f"  {line.goal}".rstrip(), flush=True)


def print_head():
    print(f"{'':40} {'unit':>8} {'reference':>10} {'memory':>10} {'daemon':>10} {'memory/r.':>9} {'daemon/r.':>9}  goal")


def machine():
    model = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return {"cores": os.cpu_count(), "processor": model[1] if model else "", "kernel": os.uname().release,
            "load": os.getloadavg()[0]}


def arguments_of(words):
    parser = argparse.ArgumentParser(prog="./bench", description=__doc__)
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path, help="write the table to FILE, too")
    parser.add_argument("--quick", action="store_true", help="measure less, for less than a minute")
    parser.add_argument("rows", metavar="ROW", nargs="*", help=f"only these rows: {', '.join(ROWS)}")
    arguments = parser.parse_args(words)
    for row in arguments.rows:
        if row not in ROWS:
            parser.error(f"no row is called {row}; there are {', '.join(ROWS)}")
    return arguments


def main():
    arguments = arguments_of(sys.argv[1:])
    effort = QUICK if arguments.quick else FULL
    lines = []
    with contextlib.ExitStack() as stack:
        comparison = Comparison(effort, stack)
        print_head()
        for name in arguments.rows or ROWS:
            print(f"measuring {name}", file=sys.stderr)
            for line in ROWS[name](comparison):
                lines.append(line)
                print_line(line)
    if arguments.json:
        report = {"machine": machine(), "quick": arguments.quick, "lines": [dataclasses.asdict(line) for line in lines]}
        arguments.json.write_text(json.dumps(report, indent=2) + "\n")


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
    except (BenchError, OSError, subprocess.TimeoutExpired) as error:
        sys.exit(f"./bench: {error}")

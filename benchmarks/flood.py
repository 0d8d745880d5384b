# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Floods the daemon with getters that want no reply while another client's calls are timed, and prints a table."""
import argparse
import dataclasses
import itertools
import json
import os
import pathlib
import statistics
import subprocess
import sys
import threading
import time

from scene import BUILD, MEASURE, NAME, PATIENCE, PROGRAMS, BenchError, Server, end, with_parent

# The flooders run as this user where the benchmark is started by root: then the bus's limits hold for them alone.
HOSTILE = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")


@dataclasses.dataclass
class Result:
    rate: int  # messages a second that the flooders send; 0 for as many as the bus takes
    connections: int
    messages: int  # that the bus has taken from the flooders
    calls: int  # of the other client, in the time of the flood, answered
    refused: int  # of the same client
    p50: float  # milliseconds
    p99: float
    worst: float
    rss_before: int  # KiB
    rss_peak: int
    rss_after: int  # two seconds after the last call


class Sampler:
    """The peak of a server's resident memory while it is entered."""

    def __init__(self, server):
        self._server = server
        self.peak = server.rss()
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exception):
        self._stop.set()
        self._thread.join()

    def _run(self):
        while not self._stop.wait(0.02):
            self.peak = max(self.peak, self._server.rss())


def flood(kind, connections, seconds, rate):
    with Server(kind) as server:
        before = server.rss()
        with Sampler(server) as sampler:
            messages, times = flooded(server, connections, seconds, rate)
        time.sleep(2)
        answered = [moment for moment in times if moment >= 0]
        if not answered:
            raise BenchError("no call was answered")
        return Result(rate, connections, messages, len(answered), len(times) - len(answered), statistics.median(answered),
                      percentile(answered, 99), max(answered), before, sampler.peak, server.rss())


def flooded(server, connections, seconds, rate):
    """The number of messages of the flooders, and the milliseconds of each call made meanwhile."""
    user = HOSTILE if os.getuid() == 0 else ()
    flooder = subprocess.Popen(
        with_parent(*user, BUILD / "benchmarks/flooder", server.folder / "bus", connections, seconds, rate),
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        if flooder.stdout.readline() != "ready\n":
            raise BenchError("the flooder does not reach the bus")
        times = [float(word) for word in server.call(MEASURE, "get-for", "--seconds", seconds, server.address).split()]
        output, _ = flooder.communicate(timeout=PATIENCE)
    finally:
        end(flooder)
    if flooder.returncode != 0:
        raise BenchError("the flooder failed")
    return int(output), times


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]


def print_result(result):
    print(f"{result.rate or 'all':>8} {result.connections:11} {result.messages:10,} {result.calls:8,} {result.refused:8,} {result.p50:9.2f} {result.p99:9.2f}"
          f" {result.worst:9.2f} {result.rss_before:11,} {result.rss_peak:9,} {result.rss_after:10,}", flush=True)


def print_head():
    print(f"{'rate /s':>8} {'connections':>11} {'messages':>10} {'calls':>8} {'refused':>8} {'p50 ms':>9} {'p99 ms':>9} {'worst ms':>9}"
          f" {'RSS before':>11} {'peak KiB':>9} {'afterwards':>10}")


def arguments_of(words):
    parser = argparse.ArgumentParser(prog="./bench flood", description=__doc__)
    parser.add_argument("--json", metavar="FILE", type=pathlib.Path, help="write the table to FILE, too")
    parser.add_argument("--seconds", type=float, default=5, help="of each flood (default: 5, at most 30)")
    parser.add_argument("--rate", default="20000,0", help="messages a second of all connections together, "
                        "comma-separated; 0 for as many as the bus takes (default: 20000,0)")
    parser.add_argument("--connections", default="1,4,16,64,256", help="comma-separated (default: 1,4,16,64,256)")
    parser.add_argument("--server", choices=[kind for kind in PROGRAMS if kind != "bare"], default="daemon",
                        help=f"which owner of {NAME} (default: daemon)")
    arguments = parser.parse_args(words)
    arguments.connections = [int(word) for word in arguments.connections.split(",")]
    arguments.rate = [int(word) for word in arguments.rate.split(",")]
    if not 0 < arguments.seconds <= 30 or not all(0 < count <= 256 for count in arguments.connections):
        parser.error("a flood takes at most 30 seconds and 256 connections")
    return arguments


def main():
    arguments = arguments_of(sys.argv[1:])
    results = []
    print_head()
    for rate, connections in itertools.product(arguments.rate, arguments.connections):
        results.append(flood(arguments.server, connections, arguments.seconds, rate))
        print_result(results[-1])
    if arguments.json:
        arguments.json.write_text(json.dumps([dataclasses.asdict(result) for result in results], indent=2) + "\n")


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
    except (BenchError, OSError, subprocess.TimeoutExpired) as error:
        sys.exit(f"./bench flood: {error}")

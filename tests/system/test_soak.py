# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Eight clients call while all values change, and the daemon, the bus and the devices are killed and started again.

KAVREL_SOAK_SECONDS sets the length. Memory, descriptors and threads of the daemon are sampled; a table and a verdict
end the soak.
"""
import json
import os
import signal
import statistics
import subprocess
import time
from itertools import cycle
from pathlib import Path
from typing import NamedTuple

import pytest
from harness import PATIENCE, Bus
from kavrel_tv import make_tool
from test_storm import (CHANGES, CLIENTS, LOG_BYTES, agree_on_a_tv_speaker_in_single_view,
                        agree_on_an_external_output_in_multi_view, put_devices)

SECONDS = float(os.environ.get("KAVREL_SOAK_SECONDS", 10))
INTERVAL = max(1.0, min(10.0, SECONDS / 10))  # seconds between two interferences
SAMPLE = 0.1  # seconds
THREADS_MOST = 14  # six workers, the main loop, the platform, and those of GLib and a sanitizer
DESCRIPTORS_MOST = 64
GROWTH_MOST_KB = 4096  # of a life that is long enough
IS_INSTRUMENTED = os.environ.get("KAVREL_SANITIZER", "none") != "none"

FOLDER = Path(__file__).parent
tool = pytest.fixture(make_tool)


class Sample(NamedTuple):
    life: int
    kilobytes: int
    descriptors: int
    threads: int


def sample(life, daemon):
    """Returns a sample of a running daemon, else None."""
    try:
        status = Path(f"/proc/{daemon.pid}/status").read_text()
        fields = dict(line.split(":\t", 1) for line in status.splitlines())
        return Sample(life, int(fields["VmRSS"].split()[0]), len(os.listdir(f"/proc/{daemon.pid}/fd")),
                      int(fields["Threads"]))
    except (FileNotFoundError, ProcessLookupError, KeyError):
        return None


class Soak:
    def __init__(self, scene, tool):
        self.scene, self.tool = scene, tool
        self.address = f"unix:path={scene.folder}/bus"  # without the id of one bus
        self.daemon = scene.start()
        self.devices = tool.devices()
        self.samples, self.counts = [], dict.fromkeys(("kill daemon", "end daemon", "kill bus", "kill devices"), 0)
        self.programs = [self._start("storm.py", "change", scene.tv.path / value, SECONDS, *texts)
                         for value, texts in CHANGES.items()]
        self.clients = [self._start("soak.py", self.address, seed, SECONDS) for seed in range(CLIENTS)]

    def _start(self, program, *arguments):
        child = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", "/usr/bin/python3", FOLDER / program,
                                  *map(str, arguments)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                                 env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address})
        self.scene.callback(child.kill)
        return child

    def run(self):
        end = time.monotonic() + SECONDS
        for interfere in cycle([self.kill_daemon, self.kill_devices, self.kill_bus, self.end_daemon]):
            pause = time.monotonic() + INTERVAL
            while time.monotonic() < min(pause, end):
                self._sample()
                time.sleep(SAMPLE)
            if time.monotonic() >= end:
                break
            interfere()
        results = [json.loads(self._end(client)) for client in self.clients]
        for program in self.programs:
            self._end(program)
        return results

    def _end(self, program):
        output, _ = program.communicate(timeout=4 * PATIENCE)
        assert program.returncode == 0
        return output

    def _sample(self):
        assert self.daemon.is_alive(), "kavreld has ended by itself"
        taken = sample(len(self.scene.daemons), self.daemon)
        if taken is not None:
            self.samples.append(taken)
        # This loses no sanitizer report, because the daemon dies when it writes one.
        if self.daemon.log.path.stat().st_size > LOG_BYTES:
            os.truncate(self.daemon.log.path, 0)

    def kill_daemon(self):
        self.counts["kill daemon"] += 1
        self.daemon.kill()
        self.daemon = self.scene.start()

    def end_daemon(self):
        self.counts["end daemon"] += 1
        self.daemon.may_be_gone = True
        self.daemon.signal(signal.SIGTERM)
        self.daemon.wait()
        self.daemon = self.scene.start()

    def kill_bus(self):
        """The daemon ends with its bus, as its connection has been closed; its supervisor starts it again."""
        self.counts["kill bus"] += 1
        self.daemon.may_be_gone = True
        self.scene.bus.child.kill()
        self.scene.bus.wait()
        self.daemon.wait()
        self.scene.bus = Bus(self.scene.folder)
        self.scene.callback(self.scene.bus.end)
        self.daemon = self.scene.start()

    def kill_devices(self):
        self.counts["kill devices"] += 1
        self.devices.child.kill()
        self.devices.child.wait()
        self.devices = self.tool.devices()


def growth(samples):
    """Returns the growth of the longest life from its second quarter to its last one, in KiB; 0 if it was short."""
    lives = {}
    for taken in samples:
        lives.setdefault(taken.life, []).append(taken.kilobytes)
    longest = max(lives.values(), key=len)
    quarter = len(longest) // 4
    if quarter < 2:
        return 0
    return int(statistics.median(longest[-quarter:]) - statistics.median(longest[quarter:2 * quarter]))


def table(soak, results):
    def numbers(values):
        return f"{min(values):>9} {statistics.median(values):>9.0f} {max(values):>9}"

    rows = ["", f"soak of {SECONDS:g} s: {len(soak.samples)} samples of {len(soak.scene.daemons)} daemons",
            f"  {'':12} {'least':>9} {'median':>9} {'most':>9}"]
    for name, field in (("memory, KiB", "kilobytes"), ("descriptors", "descriptors"), ("threads", "threads")):
        rows.append(f"  {name:12} {numbers([getattr(taken, field) for taken in soak.samples])}")
    for name, field in (("answers", "answers"), ("unanswered", "unanswered"), ("connections", "connections")):
        rows.append(f"  {name:12} {numbers([result[field] for result in results])}  of each client")
    rows.append("  " + ", ".join(f"{what} {count} times" for what, count in soak.counts.items()))
    rows.append(f"  the longest life grew by {growth(soak.samples)} KiB")
    return "\n".join(rows)


def verdict(soak, results):
    """Returns what is wrong."""
    wrong = [complaint for result in results for complaint in result["wrong"]]
    if not all(result["answers"] for result in results):
        wrong.append("a client got no answer")
    if max(taken.threads for taken in soak.samples) > THREADS_MOST:
        wrong.append(f"more than {THREADS_MOST} threads")
    if max(taken.descriptors for taken in soak.samples) > DESCRIPTORS_MOST:
        wrong.append(f"more than {DESCRIPTORS_MOST} descriptors")
    if growth(soak.samples) > GROWTH_MOST_KB and not IS_INSTRUMENTED:
        wrong.append(f"a life grew by more than {GROWTH_MOST_KB} KiB")
    return wrong


def test_the_daemon_serves_through_ends_of_itself_the_bus_and_the_devices(scene, tv, tool, capsys):
    scene.start().kill()
    put_devices(tv)
    for value, texts in CHANGES.items():
        tv.echo(texts[0], value)
    soak = Soak(scene, tool)
    results = soak.run()
    wrong = verdict(soak, results)
    with capsys.disabled():
        print(table(soak, results), f"  verdict: {'; '.join(sorted(set(wrong))) or 'nothing is wrong'}", sep="\n")
    assert wrong == []

    soak.devices.child.kill()  # it would answer requests, and the checks below play the devices themselves
    soak.devices.child.wait()
    put_devices(tv)
    soak.daemon.settle()
    os.truncate(soak.daemon.log.path, 0)
    client = scene.client()
    agree_on_a_tv_speaker_in_single_view(tv, soak.daemon.log, client)
    agree_on_an_external_output_in_multi_view(tv, soak.daemon.log, client)

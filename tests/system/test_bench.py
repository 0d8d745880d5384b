# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The comparison of ./bench: it fills its table, and computes what the table says. No test asserts a speed."""
import dataclasses
import json
import subprocess
import sys

import pytest

from interface import ROOT

sys.path.insert(0, str(ROOT / "benchmarks"))

import compare  # noqa: E402  # found on the path above

COMPARED = [
    "get, p50", "get, 32 in flight", "set with its signal, p50", "set, 32 in flight", "system calls of one get",
    "system calls of one set", "CPU time of one get", "CPU time of one set", "PSS", "PSS after 2,000 calls",
    "start until it has its name", "the same on an empty TV directory", "wake-ups in 0.5 idle seconds",
    "set until a second client hears", "get, clients: 1", "get, clients: 16",
    "set until all hear, listeners: 1", "set until all hear, listeners: 16",
]
DAEMON_ALONE = [
    "outside change until its signal, p50", "fade of 20 steps, beyond 1,500 ms", "a gain store, late by (p50)",
    "a gain store, late by (worst)", "the 20th store, off the 75 ms grid", "a gain-out turn, late by (p50)",
    "a gain-out turn, late by (worst)",
]


def run_compare(*arguments):
    return subprocess.run([sys.executable, "-B", ROOT / "benchmarks/compare.py", *map(str, arguments)],
                          capture_output=True, text=True, stdin=subprocess.DEVNULL, timeout=240, check=False)


class Trial(compare.Comparison):
    """Makes each measurement once, from few calls: their numbers mean nothing."""

    def measure(self, what, *options, rounds, servers):
        few = [5 if before == "--calls" else option for before, option in zip(("", *options), options)]
        return super().measure(what, *few, rounds=1, servers=servers)


def test_the_comparison_fills_every_line(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(compare, "Comparison", Trial)
    monkeypatch.setattr(compare, "QUICK", dataclasses.replace(compare.QUICK, rounds=1, idle=0.5, traced_calls=50, rest=0))
    monkeypatch.setattr(sys, "argv", ["bench", "--quick", "--json", str(tmp_path / "report")])
    compare.main()
    report = json.loads((tmp_path / "report").read_text())
    lines = {line["name"]: line for line in report["lines"]}
    assert sorted(lines) == sorted(["call of the bus itself, p50", *COMPARED, *DAEMON_ALONE])
    for name in COMPARED:
        assert all(lines[name][server] is not None for server in ("reference", "memory", "daemon")), name
    assert all(lines[name]["daemon"] is not None for name in DAEMON_ALONE)
    printed = capsys.readouterr().out.splitlines()[1:]
    assert [line.split("  ")[0].removesuffix(" (reference: bare program)") for line in printed] == [
        line["name"] for line in report["lines"]]
    # A bare getter opens no file, the daemon's opens one. The sums of so few calls differ by how often the threads wait.
    opened = {server: calls.get("openat2", 0) for server, calls in lines["system calls of one get"]["details"].items()}
    assert opened["floor"] < 0.5 < opened["daemon"]


def test_only_the_chosen_rows_are_measured():
    done = run_compare("--quick", "bus", "get")
    assert done.returncode == 0, done.stderr
    assert [line.split("  ")[0] for line in done.stdout.splitlines()[1:]] == ["call of the bus itself, p50", "get, p50"]


def test_an_unknown_row_is_refused():
    done = run_compare("speed")
    assert done.returncode == 2
    assert done.stderr.splitlines()[-1].startswith("./bench: error: no row is called speed; there are bus, get, ")


def test_a_ratio_is_the_median_of_the_ratios_within_the_rounds():
    line = compare.ratios_of(compare.Line("a line", "us"), [[1, 2, 3], [10, 10, 20], [100, 50, 400]])
    assert (line.reference, line.memory, line.daemon) == (10, 10, 20)
    assert (line.memory_to_reference, line.daemon_to_reference) == (1, 3)


@pytest.fixture
def fade():
    """A fade whose steps take 76 ms and whose gain-out turns take 62 ms."""
    stores = [(100 + 76 * step, "D KVDebug.h: CALLTRACKER(53) > [CALLTRACKER:53] \t[IN]void "
               "NKavrel::KVAudioGainHandler::SetSrcGain(NKavrel::eKVGainHandlerType, int)") for step in range(20)]
    turns = [(101 + 62 * turn, "I KVAudioGainHandler.cpp: GetAudioGain(1) > [GetAudioGain:1] Path:1 player:  5")
             for turn in range(20)]
    return compare.FadeTrace(sorted([(99, "I x: f(1) > [f:1] Wake PlayerMainOutH. gain:0"), *stores, *turns,
                                     (1620, "I x: f(1) > [f:1] handlerGainType:2, LastGain:100")]))


def test_the_lateness_of_a_fade(fade):
    assert fade.length() == 1521
    assert fade.store_lateness() == [1] * 19
    assert fade.last_store_lateness() == 19
    assert fade.write_lateness() == [2] * 19


def test_a_fade_of_too_few_steps_is_refused(fade):
    short = compare.FadeTrace([line for line in fade._lines if line[0] != 100])
    with pytest.raises(compare.BenchError, match="a fade of 19 steps"):
        short.store_lateness()

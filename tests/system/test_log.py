# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the log: the form and the place of each line, priorities, and the call trace."""
import re

import pytest

from harness import ROOT, LogLine, change_route

SOURCES = [ROOT / "src", ROOT / "include_internal"]
HELPERS = set(re.findall(r"(\w+)\([^;{]*?const CallSite& site = \{\}\)",
                         "".join(path.read_text() for folder in SOURCES for path in sorted(folder.iterdir()))))
LOGS = r"\bLOG[DIWE]\(|\b(?:" + "|".join(sorted(HELPERS)) + r")\("


def source_line(line):
    path = next(folder / line.file for folder in SOURCES if (folder / line.file).exists())
    return path.read_text().splitlines()[line.line - 1]


def exercise(client, log, tv):
    """Makes kavreld log a bit of everything, and waits until it has."""
    client.set_volume(30)
    client.set_volume(101)
    client.set_mute(True)
    client.get_mute()
    change_route(tv, log, 12)
    client.emit("Nonsense")
    client.get_support()
    log.settle()


def test_every_line_has_the_one_form_and_names_a_line_of_its_source_that_logs(scene, client, tv):
    daemon = scene.start(KAVREL_LOG="debug")
    exercise(client, daemon.log, tv)
    lines = daemon.log.lines()
    assert len(lines) > 100
    assert len(lines) == len(daemon.log.raw_lines())  # every line has the form
    for line in lines:
        assert line.line > 0
        assert re.search(LOGS, source_line(line)), line


# The lines of a start, in order: how the text begins in the source, what it ends with, and where it comes from.
START = [
    ("Started", "", "main.cpp", "main"),
    ("g_bus_own_name return ", "1", "KVServer.cpp", "Init"),
    ("Create TV Speaker", "", "ISpeaker.cpp", "CreateSpeaker"),
    ("Add ", "9 events", "KVDbusEventHandler.cpp", "_AddMedthodCallEvents"),
    ("Add ", "4 signal events", "KVDbusEventHandler.cpp", "_AddSignalEvents"),
    ("m_DbusRegisterObjId:", "1", "KVServer.cpp", "onBusAcquired"),
]


def test_the_lines_of_a_start_come_in_order_and_name_their_file_function_and_line(log):
    lines = [line for line in log.lines() if line.text in {begin + end for begin, end, _file, _function in START}]
    assert [(line.priority, line.text, line.file, line.function) for line in lines] == [
        ("I", begin + end, file, function) for begin, end, file, function in START]
    for line, (begin, *_) in zip(lines, START):
        assert f'LOGI("{begin}' in source_line(line)


def test_a_line_reads_to_the_letter(log):
    number = log.lines()[0].line
    assert log.raw_lines()[0] == f"I main.cpp: main({number}) > [main:{number}] Started"


def test_trace_lines_stand_where_the_tracer_does(scene, client, tv):
    daemon = scene.start(KAVREL_LOG="debug")
    exercise(client, daemon.log, tv)
    traced = [line for line in daemon.log.lines() if line.text.startswith(("\t[IN]", "\t[OUT]"))]
    assert {(line.priority, line.file, line.function, line.line, line.text.split("]")[0]) for line in traced} == {
        ("D", "KVDebug.h", "CALLTRACKER", 53, "\t[IN"),
        ("D", "KVDebug.h", "~CALLTRACKER", 58, "\t[OUT"),
    }


def test_a_trace_line_reads_to_the_letter(scene):
    daemon = scene.start(KAVREL_LOG="debug")
    raw = daemon.log.raw_lines()
    assert "D KVDebug.h: CALLTRACKER(53) > [CALLTRACKER:53] \t[IN]bool NKavrel::KVServer::Init()" in raw
    assert "D KVDebug.h: ~CALLTRACKER(58) > [~CALLTRACKER:58] \t[OUT]bool NKavrel::KVServer::Init()" in raw


def trace_of(daemon, after):
    return [line.text.strip() for line in daemon.log.lines(after)
            if line.text.startswith(("\t[IN]", "\t[OUT]")) and "KVDbusSender" not in line.text]


def start_traced(scene):
    """Starts a kavreld that logs its traces, and waits until its gain workers have no more to trace."""
    daemon = scene.start(KAVREL_LOG="debug")
    daemon.rest()
    return daemon


def test_nested_calls_are_traced_as_nested_pairs(scene, client):
    daemon = start_traced(scene)
    client.get_volume()
    daemon.log.wait_for_caller(client.name, client.program())
    before = daemon.log.end()
    client.get_volume()
    daemon.log.wait_matching(r"\t\[OUT\].*methodCallHandler\(.*", before)
    open_calls = []
    trace = trace_of(daemon, before)
    for entry in trace:
        direction, function = entry.split("]", 1)
        if direction == "[IN":
            open_calls.append(function)
        else:
            assert open_calls.pop() == function
    assert open_calls == []
    names = [re.search(r"(\w+)\(", entry).group(1) for entry in trace if entry.startswith("[IN]")]
    assert names == ["methodCallHandler", "getCurrentSpeaker", "OnMethodCall", "_OnGetSpeakerVolume", "GetTVVolume",
                     "_GetCurrentSpeaker", "GetVolume"]


def test_an_early_return_is_traced_to_its_end(scene, client):
    daemon = start_traced(scene)
    client.set_volume(101)
    trace = trace_of(daemon, after=-1)
    entered = trace.index("[IN]int NKavrel::VolumeControlImpl::SetTVVolume(int)")
    assert trace[entered + 1] == "[OUT]int NKavrel::VolumeControlImpl::SetTVVolume(int)"


def test_the_utilities_are_not_traced(scene, client, tv):
    daemon = scene.start(KAVREL_LOG="debug")
    exercise(client, daemon.log, tv)
    assert not any("KVUtils" in line.text or "main(" in line.text for line in daemon.log.lines()
                   if line.file == "KVDebug.h")


@pytest.mark.parametrize("level, priorities", [
    ("debug", {"D", "I", "W", "E"}),
    ("info", {"I", "W", "E"}),
    ("warn", {"W", "E"}),
    ("error", {"E"}),
    (None, {"I", "W", "E"}),
])
def test_the_lowest_priority_written_is_the_one_asked_for(scene, client, tv, level, priorities):
    daemon = scene.start(**({"KAVREL_LOG": level} if level else {}))
    client.get_support()
    client.set_mute(False)  # already unmuted: kavreld warns
    client.set_volume(101)  # kavreld logs an error
    assert {line.priority for line in daemon.log.lines()} == priorities


def test_warnings_are_few(scene, client, tv):
    daemon = scene.start()
    exercise(client, daemon.log, tv)
    assert [line for line in daemon.log.lines() if line.priority == "W"] == []


def test_the_log_line_pattern_refuses_what_is_no_line():
    assert LogLine.parse(0, "main.cpp: main(9) > [main:9] Started") is None
    with pytest.raises(AssertionError):
        LogLine.parse(0, "I main.cpp: main(9) > [main:10] Started")

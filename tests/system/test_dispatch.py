# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests which calls and signals of the bus reach the daemon's handlers, and how it logs them."""
import pytest

from harness import NAME, SIGNALS_PATH

OTHER_PATH = "/Org/Olvane/Other"


def arrivals(log, after=-1):
    return [line.text for line in log.lines(after) if line.text.startswith("Start sender:")]


def test_every_call_is_logged_with_its_sender(client, log):
    before = log.end()
    client.get_volume()
    client.set_volume(30)
    assert arrivals(log, before) == [f"Start sender:{client.name} method_name:GetSpeakerVolume",
                                     f"Start sender:{client.name} method_name:SetSpeakerVolume"]
    assert {(line.priority, line.file, line.function) for line in log.lines(before)
            if line.text in arrivals(log, before)} == {("I", "KVServer.cpp", "methodCallHandler")}


def test_a_signal_reaches_its_handler(client, log):
    before = log.end()
    client.emit("BudsConnected", "i", 7)
    handled = log.wait("Buds Connected. reason:7", before)
    assert (handled.priority, handled.file, handled.function) == ("I", "KVDbusEventHandler.cpp", "_OnBudsConnected")
    assert arrivals(log, before) == [f"Start sender:{client.name} signal_name:BudsConnected"]


@pytest.mark.parametrize("member", ["Nonsense", "budsconnected", "SpeakerChangeRequest", "SpeakerVolumeChanged"])
def test_other_signals_are_logged_and_change_nothing(client, log, tv, member):
    before = log.end()
    client.emit(member, "ii", 12, 1)
    refused = log.wait(f"Not matched signal:{member}", before)
    assert (refused.priority, refused.function) == ("E", "OnSignal")
    assert tv.read("sound/route") == "0"


def test_the_sender_of_an_unmatched_signal_is_recorded_all_the_same(client, log):
    client.emit("Nonsense")
    log.wait("Not matched signal:Nonsense")
    log.wait(f"Called by [{client.name}/{client.program()}] size:1")


@pytest.mark.parametrize("path, interface", [
    (OTHER_PATH, NAME),
    ("/Org/Olvane/KavrelInternal", NAME),
    (SIGNALS_PATH, f"{NAME}.Other"),
    (SIGNALS_PATH, "org.olvane"),
])
def test_signals_from_elsewhere_are_never_seen(client, log, path, interface):
    before = log.end()
    client.emit("BudsConnected", "i", 1, path=path, interface=interface)
    client.emit("BudsConnected", "i", 2)
    log.wait("Buds Connected. reason:2", before)
    assert len(arrivals(log, before)) == 1
    assert log.find("Buds Connected. reason:1") is None


@pytest.mark.parametrize("member, expected, given, arguments", [
    ("BudsConnected", "(i)", "()", ("",)),
    ("BudsConnected", "(i)", "(s)", ("s", "one")),
    ("BudsDisconnected", "(i)", "(u)", ("u", 1)),
    ("BudsDisconnected", "(i)", "(ii)", ("ii", 1, 2)),
    ("SpkDisconnected", "(is)", "(i)", ("i", 3)),
    ("SpkDisconnected", "(is)", "(si)", ("si", "bar", 3)),
    ("SpkDisconnected", "(is)", "(ii)", ("ii", 3, 3)),
    ("ApplyPulseAudioGain", "(ii)", "()", ("",)),
    ("ApplyPulseAudioGain", "(ii)", "(ib)", ("ib", 0, True)),
    ("ApplyPulseAudioGain", "(ii)", "(iii)", ("iii", 0, 0, 0)),
])
def test_signals_of_another_type_are_dropped(client, log, tv, member, expected, given, arguments):
    # Other values than zero, which a handler would set if it took missing arguments for zeros.
    tv.echo(12, "sound/route")
    settled = log.wait("Speaker changed[0->12]. mode:0xffff, gainMax(ret:0)")
    client.emit(member, *arguments)
    dropped = log.wait(f"Invalid parameters of signal {member}: expected {expected}, got {given}", settled.number)
    assert dropped.priority == "E"
    client.emit("BudsConnected", "i", 99)  # arrives after the dropped signal
    log.wait("Buds Connected. reason:99", dropped.number)
    assert tv.read("sound/route") == "12"
    assert not any(text.startswith(("Apply PulseAudioGain", "Speaker(type", "Buds disconnected", "Signal '"))
                   for text in log.texts(settled.number))


def test_buds_connected_changes_nothing(client, log, tv):
    before = {file: file.read_text() for file in tv.path.rglob("*") if file.is_file()}
    client.emit("BudsConnected", "i", 1)
    log.wait("Buds Connected. reason:1")
    client.expect_silence()
    assert {file: file.read_text() for file in tv.path.rglob("*") if file.is_file()} == before


def test_signals_and_calls_of_one_client_are_handled_in_their_order(client, log):
    before = log.end()
    for number in range(20):
        client.emit("BudsConnected", "i", number)
        client.get_support()
    assert arrivals(log, before) == 20 * [f"Start sender:{client.name} signal_name:BudsConnected",
                                          f"Start sender:{client.name} method_name:GetSpeakerSupportType"]

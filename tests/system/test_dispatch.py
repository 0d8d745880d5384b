# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests which calls and signals of the bus reach the daemon's handlers, and how it logs them."""


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


def test_the_sender_of_an_unmatched_signal_is_recorded_all_the_same(client, log):
    client.emit("Nonsense")
    log.wait("Not matched signal:Nonsense")
    log.wait(f"Called by [{client.name}/{client.program()}] size:1")


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

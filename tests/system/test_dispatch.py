# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests which calls and signals of the bus reach the daemon's handlers."""


def test_the_sender_of_an_unmatched_signal_is_recorded_all_the_same(client, log):
    client.emit("Nonsense")
    log.wait_for_caller(client.name, client.program())


def test_buds_connected_changes_nothing(client, log, tv):
    before = {file: file.read_text() for file in tv.path.rglob("*") if file.is_file()}
    client.emit("BudsConnected", "i", 1)
    log.wait_for_request("BudsConnected")
    client.expect_silence()
    assert {file: file.read_text() for file in tv.path.rglob("*") if file.is_file()} == before


def test_signals_and_calls_of_one_client_are_handled_in_their_order(client, log):
    before = log.end()
    for number in range(20):
        client.emit("BudsConnected", "i", number)
        client.get_support()
    assert log.requests(before) == 20 * [(client.name, "BudsConnected"), (client.name, "GetSpeakerSupportType")]

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the signals about earbuds and speakers that connect or disconnect: who switches to which output."""
import re

import pytest

from harness import SIGNALS_PATH, TV_SUPPORT, change_route

INTERNAL_SPEAKER = "features/com.norvik/featureconf/internal_speaker_supported"
SPDIF = "settings/memory/sysman/spdif"
ROUTE, MUTE = "sound/route", "audio/master_mute"

BLOCKED = [5, 6, 13, 14, 15, 19]  # routes to which the daemon never returns
OTHERS = [1, 2, 3, 4, 7, 8, 9, 10, 11, 12, 16, 17, 18, 20, 255, -1, 2**31 - 1, -2**31]
HDMI, BLUETOOTH, OTHER_TV_SPEAKER = 2, 3, 12


@pytest.fixture
def daemon(scene, tv):
    """A kavreld on a TV whose devices all publish a support word, without which it announces no change of output."""
    scene.start().kill()
    for output in ("hdmi", "optical", "mlr", "bt", "auracast"):
        tv.echo(15, f"settings/memory/menu/network/screenmirroring/volume_support_{output}")
    tv.echo(15, "settings/db/usbsound/volume_capability")
    return scene.start()


def follow(tv, log, *routes):
    """Changes the route from 0 to each of the routes in turn."""
    for previous, route in zip((0, *routes), routes):
        change_route(tv, log, route, previous)


def connection_lines(log, after):
    """Returns the lines of the signals' handlers and of the functions with which they act."""
    wanted = ["_OnBudsConnected", "_OnBudsDisconnected", "_OnSpeakerDisconnected", "DbusEmitSignal", "SetOutputRoute"]
    return [(line.priority, line.function, line.text) for line in log.lines(after) if line.function in wanted]


def requests(client):
    return [item for item in client.signals() if item[0] == "SpeakerChangeRequest"]


# --- earbuds ---------------------------------------------------------------------------------------------------------


def test_buds_that_connect_are_only_logged(log, tv, client):
    follow(tv, log, HDMI)
    for reason in (0, 3, -1, 2**31 - 1, -2**31):
        before = log.end()
        client.emit("BudsConnected", "i", reason)
        log.wait(f"Buds Connected. reason:{reason}", before)
        assert connection_lines(log, before) == [("I", "_OnBudsConnected", f"Buds Connected. reason:{reason}")]
    assert tv.read(ROUTE) == "2"
    client.expect_silence()


def test_buds_that_go_while_the_tv_speaker_was_before_are_replaced_by_it_muted(log, tv, client):
    follow(tv, log, BLUETOOTH)
    before = log.end()
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 0, 1)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    log.wait("Speaker changed[3->0]. mode:0xffff, gainMax(ret:0)", before)
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("0", "1")
    assert connection_lines(log, before) == [
        ("I", "DbusEmitSignal", "Signal 'SpeakerChangeRequest'"),
        ("I", "_OnBudsDisconnected", "Buds disconnected. Connect to previous(type:0)"),
    ]
    assert client.heard_from[0] == (SIGNALS_PATH, "org.olvane.kavrel", "ii")


def test_only_the_next_change_of_output_mutes(log, tv, client):
    follow(tv, log, BLUETOOTH)
    client.emit("BudsDisconnected", "i", 1)
    log.wait("Speaker changed[3->0]. mode:0xffff, gainMax(ret:0)")
    assert client.set_mute(False) == 0
    change_route(tv, log, OTHER_TV_SPEAKER, previous=0)
    assert tv.read(MUTE) == "0"


def test_buds_that_go_while_the_tv_speaker_plays_mute_the_next_output(log, tv, client):
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 0, 1)
    log.wait("Buds disconnected. Connect to previous(type:0)")
    assert tv.read(MUTE) == "0"
    change_route(tv, log, OTHER_TV_SPEAKER, previous=0)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    assert tv.read(MUTE) == "1"


@pytest.mark.parametrize("previous", OTHERS)
def test_buds_that_go_while_another_output_was_before_only_request_it(log, tv, client, previous):
    tv.echo(previous, ROUTE)
    log.wait(f"Type(0->{previous})")
    change_route(tv, log, OTHER_TV_SPEAKER if previous != OTHER_TV_SPEAKER else 0, previous)
    before = log.end()
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", previous, 1)
    log.wait(f"Buds disconnected. Connect to previous(type:{previous})", before)
    client.get_support()  # waits until the signal was handled
    assert tv.read(ROUTE) == ("12" if previous != OTHER_TV_SPEAKER else "0")
    assert not any(text.startswith(("Previous(type", "Speaker changed")) for text in log.texts(before))
    tv.echo(14, ROUTE)
    log.wait(re.compile(r"Speaker changed\[\d+->14\].*"), before)
    assert tv.read(MUTE) == "0"


@pytest.mark.parametrize("previous", BLOCKED)
def test_buds_that_go_never_bring_a_blocked_output_back(log, tv, client, previous):
    follow(tv, log, previous, BLUETOOTH)
    before = log.end()
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 0, 1)
    log.wait("Speaker changed[3->0]. mode:0xffff, gainMax(ret:0)", before)
    line = log.find(f"Previous(type:{previous}). Set to Default Output(0)", before)
    assert (line.priority, line.function) == ("I", "_OnBudsDisconnected")
    assert log.find("Buds disconnected. Connect to previous(type:0)", before)
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("0", "1")


def test_without_an_internal_speaker_the_optical_output_is_the_default_and_only_requested(scene, daemon, tv, client):
    daemon.kill()
    tv.echo("false", INTERNAL_SPEAKER)
    log = scene.start().log
    follow(tv, log, 15, BLUETOOTH)
    before = log.end()
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 1, 1)
    log.wait("Buds disconnected. Connect to previous(type:1)", before)
    assert log.find("Previous(type:15). Set to Default Output(1)", before)
    client.get_support()  # waits until the signal was handled
    assert tv.read(ROUTE) == "3"


def test_the_request_comes_back_to_the_daemon_and_means_nothing_to_it(log, tv, client):
    follow(tv, log, HDMI, BLUETOOTH)
    before = log.end()
    client.emit("BudsDisconnected", "i", 1)
    log.wait("Not matched signal:SpeakerChangeRequest", before)
    assert tv.read(ROUTE) == "3"
    assert requests(client) == [("SpeakerChangeRequest", 2, 1)]


def test_the_reason_changes_nothing(log, tv, client):
    follow(tv, log, HDMI, BLUETOOTH)
    for reason in (0, -1, 2**31 - 1, -2**31):
        client.emit("BudsDisconnected", "i", reason)
        client.expect("SpeakerChangeRequest", HDMI, 1)


# --- other outputs ---------------------------------------------------------------------------------------------------


def test_a_speaker_that_goes_is_replaced_by_the_previous_output_without_a_request_or_a_mute(log, tv, client):
    follow(tv, log, HDMI, BLUETOOTH)
    before = log.end()
    client.emit("SpkDisconnected", "is", BLUETOOTH, "Soundbar")
    log.wait("Speaker changed[3->2]. mode:0x000f, gainMax(ret:0)", before)
    log.wait("Set Speaker Output(2)", before)
    assert connection_lines(log, before) == [
        ("I", "_OnSpeakerDisconnected", "Speaker(type:3):Soundbar disconnected. Connect to previous(type:2)"),
        ("I", "SetOutputRoute", "Set Speaker Output(2)"),
    ]
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("2", "0")
    client.expect_silence()


@pytest.mark.parametrize("gone", [0, HDMI, 15, 99, -1, 2**31 - 1, -2**31])
def test_a_speaker_that_goes_and_was_not_in_use_moves_the_output_all_the_same(log, tv, client, gone):
    follow(tv, log, HDMI, OTHER_TV_SPEAKER)
    client.emit("SpkDisconnected", "is", gone, "box")
    log.wait(f"Speaker(type:{gone}):box disconnected. Connect to previous(type:2)")
    log.wait("Speaker changed[12->2]. mode:0x000f, gainMax(ret:0)")
    assert tv.read(ROUTE) == "2"


@pytest.mark.parametrize("previous", BLOCKED)
def test_a_speaker_that_goes_never_brings_a_blocked_output_back(log, tv, client, previous):
    follow(tv, log, previous, BLUETOOTH)
    before = log.end()
    client.emit("SpkDisconnected", "is", BLUETOOTH, "box")
    log.wait("Set Speaker Output(0)", before)
    line = log.find(f"Previous(type:{previous}). Set to Default Output(0)", before)
    assert (line.priority, line.function) == ("I", "_OnSpeakerDisconnected")
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("0", "0")


@pytest.mark.parametrize("previous", OTHERS)
def test_a_speaker_that_goes_brings_any_other_output_back(log, tv, client, previous):
    tv.echo(previous, ROUTE)
    log.wait(f"Type(0->{previous})")
    change_route(tv, log, 14, previous)
    client.emit("SpkDisconnected", "is", 14, "box")
    log.wait(f"Set Speaker Output({previous})")
    assert tv.read(ROUTE) == str(previous)


@pytest.mark.parametrize("name", ["", "%s%n%d", "a b\tc", "\N{SNOWMAN}", "x" * 3000])
def test_any_name_is_only_logged(log, tv, client, name):
    follow(tv, log, HDMI, BLUETOOTH)
    client.emit("SpkDisconnected", "is", BLUETOOTH, name)
    log.wait(f"Speaker(type:3):{name} disconnected. Connect to previous(type:2)")
    log.wait("Set Speaker Output(2)")
    assert tv.read(ROUTE) == "2"


def test_a_speaker_that_goes_leaves_a_pending_mute_pending(log, tv, client):
    client.emit("BudsDisconnected", "i", 1)  # the output does not change, so the mute is postponed until one does
    log.wait("Buds disconnected. Connect to previous(type:0)")
    client.emit("SpkDisconnected", "is", HDMI, "bar")  # does not change the output either
    log.wait("Set Speaker Output(0)")
    assert tv.read(MUTE) == "0"
    change_route(tv, log, OTHER_TV_SPEAKER, previous=0)
    assert tv.read(MUTE) == "1"


def test_the_output_goes_back_and_forth_as_speakers_go(log, tv, client):
    follow(tv, log, HDMI, 4)
    for gone, back in [(4, 2), (2, 4), (4, 2)]:
        before = log.end()
        client.emit("SpkDisconnected", "is", gone, "box")
        log.wait(re.compile(rf"Speaker changed\[{gone}->{back}\].*"), before)
        log.wait(f"Set Speaker Output({back})", before)


# --- together with the optical cable ---------------------------------------------------------------------------------


@pytest.mark.parametrize("optical", [1, 9, 11])
def test_after_its_cable_was_pulled_the_optical_output_is_not_gone_back_to(daemon, log, tv, client, optical):
    tv.echo(1, SPDIF)
    daemon.settle()
    follow(tv, log, optical, BLUETOOTH)
    tv.echo(0, SPDIF)
    log.wait(f"Prev:{optical}->0")
    client.emit("SpkDisconnected", "is", BLUETOOTH, "box")
    log.wait("Speaker changed[3->0]. mode:0xffff, gainMax(ret:0)")
    assert tv.read(ROUTE) == "0"


def test_while_its_cable_is_in_the_optical_output_is_gone_back_to(daemon, log, tv, client):
    tv.echo(1, SPDIF)
    daemon.settle()
    follow(tv, log, 1, BLUETOOTH)
    client.emit("SpkDisconnected", "is", BLUETOOTH, "box")
    log.wait("Speaker changed[3->1]. mode:0x000f, gainMax(ret:0)")
    assert tv.read(ROUTE) == "1"


def test_the_output_that_a_pulled_cable_left_is_the_previous_one(daemon, log, tv, client):
    tv.echo(1, SPDIF)
    daemon.settle()
    follow(tv, log, 1)
    tv.echo(0, SPDIF)
    log.wait("Speaker changed[1->0]. mode:0xffff, gainMax(ret:0)")
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 1, 1)

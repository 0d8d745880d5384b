# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the signals about earbuds and speakers that disconnect: what happens to the TV, and what other clients hear."""
import pytest

from harness import SIGNALS_PATH, TV_SUPPORT, change_route

INTERNAL_SPEAKER = "features/com.norvik/featureconf/internal_speaker_supported"
SPDIF = "settings/memory/sysman/spdif"
ROUTE, MUTE = "sound/route", "audio/master_mute"

OPTICAL, HDMI, BLUETOOTH, OTHER_TV_SPEAKER, USB = 1, 2, 3, 12, 15


@pytest.fixture
def daemon(scene, tv):
    """A kavreld on a TV whose devices all publish a support word, without which it handles no change of output."""
    scene.start().kill()
    for output in ("hdmi", "optical", "bt"):
        tv.echo(15, f"settings/memory/menu/network/screenmirroring/volume_support_{output}")
    tv.echo(15, "settings/db/usbsound/volume_capability")
    return scene.start()


def follow(tv, log, *routes):
    for route in routes:
        change_route(tv, log, route)


def speaker_gone(client, route):
    client.emit("SpkDisconnected", "is", route, "Soundbar")
    client.get_support()  # its reply comes after the signal was handled


def test_buds_that_go_while_the_tv_speaker_was_before_are_replaced_by_it_muted(log, tv, client):
    follow(tv, log, BLUETOOTH)
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", 0, 1)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    client.get_support()
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("0", "1")
    assert client.heard_from[0] == (SIGNALS_PATH, "org.olvane.kavrel", "ii")

    assert client.set_mute(False) == 0
    follow(tv, log, OTHER_TV_SPEAKER)  # only the next change of output mutes
    assert tv.read(MUTE) == "0"


def test_a_mute_waits_for_the_next_change_of_output(log, tv, client):
    client.emit("BudsDisconnected", "i", 1)  # the TV speaker plays already
    client.expect("SpeakerChangeRequest", 0, 1)
    speaker_gone(client, HDMI)  # does not change the output either
    assert tv.read(MUTE) == "0"
    follow(tv, log, OTHER_TV_SPEAKER)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    assert tv.read(MUTE) == "1"


def test_buds_that_go_while_another_output_was_before_only_request_it(log, tv, client):
    follow(tv, log, HDMI, BLUETOOTH)
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", HDMI, 1)
    client.expect_silence()
    follow(tv, log, OTHER_TV_SPEAKER)
    assert tv.read(MUTE) == "0"


@pytest.mark.parametrize("internal_speaker, default", [("true", 0), ("false", OPTICAL)])
def test_buds_that_go_never_bring_a_blocked_output_back(scene, daemon, tv, client, internal_speaker, default):
    daemon.kill()
    tv.echo(internal_speaker, INTERNAL_SPEAKER)
    follow(tv, scene.start().log, USB, BLUETOOTH)
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", default, 1)
    client.get_support()
    # Only the TV speaker is switched to at once.
    assert (tv.read(ROUTE), tv.read(MUTE)) == (("0", "1") if default == 0 else ("3", "0"))


def test_the_output_goes_back_and_forth_as_speakers_go_without_a_request_or_a_mute(log, tv, client):
    follow(tv, log, HDMI, OTHER_TV_SPEAKER)
    for back in (HDMI, OTHER_TV_SPEAKER, HDMI):
        speaker_gone(client, BLUETOOTH)  # which is not in use
        assert tv.read(ROUTE) == str(back)
    assert tv.read(MUTE) == "0"
    client.expect_silence()


def test_a_speaker_that_goes_never_brings_a_blocked_output_back(log, tv, client):
    follow(tv, log, USB, BLUETOOTH)
    speaker_gone(client, BLUETOOTH)
    assert (tv.read(ROUTE), tv.read(MUTE)) == ("0", "0")


def test_the_optical_output_is_gone_back_to_only_while_its_cable_is_in(log, tv, client):
    tv.echo(1, SPDIF)
    follow(tv, log, OPTICAL, BLUETOOTH)
    speaker_gone(client, BLUETOOTH)
    assert tv.read(ROUTE) == "1"

    follow(tv, log, BLUETOOTH)
    tv.echo(0, SPDIF)
    log.settle()
    speaker_gone(client, BLUETOOTH)
    assert tv.read(ROUTE) == "0"


def test_the_output_that_a_pulled_cable_left_is_the_previous_one(log, tv, client):
    tv.echo(1, SPDIF)
    follow(tv, log, OPTICAL)
    tv.echo(0, SPDIF)
    log.settle()
    assert tv.read(ROUTE) == "0"
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", OPTICAL, 1)

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests how the daemon follows the route: new speakers, the optical cable, mirroring to a mobile device."""
import pytest

from harness import TV_SUPPORT, change_route

VOLUME, MUTE, ROUTE, GAIN = "audio/master_volume", "audio/master_mute", "sound/route", "audio/main_out_gain2"
SPDIF = "settings/memory/sysman/spdif"
TV2MOBILE = "settings/memory/menu/network/screenmirroring/smsrc_status"
OPTICAL_SUPPORT = "settings/memory/menu/network/screenmirroring/volume_support_optical"

OPTICAL, MULTI_OUTPUT, OTHER_TV_SPEAKER, UNKNOWN = 1, 6, 12, 7


def test_another_tv_route_has_the_tv_speaker_and_is_not_announced(log, tv, client):
    change_route(tv, log, OTHER_TV_SPEAKER)
    client.expect_silence()
    assert client.get_support() == (TV_SUPPORT, 0)
    tv.echo(42, VOLUME)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 42)  # once, as the old speaker is no longer watched
    assert client.set_volume(43) == 0
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 43)
    client.expect_silence()


def test_an_unknown_route_has_a_speaker_that_can_do_nothing(log, tv, client):
    change_route(tv, log, UNKNOWN)
    assert client.get_support() == (0, 0)
    assert client.get_volume() == (0, 0)
    assert client.get_mute() == (0, 0)
    assert client.set_volume(50) == 0
    assert client.set_mute(True) == 0
    assert (tv.read(VOLUME), tv.read(MUTE)) == ("10", "0")
    client.expect_silence()


def test_a_volume_that_clients_know_is_not_announced_again_after_two_route_changes(log, tv, client):
    assert client.set_volume(30) == 0
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 30)
    change_route(tv, log, UNKNOWN)
    tv.echo(20, VOLUME)  # of the TV speaker, which is not the present output
    change_route(tv, log, 0)
    tv.echo(30, VOLUME)  # new to the speaker object
    log.settle()
    client.expect_silence()


def test_on_multi_output_a_change_of_output_brings_the_gain_back_and_requests_do_not_move_it(log, tv, client):
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    change_route(tv, log, MULTI_OUTPUT)
    assert tv.read(GAIN) == "100"
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    assert tv.read(GAIN) == "100"


def test_a_route_that_cannot_be_read_changes_nothing(log, tv, client):
    change_route(tv, log, UNKNOWN)
    for junk in ("", "optical", "1 2", "99999999999"):
        change_route(tv, log, junk)
        assert client.get_support() == (0, 0)
    change_route(tv, log, OTHER_TV_SPEAKER)
    client.emit("BudsDisconnected", "i", 1)
    client.expect("SpeakerChangeRequest", UNKNOWN, 1)  # the previous output


@pytest.mark.parametrize("spoil", [lambda tv: tv.echo("optical", ROUTE), lambda tv: tv.remove(ROUTE)],
                         ids=["junk", "missing"])
def test_a_start_without_a_readable_route_takes_the_default_one(scene, daemon, tv, client, spoil):
    daemon.kill()
    spoil(tv)
    scene.start()
    assert client.get_support() == (TV_SUPPORT, 0)
    assert client.get_volume() == (10, 0)


def test_the_route_from_before_the_start_is_the_one_in_use(scene, daemon, tv, client):
    change_route(tv, daemon.log, UNKNOWN)
    daemon.kill()
    scene.start()
    assert client.get_support() == (0, 0)


# --- the optical cable ---------------------------------------------------------------------------------------------


def test_pulling_the_cable_in_use_goes_back_to_the_tv_speaker(log, tv, client):
    tv.echo(15, OPTICAL_SUPPORT)
    tv.echo(1, SPDIF)
    change_route(tv, log, OPTICAL)
    tv.echo("unplugged", SPDIF)  # cannot be read, so nothing happens
    log.settle()
    assert tv.read(ROUTE) == str(OPTICAL)
    tv.echo(0, SPDIF)
    log.settle()
    assert tv.read(ROUTE) == "0"
    assert client.get_support() == (TV_SUPPORT, 0)


def test_plugging_or_pulling_a_cable_that_is_not_in_use_leaves_the_route(log, tv):
    change_route(tv, log, OTHER_TV_SPEAKER)
    for cable in (1, 0):
        tv.echo(cable, SPDIF)
        log.settle()
        assert tv.read(ROUTE) == str(OTHER_TV_SPEAKER)


# --- mirroring to a mobile ------------------------------------------------------------------------------------------


def gain_on_mute(client, tv, gain):
    """Requests a gain; returns the one that the main output has then."""
    assert client.call("ApplyGainOnMute", "ii", 3, gain) == (0,)
    return tv.read(GAIN)


def test_mirroring_to_a_mobile_brings_the_gain_back_and_suppresses_others_until_it_ends(log, tv, client):
    assert gain_on_mute(client, tv, 40) == "40"
    tv.echo(1, TV2MOBILE)
    log.settle()
    assert tv.read(GAIN) == "100"
    assert gain_on_mute(client, tv, 50) == "100"
    tv.echo(0, TV2MOBILE)
    log.settle()
    assert gain_on_mute(client, tv, 60) == "60"


def test_mirroring_that_was_on_before_the_start_is_noticed(scene, daemon, tv, client):
    daemon.kill()
    tv.echo(1, TV2MOBILE)
    scene.start()
    assert gain_on_mute(client, tv, 40) == "100"

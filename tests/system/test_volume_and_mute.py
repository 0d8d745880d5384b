# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests volume and mute through the bus and through the TV's directory, and their change signals."""
import errno
from itertools import cycle, islice

from harness import TV_SUPPORT

INVALID_ARGUMENT = -2
INT_MAX, INT_MIN = 2**31 - 1, -2**31


def platform_error(code):
    return -1000 - code


def volume_changed(volume):
    return ("SpeakerVolumeChanged", TV_SUPPORT, volume)


def mute_changed(mute):
    return ("SpeakerMuteChanged", TV_SUPPORT, mute)


# --- set by a client ---------------------------------------------------------------------------------------------


def test_set_volume_reaches_the_tv_and_every_subscriber(scene, daemon, client, tv):
    listeners = [client, scene.client(), scene.client()]
    assert client.set_volume(30) == 0
    assert tv.read("audio/master_volume") == "30"
    for listener in listeners:
        listener.expect(*volume_changed(30))
    assert client.get_volume() == (30, 0)


def test_set_mute_reaches_the_tv_and_every_subscriber(scene, daemon, client, tv):
    listeners = [client, scene.client(), scene.client()]
    assert client.set_mute(True) == 0
    assert tv.read("audio/master_mute") == "1"
    for listener in listeners:
        listener.expect(*mute_changed(True))
    assert client.get_mute() == (1, 0)

    assert client.set_mute(False) == 0
    assert tv.read("audio/master_mute") == "0"
    for listener in listeners:
        listener.expect(*mute_changed(False))
    assert client.get_mute() == (0, 0)


def test_thousand_sets_cause_thousand_signals_each_before_its_own_reply(daemon, client):
    volumes = list(islice(cycle(range(11, 101)), 1000))
    for volume in volumes:
        assert client.set_volume(volume) == 0
    client.expect_silence_after(1000)
    assert client.heard[:2000] == [item for volume in volumes for item in (volume_changed(volume), ("reply", 0))]


def test_thousand_sets_without_waiting_cause_the_same(daemon, client):
    volumes = list(islice(cycle(range(100, 10, -1)), 1000))
    for volume in volumes:
        client.send("SetSpeakerVolume", "i", volume)
    client.expect_silence_after(1000)
    assert client.heard[:2000] == [item for volume in volumes for item in (volume_changed(volume), ("reply", 0))]


def test_the_same_volume_again_is_no_change(daemon, client):
    assert client.set_volume(30) == 0
    client.expect(*volume_changed(30))
    assert client.set_volume(30) == 0
    client.expect_silence()


def test_the_same_mute_again_is_no_change(daemon, client):
    assert client.set_mute(True) == 0
    client.expect(*mute_changed(True))
    assert client.set_mute(True) == 0
    client.expect_silence()


def test_the_range_ends_are_accepted(daemon, client, tv):
    for volume in (0, 1, 99, 100):
        assert client.set_volume(volume) == 0
        assert tv.read("audio/master_volume") == str(volume)


def test_volumes_outside_the_range_are_refused_and_touch_nothing(daemon, client, tv):
    for volume in (101, 1000, INT_MAX):
        assert client.set_volume(volume) == INVALID_ARGUMENT
    for volume in (-1, -5, INT_MIN):
        assert client.set_volume(volume) == platform_error(errno.ERANGE)
    assert tv.read("audio/master_volume") == "10"
    client.expect_silence()


def test_volume_above_the_range_does_not_even_unmute(daemon, client, tv):
    client.set_mute(True)
    client.expect(*mute_changed(True))
    assert client.set_volume(101) == INVALID_ARGUMENT
    assert tv.read("audio/master_mute") == "1"
    client.expect_silence()


def test_set_volume_while_muted_brings_back_the_gain_and_unmutes_first(daemon, client, tv):
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    client.set_mute(True)
    client.expect(*mute_changed(True))
    assert client.set_volume(30) == 0
    assert tv.read("audio/main_out_gain2") == "100"
    client.expect(*mute_changed(False))
    client.expect(*volume_changed(30))
    assert (tv.read("audio/master_mute"), tv.read("audio/master_volume")) == ("0", "30")


# --- changed on the TV -------------------------------------------------------------------------------------------


def test_a_volume_written_by_hand_is_announced(daemon, client, tv):
    tv.echo(42, "audio/master_volume")
    client.expect(*volume_changed(42))
    assert client.get_volume() == (42, 0)


def test_a_mute_written_by_hand_is_announced(daemon, client, tv):
    tv.echo(1, "audio/master_mute")
    client.expect(*mute_changed(True))
    assert client.get_mute() == (1, 0)


def test_first_report_of_zero_is_no_change_since_nothing_else_was_known(daemon, client, tv):
    tv.echo(0, "audio/master_volume")
    client.expect_silence()


def test_the_volume_from_before_the_start_counts_as_changed_when_it_comes_back(daemon, client, tv):
    # The TV starts with volume 10, but the daemon remembers 0 until a report brings another volume.
    tv.echo(20, "audio/master_volume")
    client.expect(*volume_changed(20))
    tv.echo(10, "audio/master_volume")
    client.expect(*volume_changed(10))


def test_changes_by_hand_and_by_clients_are_announced_in_their_order(daemon, client, tv):
    for step in range(20):
        assert client.set_volume(20 + step) == 0
        client.expect(*volume_changed(20 + step))
        tv.echo(60 + step, "audio/master_volume")
        client.expect(*volume_changed(60 + step))
    client.expect_silence()


# --- a TV that fails -----------------------------------------------------------------------------------------------


def test_missing_values_are_a_failed_read_until_they_are_set(daemon, client, tv):
    missing = platform_error(errno.ENOENT)
    tv.remove("audio/master_volume")
    tv.remove("audio/master_mute")
    assert client.get_volume() == (0, missing)
    assert client.get_mute() == (0, missing)
    assert client.set_volume(30) == 0
    client.expect(*volume_changed(30))
    assert client.get_volume() == (30, 0)


def test_junk_is_a_failed_read_and_never_a_made_up_value(daemon, client, tv):
    for junk in ("", "loud", "4 2", "99999999999999999999", "0x10", "\N{SNOWMAN}"):
        tv.echo(junk, "audio/master_volume")
        volume, status = client.get_volume()
        assert volume == 0
        assert status <= -1000
    tv.echo(5, "audio/master_mute")
    mute, status = client.get_mute()
    assert mute == 0
    assert status <= -1000
    client.expect_silence()

    assert client.set_volume(30) == 0
    client.expect(*volume_changed(30))
    assert client.get_volume() == (30, 0)

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests volume and mute through the bus and through the TV's directory, and their change signals."""
import errno
from itertools import cycle, islice

import pytest

from harness import TV_SUPPORT

INVALID_ARGUMENT = -2
INT_MAX, INT_MIN = 2**31 - 1, -2**31


def platform_error(code):
    return -1000 - code


def as_hexadecimal(code):
    return f"{code & 0xFFFFFFFF:x}"


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


@pytest.mark.parametrize("volume", [0, 1, 99, 100])
def test_the_range_ends_are_accepted(daemon, client, tv, volume):
    assert client.set_volume(volume) == 0
    assert tv.read("audio/master_volume") == str(volume)


@pytest.mark.parametrize("volume", [101, 1000, INT_MAX])
def test_volume_above_the_range_is_an_invalid_argument_and_touches_nothing(daemon, client, tv, volume):
    assert client.set_volume(volume) == INVALID_ARGUMENT
    assert daemon.log.find("invalid param SetTVVolume").priority == "E"
    assert daemon.log.find(f"Return volume {volume}. ret:-2").priority == "I"
    assert tv.read("audio/master_volume") == "10"
    client.expect_silence()


def test_volume_above_the_range_does_not_even_unmute(daemon, client, tv):
    client.set_mute(True)
    client.expect(*mute_changed(True))
    assert client.set_volume(101) == INVALID_ARGUMENT
    assert tv.read("audio/master_mute") == "1"
    client.expect_silence()


@pytest.mark.parametrize("volume", [-1, -5, INT_MIN])
def test_negative_volume_is_left_to_the_platform_which_refuses_it(daemon, client, tv, volume):
    refused = platform_error(errno.ERANGE)
    assert client.set_volume(volume) == refused
    assert daemon.log.find(f"Set vol 0->{volume}.").file == "VolumeControlImpl.cpp"
    assert daemon.log.find(f"set master volume error {as_hexadecimal(refused)}").priority == "E"
    assert daemon.log.find(f"Return volume {volume}. ret:{refused}").priority == "I"
    assert tv.read("audio/master_volume") == "10"
    client.expect_silence()


def test_set_volume_while_muted_brings_back_the_gain_and_unmutes_first(daemon, client, tv):
    client.set_mute(True)
    client.expect(*mute_changed(True))
    before = daemon.log.end()
    assert client.set_volume(30) == 0
    client.expect(*mute_changed(False))
    client.expect(*volume_changed(30))
    assert (tv.read("audio/master_mute"), tv.read("audio/master_volume")) == ("0", "30")
    expected = ["SetTvVolumeMute to false", "Apply gain on mute to 100 after mute. ret=0x0", "mute changed : [0]",
                "Set vol 0->30.", "volume is changed : 30"]
    assert [text for text in daemon.log.texts(before) if text in expected] == expected


def test_unmute_starts_the_fade_in_before_the_speaker_is_unmuted(daemon, client):
    client.set_mute(True)
    before = daemon.log.end()
    client.set_mute(False)
    expected = ["current tv mute [1]", "Apply unmute fadein. ret=0x0", "mute changed : [0]"]
    assert [text for text in daemon.log.texts(before) if text in expected] == expected


def test_mute_starts_no_fade_in(daemon, client):
    client.set_mute(True)
    assert not any(text.startswith("Apply unmute fadein.") for text in daemon.log.texts())


def test_what_the_handlers_log(daemon, client):
    client.get_support()
    client.set_volume(30)
    client.get_volume()
    client.set_mute(True)
    client.get_mute()
    expected = [
        ("I", "_OnGetSpeakerSupportType", "Return Current support type(0xffff), ret:0"),
        ("I", "_OnSetSpeakerVolume", "Return volume 30. ret:0"),
        ("I", "_OnGetSpeakerVolume", "Return Current volume state(30), ret:0"),
        ("I", "_OnSetSpeakerMute", "Return set mute status 1. ret:0"),
        ("I", "_OnGetSpeakerMute", "Return Current mute state(1), ret:0"),
    ]
    logged = [(line.priority, line.function, line.text) for line in daemon.log.lines()
              if line.file == "KVDbusEventHandler.cpp" and line.text.startswith("Return ")]
    assert logged == expected


def test_what_a_change_logs_from_the_report_to_the_signal(daemon, client):
    daemon.log.wait_for_rest(0.5)  # the gain-out worker writes the start gain after the daemon serves
    before = daemon.log.end()
    client.set_volume(30)
    expected = [
        ("I", "VolumeControlImpl.cpp", "SetTVVolume", "Set vol 0->30."),
        ("I", "VolumeControlImpl.cpp", "_OnVolumeChanged", "volume is changed : 30"),
        ("I", "VolumeControlImpl.cpp", "_NotifyVolumeEvent", "event: [VOLUME_CHANGED]"),
        ("I", "KVServer.cpp", "onVolumeChanged", "Send dbus signal VolumeChanged : 30"),
        ("I", "KVDbusEventHandler.cpp", "_OnSetSpeakerVolume", "Return volume 30. ret:0"),
    ]
    assert [(line.priority, line.file, line.function, line.text) for line in daemon.log.lines(before)
            if line.function not in ("methodCallHandler", "UpdateSenderLists")] == expected


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
    line = daemon.log.wait("volume(0) is same")
    assert (line.priority, line.function) == ("E", "_OnVolumeChanged")
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


def test_getters_of_missing_values_answer_zero_and_the_platform_error(daemon, client, tv):
    missing = platform_error(errno.ENOENT)
    tv.remove("audio/master_volume")
    tv.remove("audio/master_mute")
    assert client.get_volume() == (0, missing)
    assert client.get_mute() == (0, missing)
    assert daemon.log.find(f"get master volume error {as_hexadecimal(missing)}").priority == "E"
    assert daemon.log.find(f"get master mute error {as_hexadecimal(missing)}").priority == "E"
    assert daemon.log.find(f"Return Current volume state(0), ret:{missing}").priority == "I"
    assert daemon.log.find(f"Return Current mute state(0), ret:{missing}").priority == "I"


@pytest.mark.parametrize("junk", ["", "loud", "4 2", "99999999999999999999", "0x10", "\N{SNOWMAN}"])
def test_junk_is_a_failed_read_and_never_a_made_up_value(daemon, client, tv, junk):
    tv.echo(junk, "audio/master_volume")
    volume, status = client.get_volume()
    assert volume == 0
    assert status <= -1000
    client.expect_silence()

    assert client.set_volume(30) == 0
    client.expect(*volume_changed(30))
    assert client.get_volume() == (30, 0)


def test_a_removed_volume_comes_back_with_the_next_set(daemon, client, tv):
    tv.remove("audio/master_volume")
    assert client.set_volume(30) == 0
    assert tv.read("audio/master_volume") == "30"
    client.expect(*volume_changed(30))


def test_a_mute_that_is_neither_0_nor_1_is_a_failed_read(daemon, client, tv):
    tv.echo(5, "audio/master_mute")
    mute, status = client.get_mute()
    assert mute == 0
    assert status <= -1000


def test_a_mute_that_cannot_be_read_counts_as_unmuted_for_the_fade_in(daemon, client, tv):
    tv.remove("audio/master_mute")
    assert client.set_mute(False) == 0
    line = daemon.log.find("UnMute State, Recover gain instead of FadeIn")
    assert (line.priority, line.function) == ("W", "ApplyVolumeFadeIn")

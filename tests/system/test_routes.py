# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests how the daemon follows the route: new speakers, the optical cable, mirroring to a mobile device."""

import pytest

from harness import TV_SUPPORT, change_route, lines_without_workers

SPDIF = "settings/memory/sysman/spdif"
TV2MOBILE = "settings/memory/menu/network/screenmirroring/smsrc_status"
INTERNAL_SPEAKER = "features/com.norvik/featureconf/internal_speaker_supported"

TV_ROUTES = [6, 11, 12, 13, 14]
UNKNOWN_ROUTES = [7, 16, 17, 18, 20, 255, -1, 2**31 - 1, -2**31]


OPTICAL_SUPPORT = "settings/memory/menu/network/screenmirroring/volume_support_optical"


def test_another_tv_route_replaces_the_speaker_with_every_line_in_order(log, tv, client):
    before = log.end()
    change_route(tv, log, 12)
    assert lines_without_workers(log, before) == [
        ("I", "VolumeControlImpl.cpp", "SpeakerChangedCallback", "Type(0->12)"),
        ("E", "TVSpeaker.cpp", "UnsetEventHandler", "Already unset event handler"),
        ("I", "ISpeaker.cpp", "CreateSpeaker", "Create TV Speaker"),
        ("I", "VolumeControlImpl.cpp", "_NotifyVolumeEvent", "event: [SPEAKER_CHANGED]"),
        ("I", "KVServer.cpp", "onSpeakerChanged", "Speaker changed[0->12]. mode:0xffff, gainMax(ret:0)"),
    ]


def test_a_route_change_is_not_announced_on_the_bus(log, tv, client):
    change_route(tv, log, 12)
    client.expect_silence()


def test_the_new_speaker_is_watched_and_the_old_one_no_longer(log, tv, client):
    change_route(tv, log, 12)
    tv.echo(42, "audio/master_volume")
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 42)
    assert client.set_volume(43) == 0
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 43)
    assert log.texts().count("volume is changed : 42") == 1


@pytest.mark.parametrize("route", TV_ROUTES)
def test_tv_routes_have_the_tv_speaker(log, tv, client, route):
    change_route(tv, log, route)
    assert log.texts().count("Create TV Speaker") == 2
    assert client.get_support() == (TV_SUPPORT, 0)
    assert client.get_volume() == (10, 0)


@pytest.mark.parametrize("route", UNKNOWN_ROUTES)
def test_unknown_routes_have_a_speaker_that_can_do_nothing(log, tv, client, route):
    change_route(tv, log, route)
    assert log.find(f"Type({route}) is invalid, Create Unknown Speaker").priority == "I"
    assert client.get_support() == (0, 0)
    assert client.get_volume() == (0, 0)
    assert client.get_mute() == (0, 0)
    assert client.set_volume(50) == 0
    assert client.set_mute(True) == 0
    assert tv.read("audio/master_volume") == "10"
    assert tv.read("audio/master_mute") == "0"
    client.expect_silence()


def test_routes_there_and_back_name_the_previous_one_each_time(log, tv):
    for previous, route in [(0, 12), (12, 7), (7, 0), (0, 13), (13, 0)]:
        change_route(tv, log, route, previous)


def test_volume_and_mute_reported_before_a_route_change_are_still_known_after_it(log, tv, client):
    assert client.set_volume(30) == 0
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 30)
    change_route(tv, log, 7)
    tv.echo(20, "audio/master_volume")  # of the TV speaker, which is not the present output
    change_route(tv, log, 0, previous=7)
    before = log.end()
    tv.echo(30, "audio/master_volume")  # new to the speaker object, but clients know this volume already
    log.wait("volume(30) is same", before)
    client.expect_silence()


def test_set_volume_while_muted_on_another_route_unmutes_without_touching_the_gain(log, tv, client):
    client.set_mute(True)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    change_route(tv, log, 12)
    before = log.end()
    assert client.set_volume(30) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, False)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 30)
    assert log.find("SetTvVolumeMute to false", before)
    assert not any(text.startswith("Apply gain on mute") for text in log.texts(before))


def test_unmute_on_another_route_starts_no_fade(log, tv, client):
    client.set_mute(True)
    change_route(tv, log, 12)
    before = log.end()
    client.set_mute(False)
    assert not any(text.startswith("Apply unmute fadein") for text in log.texts(before))


def test_on_multi_output_a_speaker_change_still_forces_the_gain(log, tv):
    closing = change_route(tv, log, 6)
    assert closing.text == "Speaker changed[0->6]. mode:0xffff, gainMax(ret:0)"
    assert log.find("Multi-output Audio, do not apply fade.") is None


def test_on_multi_output_no_fade_is_applied(log, tv, client):
    change_route(tv, log, 6)
    assert client.call("ApplyUnmuteFadeIn", "i", 3) == (0,)
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    refused = [line for line in log.lines() if line.text == "Multi-output Audio, do not apply fade."]
    assert [(line.priority, line.function) for line in refused] == 2 * [("E", "_IsFadeInAvailable")]


@pytest.mark.parametrize("junk", ["", "optical", "1 2", "99999999999"])
def test_a_route_that_cannot_be_read_changes_nothing(log, tv, client, junk):
    tv.echo(junk, "sound/route")
    change_route(tv, log, 12)  # the next readable route has an effect
    assert [text for text in log.texts() if text.startswith("Type(")] == ["Type(0->12)"]


@pytest.mark.parametrize("route", ["", "optical", None])
def test_a_start_without_a_readable_route_takes_the_default_one(scene, tv, client, route):
    scene.start().kill()  # creates the default TV
    if route is None:
        tv.remove("sound/route")
    else:
        tv.echo(route, "sound/route")
    daemon = scene.start()
    line = daemon.log.find("get current speaker type failed")
    assert (line.priority, line.function) == ("E", "_GetOutputRoute")
    assert daemon.log.find("Create TV Speaker")
    assert client.get_volume() == (10, 0)


def test_the_route_from_before_the_start_is_the_one_in_use(scene, tv, client):
    scene.start().kill()
    tv.echo(7, "sound/route")
    daemon = scene.start()
    assert daemon.log.find("route:7").function == "_GetOutputRoute"
    assert client.get_support() == (0, 0)


# --- the optical cable ---------------------------------------------------------------------------------------------


def pull_cable(tv, log):
    tv.echo(1, SPDIF)
    tv.echo(0, SPDIF)


def start_with_cable(scene, tv, **features):
    scene.start().kill()
    tv.echo(1, SPDIF)
    tv.echo(15, OPTICAL_SUPPORT)
    for key, value in features.items():
        tv.echo(value, key)
    return scene.start().log


@pytest.fixture
def plugged(scene, tv):
    """The log of a daemon on a TV with an optical cable."""
    return start_with_cable(scene, tv)


def test_a_cable_that_is_there_is_no_error(plugged):
    assert plugged.find("Spdif Cable is not connected") is None


def test_no_cable_at_the_start_is_logged(log):
    line = log.find("Spdif Cable is not connected")
    assert (line.priority, line.function) == ("E", "_InitSoundCallback")


@pytest.mark.parametrize("route", [1, 9, 11])
def test_pulling_the_cable_in_use_goes_back_to_the_tv_speaker(plugged, tv, route):
    change_route(tv, plugged, route)
    before = plugged.end()
    tv.echo(0, SPDIF)
    plugged.wait_matching(rf"Speaker changed\[{route}->0\]\. .*", before)
    assert tv.read("sound/route") == "0"
    wanted = [f"Spdif cable is disconnected. route:{route}", f"Type({route}->0)", "Set Speaker Output(0)"]
    plugged.wait("Set Speaker Output(0)", before)
    assert [text for text in plugged.texts(before) if text in wanted] == wanted


def test_pulling_the_cable_of_the_previous_output_forgets_that_one(plugged, tv):
    change_route(tv, plugged, 1)
    change_route(tv, plugged, 12, previous=1)
    before = plugged.end()
    tv.echo(0, SPDIF)
    plugged.wait("Prev:1->0", before)
    assert plugged.find("Skip. Curr:12 Prev:1", before).priority == "I"
    assert tv.read("sound/route") == "12"


def test_pulling_a_cable_that_nothing_uses_changes_nothing(plugged, tv):
    change_route(tv, plugged, 12)
    before = plugged.end()
    tv.echo(0, SPDIF)
    plugged.wait("Skip. Curr:12 Prev:0", before)
    assert tv.read("sound/route") == "12"
    assert not any(text.startswith(("Prev:", "Set Speaker")) for text in plugged.texts(before))


def test_plugging_the_cable_in_changes_nothing(log, tv):
    before = log.end()
    tv.echo(1, SPDIF)
    change_route(tv, log, 12)  # arrives after that change
    assert not any("Spdif" in text or text.startswith("Set Speaker") for text in log.texts(before))


@pytest.mark.parametrize("value", ["-1", "-5", "unplugged"])
def test_an_unreadable_cable_state_is_logged_and_ignored(plugged, tv, value):
    change_route(tv, plugged, 1)
    before = plugged.end()
    tv.echo(value, SPDIF)
    line = plugged.wait("get vconf memory/sysman/spdif error", before)
    assert (line.priority, line.function) == ("E", "SpdifChangedCallback")
    assert tv.read("sound/route") == "1"


def test_without_an_internal_speaker_the_optical_output_is_the_default(scene, tv):
    log = start_with_cable(scene, tv, **{INTERNAL_SPEAKER: "false"})
    change_route(tv, log, 1)
    before = log.end()
    tv.echo(0, SPDIF)
    log.wait("Set Speaker Output(1)", before)
    assert tv.read("sound/route") == "1"
    assert not any(text.startswith("Type(") for text in log.texts(before))  # an equal route is not a change


# --- mirroring to a mobile ------------------------------------------------------------------------------------------


def test_mirroring_to_a_mobile_suppresses_the_unmute_gain_until_it_ends(log, tv, client):
    client.set_mute(True)
    before = log.end()
    tv.echo(1, TV2MOBILE)
    line = log.wait("TV To Mobile Enable", before)
    assert (line.priority, line.function) == ("E", "Tv2MobileChangedCallback")

    started = log.end()
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    tv.echo(0, TV2MOBILE)
    log.wait("TV To Mobile Disable", started)
    assert tv.read("audio/main_out_gain2") == "100"

    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    tv.wait_until("audio/main_out_gain2", lambda: tv.read("audio/main_out_gain2") == "40")


def test_mirroring_that_was_on_before_the_start_counts(scene, tv, client):
    scene.start().kill()
    tv.echo(1, TV2MOBILE)
    log = scene.start().log
    assert log.find("tv2Mobile:1")
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    tv.echo(0, TV2MOBILE)
    log.wait("TV To Mobile Disable")
    assert tv.read("audio/main_out_gain2") == "100"

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the external outputs. Each has three settings keys for its state; all share two keys for requests."""
from typing import NamedTuple

import pytest

from harness import change_route, lines_without_workers

GET_VOLUME, SET_VOLUME, GET_MUTE, SET_MUTE = 1, 2, 4, 8  # bits of the support word
EVERYTHING = 0xF
FAILED, NOT_SUPPORTED = -1, -4
MIRRORING = "memory/menu/network/screenmirroring"
VOLUME_REQUEST = f"settings/{MIRRORING}/set_volume_level"
MUTE_REQUEST = f"settings/{MIRRORING}/set_volume_mute"


class ExternalOutput(NamedTuple):
    """A kind of output, its routes, and the settings keys of its state."""

    name: str
    routes: tuple
    support: str
    level: str
    mute: str


def mirrored(name, routes, suffix):
    return ExternalOutput(name, routes, f"{MIRRORING}/volume_support_{suffix}",
                          f"{MIRRORING}/get_volume_level_{suffix}", f"{MIRRORING}/get_volume_mute_{suffix}")


HDMI = mirrored("HDMI", (2, 8), "hdmi")
OPTICAL = mirrored("Optical", (1, 9), "optical")
WIFI = mirrored("WIFI", (4, 10), "mlr")
USB = ExternalOutput("USB", (15,), "db/usbsound/volume_capability", "db/usbsound/volume_level",
                     "db/usbsound/volume_mute_status")
BLUETOOTH = mirrored("BT", (3, 5), "bt")
AURACAST = mirrored("Auracast", (19,), "auracast")
OUTPUTS = [HDMI, OPTICAL, WIFI, USB, BLUETOOTH, AURACAST]

each_output = pytest.mark.parametrize("output", OUTPUTS, ids=lambda output: output.name)
each_route = pytest.mark.parametrize("output, route", [(output, route) for output in OUTPUTS
                                                       for route in output.routes],
                                     ids=lambda value: getattr(value, "name", value))


def write(tv, key, value):
    tv.echo(value, f"settings/{key}")


def connect(tv, output, support=EVERYTHING, level=7, mute=0):
    """Publishes the state of the output's device. None omits a key."""
    for key, value in [(output.support, support), (output.level, level), (output.mute, mute)]:
        if value is not None:
            write(tv, key, value)


def use(tv, log, output, **state):
    """Connects the output and changes the route to it."""
    connect(tv, output, **state)
    change_route(tv, log, output.routes[0])


def write_and_wait(tv, log, key, value):
    """Writes a key and waits until kavreld logs the change, which it may still be handling then."""
    before = log.end()
    write(tv, key, value)
    return log.wait(f"KeyName:{key} val:{value}", before)


# --- the route change ------------------------------------------------------------------------------------------------


@each_route
def test_a_route_change_makes_the_speaker_with_every_line_in_order(log, tv, output, route):
    connect(tv, output)
    before = log.end()
    change_route(tv, log, route)
    assert lines_without_workers(log, before) == [
        ("I", "VolumeControlImpl.cpp", "SpeakerChangedCallback", f"Type(0->{route})"),
        ("E", "TVSpeaker.cpp", "UnsetEventHandler", "Already unset event handler"),
        ("I", "ISpeaker.cpp", "CreateSpeaker", f"Create {output.name} Speaker"),
        ("I", "VolumeControlImpl.cpp", "_NotifyVolumeEvent", "event: [SPEAKER_CHANGED]"),
        ("I", "KVUtils.cpp", "VconfGetInt", f"Successed to get key {output.support}"),
        ("I", "ExternalSpeaker.cpp", "GetVolumeSupportType", "current spk support [0x000f]"),
        ("I", "KVServer.cpp", "onSpeakerChanged", f"Speaker changed[0->{route}]. mode:0x000f, gainMax(ret:0)"),
    ]


@each_route
def test_the_route_from_before_the_start_is_the_one_in_use(scene, tv, client, output, route):
    scene.start().kill()
    connect(tv, output, level=33, mute=1)
    tv.echo(route, "sound/route")
    daemon = scene.start()
    assert daemon.log.find(f"Create {output.name} Speaker")
    assert client.get_support() == (EVERYTHING, 0)
    assert client.get_volume() == (33, 0)
    assert client.get_mute() == (1, 0)


def test_watches_are_made_as_level_mute_support_and_removed_in_the_mirrored_order(scene, tv):
    daemon = scene.start(KAVREL_LOG="debug")
    connect(tv, HDMI)
    before = daemon.log.end()
    change_route(tv, daemon.log, 2)
    change_route(tv, daemon.log, 0, previous=2)
    registered = [f"Successed to register vconf key {key} for notification"
                  for key in (HDMI.level, HDMI.mute, HDMI.support)]
    removed = [f"Successed to unregister vconf key {key} for notification"
               for key in (HDMI.support, HDMI.mute, HDMI.level)]
    assert [text for text in daemon.log.texts(before) if text.endswith("for notification")] == registered + removed


@each_output
def test_a_replaced_output_is_not_watched_any_more(log, client, tv, output):
    use(tv, log, output)
    change_route(tv, log, 0, previous=output.routes[0])
    write(tv, output.level, 50)
    write(tv, output.mute, 1)
    tv.echo(60, "audio/master_volume")  # arrives after the other reports
    client.expect("SpeakerVolumeChanged", 0xFFFF, 60)
    client.expect_silence()


def test_from_one_output_to_the_next(log, client, tv):
    previous = 0
    for level, output in enumerate(OUTPUTS, 20):
        connect(tv, output, level=level)
        change_route(tv, log, output.routes[0], previous)
        previous = output.routes[0]
        assert client.get_volume() == (level, 0)
        write(tv, output.level, level + 50)
        client.expect("SpeakerVolumeChanged", EVERYTHING, level + 50)
    client.expect_silence()


def test_both_routes_of_a_kind_are_two_speakers_with_the_same_keys(log, client, tv):
    use(tv, log, HDMI, level=20)
    change_route(tv, log, 8, previous=2)
    assert log.texts().count("Create HDMI Speaker") == 2
    assert client.get_volume() == (20, 0)


def test_leaving_for_a_route_without_a_speaker_and_coming_back(log, client, tv):
    use(tv, log, HDMI, level=20)
    change_route(tv, log, 17, previous=2)
    assert client.get_support() == (0, 0)
    assert client.get_volume() == (0, 0)
    write(tv, HDMI.level, 30)
    change_route(tv, log, 2, previous=17)
    assert client.get_volume() == (30, 0)
    client.expect_silence()


# --- what the device supports ----------------------------------------------------------------------------------------


@each_output
def test_the_support_word_is_what_the_device_publishes(log, client, tv, output):
    use(tv, log, output, support=0x1F35)  # the daemon keeps the higher bits
    assert client.get_support() == (0x1F35, 0)
    write(tv, output.level, 21)
    client.expect("SpeakerVolumeChanged", 0x1F35, 21)


@pytest.mark.parametrize("word", range(16))
def test_each_operation_needs_its_bit(log, client, tv, word):
    use(tv, log, HDMI, support=word, level=33, mute=1)
    before = log.end()
    assert client.get_volume() == ((33, 0) if word & GET_VOLUME else (0, NOT_SUPPORTED))
    assert client.set_volume(44) == (0 if word & SET_VOLUME else NOT_SUPPORTED)
    assert client.get_mute() == ((1, 0) if word & GET_MUTE else (0, NOT_SUPPORTED))
    assert client.set_mute(True) == (0 if word & SET_MUTE else NOT_SUPPORTED)

    operations = [(GET_VOLUME, "GET VOLUME"), (SET_VOLUME, "SET VOLUME"), (GET_MUTE, "GET MUTE"),
                  (SET_MUTE, "SET MUTE")]
    assert [(line.priority, line.text) for line in log.lines(before) if "not supported" in line.text] == [
        ("E", f"{name} is not supported. 0x{word:04x}") for bit, name in operations if not word & bit]
    assert tv.has(VOLUME_REQUEST) == bool(word & SET_VOLUME)
    assert tv.has(MUTE_REQUEST) == bool(word & SET_MUTE)


@each_output
def test_a_changed_support_word_counts_at_once_and_is_not_announced(log, client, tv, output):
    use(tv, log, output, support=0x5)
    assert client.set_volume(40) == NOT_SUPPORTED
    before = log.end()
    write(tv, output.support, 0xF)
    log.wait("Volume support flag changed 0x0005 to 0x000f", before)
    assert client.set_volume(40) == 0
    client.expect_silence()


def test_a_known_support_word_is_not_read_again_by_the_operations(log, client, tv):
    use(tv, log, HDMI)
    tv.remove(f"settings/{HDMI.support}")  # the platform does not report a removal
    before = log.end()
    assert client.get_volume() == (7, 0)
    assert client.set_volume(40) == 0
    assert client.get_mute() == (0, 0)
    assert client.set_mute(True) == 0
    assert not any(HDMI.support in text for text in log.texts(before))


def test_a_support_word_of_zero_is_read_again_each_time(log, client, tv):
    use(tv, log, HDMI, support=0)
    before = log.end()
    assert client.get_volume() == (0, NOT_SUPPORTED)
    assert client.set_mute(True) == NOT_SUPPORTED
    assert log.texts(before).count(f"Successed to get key {HDMI.support}") == 2


@each_output
def test_without_a_support_word_everything_is_refused_but_the_word_itself_fails(log, client, tv, output):
    connect(tv, output, support=None)
    tv.echo(output.routes[0], "sound/route")
    log.wait("Failed to get volume support status")
    before = log.end()
    assert client.get_support() == (0, FAILED)
    assert client.get_volume() == (0, NOT_SUPPORTED)
    assert client.set_volume(40) == NOT_SUPPORTED
    assert client.get_mute() == (0, NOT_SUPPORTED)
    assert client.set_mute(True) == NOT_SUPPORTED
    failures = [line for line in log.lines(before) if line.text == "Failed to get volume support status"]
    assert [(line.priority, line.function) for line in failures] == [
        ("E", "GetVolumeSupportType"), *4 * [("E", "CheckSupport")]]
    assert not tv.has(VOLUME_REQUEST)


def test_a_speaker_change_without_a_support_word_reaches_no_listener(log, tv):
    connect(tv, HDMI, support=None)
    before = log.end()
    tv.echo(2, "sound/route")
    log.wait("Failed to get volume support status", before)
    connect(tv, HDMI)
    change_route(tv, log, 8, previous=2)
    assert [text for text in log.texts(before) if text.startswith("Speaker changed[")] == [
        "Speaker changed[2->8]. mode:0x000f, gainMax(ret:0)"]


@pytest.mark.parametrize("junk", ["", "all", "0xF", "15 15", "99999999999"])
def test_a_support_word_that_is_junk_is_treated_as_unreadable(log, client, tv, junk):
    connect(tv, HDMI, support=junk)
    tv.echo(2, "sound/route")
    log.wait("Failed to get volume support status")
    assert client.get_support() == (0, FAILED)
    assert client.get_volume() == (0, NOT_SUPPORTED)
    write(tv, HDMI.support, EVERYTHING)
    log.wait("Volume support flag changed 0x0000 to 0x000f")
    assert client.get_volume() == (7, 0)


# --- requests --------------------------------------------------------------------------------------------------------


@each_output
def test_requests_of_every_output_land_in_the_shared_keys_and_announce_nothing(log, client, tv, output):
    use(tv, log, output, level=7, mute=0)
    assert client.set_volume(33) == 0
    assert tv.read(VOLUME_REQUEST) == "33"
    assert client.set_mute(True) == 0
    assert tv.read(MUTE_REQUEST) == "1"
    assert client.set_mute(False) == 0
    assert tv.read(MUTE_REQUEST) == "0"
    # The device has not carried it out: its state is unchanged, and the daemon sends no signal.
    assert client.get_volume() == (7, 0)
    assert client.get_mute() == (0, 0)
    assert (tv.read("audio/master_volume"), tv.read("audio/master_mute")) == ("10", "0")
    client.expect_silence()


@each_output
def test_the_change_of_a_device_that_follows_a_request_is_announced(log, client, tv, output):
    use(tv, log, output)
    assert client.set_volume(33) == 0
    write(tv, output.level, tv.read(VOLUME_REQUEST))
    client.expect("SpeakerVolumeChanged", EVERYTHING, 33)
    assert client.get_volume() == (33, 0)
    assert client.set_mute(True) == 0
    write(tv, output.mute, tv.read(MUTE_REQUEST))
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    assert client.get_mute() == (1, 0)


@pytest.mark.parametrize("volume", [0, 100, -5, -2**31])
def test_any_volume_up_to_the_maximum_is_passed_on(log, client, tv, volume):
    use(tv, log, HDMI)
    assert client.set_volume(volume) == 0
    assert tv.read(VOLUME_REQUEST) == str(volume)


def test_a_volume_above_the_maximum_is_not(log, client, tv):
    use(tv, log, HDMI)
    assert client.set_volume(101) == -2
    assert not tv.has(VOLUME_REQUEST)


def test_set_volume_while_muted_unmutes_first(log, client, tv):
    use(tv, log, HDMI)
    write(tv, HDMI.mute, 1)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    before = log.end()
    assert client.set_volume(33) == 0
    expected = ["SetTvVolumeMute to false", f"Successed to set key {MIRRORING}/set_volume_mute",
                "Set vol 0->33.", f"Successed to set key {MIRRORING}/set_volume_level"]
    assert [text for text in log.texts(before) if text in expected] == expected
    assert tv.read(MUTE_REQUEST) == "0"
    assert not any(text.startswith("Apply gain on mute") for text in log.texts(before))


def test_set_volume_while_muted_fails_when_the_device_cannot_be_unmuted(log, client, tv):
    use(tv, log, HDMI, support=GET_VOLUME | SET_VOLUME | GET_MUTE)
    write(tv, HDMI.mute, 1)
    client.expect("SpeakerMuteChanged", 0x7, True)
    assert client.set_volume(33) == NOT_SUPPORTED
    assert not tv.has(VOLUME_REQUEST)


def test_unmuting_an_external_output_starts_no_fade(log, client, tv):
    use(tv, log, HDMI, mute=1)
    before = log.end()
    assert client.set_mute(False) == 0
    assert not any(text.startswith("Apply unmute fadein") for text in log.texts(before))


def test_a_request_that_cannot_be_written_fails(log, client, tv):
    use(tv, log, HDMI)
    for request in (VOLUME_REQUEST, MUTE_REQUEST):
        (tv.path / request).mkdir(parents=True)  # a folder where the file should be
    assert client.set_volume(33) == FAILED
    assert client.set_mute(True) == FAILED
    assert (log.find("Failed to set volume").priority, log.find("Failed to set mute").priority) == ("E", "E")


# --- reports ---------------------------------------------------------------------------------------------------------


@each_output
def test_every_change_of_level_and_mute_is_announced(log, client, tv, output):
    use(tv, log, output)
    for level in (20, 0, 100, 55):
        write(tv, output.level, level)
        client.expect("SpeakerVolumeChanged", EVERYTHING, level)
    for mute, announced in ((1, True), (0, False), (2, True)):
        write(tv, output.mute, mute)
        client.expect("SpeakerMuteChanged", EVERYTHING, announced)
    client.expect_silence()


def test_what_a_report_logs_from_the_key_to_the_signal(log, client, tv):
    use(tv, log, HDMI)
    before = log.end()
    write(tv, HDMI.level, 20)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 20)
    write(tv, HDMI.mute, 2)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    support = [
        ("I", "KVUtils.cpp", "VconfGetInt", f"Successed to get key {HDMI.support}"),
        ("I", "ExternalSpeaker.cpp", "GetVolumeSupportType", "current spk support [0x000f]"),
    ]
    assert lines_without_workers(log, before) == [
        ("I", "ExternalSpeaker.cpp", "OnVolumeControlChanged", f"KeyName:{HDMI.level} val:20"),
        ("I", "VolumeControlImpl.cpp", "_OnVolumeChanged", "volume is changed : 20"),
        ("I", "VolumeControlImpl.cpp", "_NotifyVolumeEvent", "event: [VOLUME_CHANGED]"),
        *support,
        ("I", "KVServer.cpp", "onVolumeChanged", "Send dbus signal VolumeChanged : 20"),
        ("I", "ExternalSpeaker.cpp", "OnVolumeControlChanged", f"KeyName:{HDMI.mute} val:2"),
        ("I", "VolumeControlImpl.cpp", "_OnMuteChanged", "mute changed : [1]"),
        ("I", "VolumeControlImpl.cpp", "_NotifyVolumeEvent", "event: [MUTE_CHANGED]"),
        *support,
        ("I", "KVServer.cpp", "onMuteChanged", "Send dbus signal MuteChanged : 1"),
    ]


def test_a_mute_of_two_after_a_mute_of_one_is_no_change(log, client, tv):
    use(tv, log, HDMI)
    write(tv, HDMI.mute, 1)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    before = log.end()
    write(tv, HDMI.mute, 2)
    assert log.wait("mute is same : 1", before).priority == "I"
    assert client.get_mute() == (1, 0)
    client.expect_silence()


def test_a_level_that_the_last_output_had_too_is_no_change(log, client, tv):
    assert client.set_volume(30) == 0
    client.expect("SpeakerVolumeChanged", 0xFFFF, 30)
    use(tv, log, HDMI, level=7)
    before = log.end()
    write(tv, HDMI.level, 30)
    assert log.wait("volume(30) is same", before).priority == "E"
    client.expect_silence()


def test_a_device_that_publishes_its_state_only_later(log, client, tv):
    assert not tv.has("settings/db/usbsound")
    tv.echo(15, "sound/route")
    log.wait("Failed to get volume support status")
    write(tv, USB.support, EVERYTHING)
    log.wait("Volume support flag changed 0x0000 to 0x000f")
    write(tv, USB.level, 20)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 20)
    write(tv, USB.mute, 1)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)


def test_missing_values_fail_and_a_removal_is_no_report(log, client, tv):
    use(tv, log, HDMI, level=20, mute=1)
    tv.remove(f"settings/{HDMI.level}")
    tv.remove(f"settings/{HDMI.mute}")
    assert client.get_volume() == (0, FAILED)
    assert client.get_mute() == (0, FAILED)
    assert (log.find("Failed to get volume").priority, log.find("Failed to get mute").priority) == ("E", "E")
    client.expect_silence()


@pytest.mark.parametrize("junk", ["", "loud", "4 2", "99999999999", "0x10"])
def test_junk_fails_to_be_read_and_is_announced_as_unreadable(log, client, tv, junk):
    use(tv, log, HDMI)
    write(tv, HDMI.level, junk)
    client.expect("SpeakerVolumeChanged", EVERYTHING, -1)
    write(tv, HDMI.mute, junk)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    assert client.get_volume() == (0, FAILED)
    assert client.get_mute() == (0, FAILED)
    for key in (HDMI.level, HDMI.mute):
        complaint = f"E No integer in {tv.path}/settings/{key}"
        assert log.raw_lines().count(complaint) == 1


def test_blanks_around_a_value_are_no_junk(log, client, tv):
    use(tv, log, HDMI)
    write(tv, HDMI.level, "  42\t")
    client.expect("SpeakerVolumeChanged", EVERYTHING, 42)
    assert client.get_volume() == (42, 0)


def test_while_the_support_word_is_missing_a_change_is_stored_but_not_announced(log, client, tv):
    use(tv, log, HDMI)
    tv.remove(f"settings/{HDMI.support}")
    before = log.end()
    write(tv, HDMI.level, 20)
    log.wait("Failed to get volume support status", before)
    assert log.find("volume is changed : 20", before)
    write(tv, HDMI.support, EVERYTHING)  # equal to the last support word that the daemon read
    write(tv, HDMI.level, 21)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 21)
    client.expect_silence()


def test_of_two_devices_only_changes_of_the_one_in_use_are_announced(log, client, tv):
    connect(tv, WIFI)
    use(tv, log, HDMI)
    write(tv, WIFI.level, 60)
    write_and_wait(tv, log, HDMI.level, 61)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 61)
    client.expect_silence()

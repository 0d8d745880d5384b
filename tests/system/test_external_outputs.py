# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the external outputs. Each has three settings keys for its state; all share two keys for requests."""
from typing import NamedTuple

import pytest

from harness import change_route

GET_VOLUME, GET_MUTE = 1, 4  # bits of the support word
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


# --- the route change ------------------------------------------------------------------------------------------------


def test_each_route_has_the_values_of_its_output_and_watches_them_alone(log, client, tv):
    for level, output in enumerate(OUTPUTS, 20):
        connect(tv, output, level=level, mute=1)
    left = "audio/master_volume"  # the level of the output that was in use before
    for level, output in enumerate(OUTPUTS, 20):
        for route in output.routes:
            change_route(tv, log, route)
            assert client.get_support() == (EVERYTHING, 0)
            assert client.get_volume() == (level, 0)
            assert client.get_mute() == (1, 0)
        tv.echo(level + 40, left)
        write(tv, output.level, level + 50)  # arrives after that change
        client.expect("SpeakerVolumeChanged", EVERYTHING, level + 50)
        write(tv, output.level, level + 1)
        client.expect("SpeakerVolumeChanged", EVERYTHING, level + 1)
        left = f"settings/{output.level}"
    client.expect_silence()


def test_the_route_from_before_the_start_is_the_one_in_use(scene, daemon, tv, client):
    use(tv, daemon.log, HDMI, level=33, mute=1)
    daemon.kill()
    scene.start()
    assert client.get_support() == (EVERYTHING, 0)
    assert client.get_volume() == (33, 0)
    assert client.get_mute() == (1, 0)


def test_leaving_for_a_route_without_a_speaker_and_coming_back(log, client, tv):
    use(tv, log, HDMI, level=20)
    change_route(tv, log, 17)
    assert client.get_support() == (0, 0)
    assert client.get_volume() == (0, 0)
    write(tv, HDMI.level, 30)
    change_route(tv, log, 2)
    assert client.get_volume() == (30, 0)
    client.expect_silence()


# --- what the device supports ----------------------------------------------------------------------------------------


def test_signals_carry_the_support_word_with_its_higher_bits(log, client, tv):
    use(tv, log, HDMI, support=0x1F35)
    assert client.get_support() == (0x1F35, 0)
    write(tv, HDMI.level, 21)
    client.expect("SpeakerVolumeChanged", 0x1F35, 21)


def test_an_operation_without_its_bit_is_refused_until_the_device_publishes_it(log, client, tv):
    use(tv, log, HDMI, support=GET_VOLUME | GET_MUTE, level=33, mute=1)
    assert client.get_volume() == (33, 0)
    assert client.get_mute() == (1, 0)
    assert client.set_volume(44) == NOT_SUPPORTED
    assert client.set_mute(True) == NOT_SUPPORTED
    assert not tv.has(VOLUME_REQUEST)
    assert not tv.has(MUTE_REQUEST)
    write(tv, HDMI.support, EVERYTHING)
    assert client.set_volume(44) == 0
    assert client.set_mute(True) == 0
    client.expect_silence()


@pytest.mark.parametrize("word", [None, "all"])
def test_without_a_readable_support_word_everything_is_refused_but_the_word_itself_fails(log, client, tv, word):
    use(tv, log, HDMI, support=word)
    assert client.get_support() == (0, FAILED)
    assert client.get_volume() == (0, NOT_SUPPORTED)
    assert client.set_volume(40) == NOT_SUPPORTED
    assert client.get_mute() == (0, NOT_SUPPORTED)
    assert client.set_mute(True) == NOT_SUPPORTED
    assert not tv.has(VOLUME_REQUEST)
    write(tv, HDMI.support, EVERYTHING)
    assert client.get_volume() == (7, 0)


def test_a_device_that_publishes_its_state_only_later(log, client, tv):
    assert not tv.has("settings/db/usbsound")
    change_route(tv, log, 15)
    write(tv, USB.support, EVERYTHING)
    write(tv, USB.level, 20)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 20)
    write(tv, USB.mute, 1)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)


def test_while_the_support_word_is_missing_a_change_is_not_announced(log, client, tv):
    use(tv, log, HDMI)
    tv.remove(f"settings/{HDMI.support}")
    write(tv, HDMI.level, 20)
    log.settle()
    write(tv, HDMI.support, EVERYTHING)
    write(tv, HDMI.level, 21)
    client.expect("SpeakerVolumeChanged", EVERYTHING, 21)
    client.expect_silence()


# --- requests --------------------------------------------------------------------------------------------------------


def test_requests_of_every_output_land_in_the_shared_keys_and_only_the_device_changes_its_state(log, client, tv):
    for volume, output in enumerate(OUTPUTS, 30):
        use(tv, log, output, level=7, mute=0)
        assert client.set_volume(volume) == 0
        assert tv.read(VOLUME_REQUEST) == str(volume)
        assert client.set_mute(True) == 0
        assert tv.read(MUTE_REQUEST) == "1"
        # The device has not carried it out: its state is unchanged, and the daemon sends no signal.
        assert client.get_volume() == (7, 0)
        assert client.get_mute() == (0, 0)
        client.expect_silence()

        write(tv, output.level, tv.read(VOLUME_REQUEST))
        client.expect("SpeakerVolumeChanged", EVERYTHING, volume)
        write(tv, output.mute, tv.read(MUTE_REQUEST))
        client.expect("SpeakerMuteChanged", EVERYTHING, True)
        assert client.set_mute(False) == 0
        write(tv, output.mute, tv.read(MUTE_REQUEST))
        client.expect("SpeakerMuteChanged", EVERYTHING, False)
    assert (tv.read("audio/master_volume"), tv.read("audio/master_mute")) == ("10", "0")


def test_set_volume_while_muted_unmutes_and_leaves_the_gain(log, client, tv):
    use(tv, log, HDMI)
    write(tv, HDMI.mute, 1)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
    assert client.set_volume(33) == 0
    assert (tv.read(MUTE_REQUEST), tv.read(VOLUME_REQUEST)) == ("0", "33")
    assert tv.read("audio/main_out_gain2") == "40"


def test_a_request_that_cannot_be_written_fails(log, client, tv):
    use(tv, log, HDMI)
    for request in (VOLUME_REQUEST, MUTE_REQUEST):
        (tv.path / request).mkdir(parents=True)  # a folder where the file should be
    assert client.set_volume(33) == FAILED
    assert client.set_mute(True) == FAILED


# --- reports ---------------------------------------------------------------------------------------------------------


def test_every_change_of_level_and_mute_is_announced(log, client, tv):
    use(tv, log, HDMI)
    for level, announced in ((20, 20), (0, 0), (100, 100), ("  42\t", 42)):
        write(tv, HDMI.level, level)
        client.expect("SpeakerVolumeChanged", EVERYTHING, announced)
    for mute, announced in ((1, True), (0, False), (2, True)):
        write(tv, HDMI.mute, mute)
        client.expect("SpeakerMuteChanged", EVERYTHING, announced)
    write(tv, HDMI.mute, 1)  # after 2 this is no change
    client.expect_silence()


def test_a_level_that_the_last_output_had_too_is_no_change(log, client, tv):
    assert client.set_volume(30) == 0
    client.expect("SpeakerVolumeChanged", 0xFFFF, 30)
    use(tv, log, HDMI, level=7)
    write(tv, HDMI.level, 30)
    client.expect_silence()


def test_missing_values_fail_and_a_removal_is_no_report(log, client, tv):
    use(tv, log, HDMI, level=20, mute=1)
    tv.remove(f"settings/{HDMI.level}")
    tv.remove(f"settings/{HDMI.mute}")
    assert client.get_volume() == (0, FAILED)
    assert client.get_mute() == (0, FAILED)
    client.expect_silence()


@pytest.mark.parametrize("junk", ["", "99999999999"])
def test_junk_fails_to_be_read_and_is_announced_as_unreadable(log, client, tv, junk):
    use(tv, log, HDMI)
    write(tv, HDMI.level, junk)
    client.expect("SpeakerVolumeChanged", EVERYTHING, -1)
    write(tv, HDMI.mute, junk)
    client.expect("SpeakerMuteChanged", EVERYTHING, True)
    assert client.get_volume() == (0, FAILED)
    assert client.get_mute() == (0, FAILED)

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that the daemon handles any 32-bit integer correctly in each method and in each value of the TV."""
import errno

import pytest

from harness import TV_SUPPORT, change_at_rest, change_route

INT_MAX, INT_MIN = 2**31 - 1, -2**31
INTS = [INT_MIN, INT_MIN + 1, -65536, -1000, -101, -100, -4, -3, -2, -1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 99, 100, 101, 127,
        128, 255, 256, 1000, 65535, 65536, INT_MAX - 1, INT_MAX]
WITHOUT_OUTPUT = {INT_MIN, -65536, -1000, -100, -4, 0, 4, 8, 100, 128, 256, 1000, 65536}  # paths: both lowest bits are 0

OUT_OF_RANGE = -1000 - errno.ERANGE  # the platform's result
INVALID_ARGUMENT, NOT_SUPPORTED = -2, -4
MIRRORING = "settings/memory/menu/network/screenmirroring"
SUPPORT, LEVEL, MUTE = (f"{MIRRORING}/{key}_hdmi" for key in ("volume_support", "get_volume_level", "get_volume_mute"))
MAIN_GAIN, SUB_GAIN = "audio/main_out_gain2", "audio/sub_out_gain2"


def use_hdmi(tv, log):
    tv.echo(15, SUPPORT)
    tv.echo(7, LEVEL)
    tv.echo(0, MUTE)
    change_route(tv, log, 2)


# --- methods ---------------------------------------------------------------------------------------------------------


def test_volumes_on_the_tv_speaker(daemon, client, tv):
    volume = 10
    for wanted in INTS:
        expected = INVALID_ARGUMENT if wanted > 100 else OUT_OF_RANGE if wanted < 0 else 0
        assert client.set_volume(wanted) == expected
        volume = wanted if expected == 0 else volume
        assert client.get_volume() == (volume, 0)
        assert tv.read("audio/master_volume") == str(volume)


def test_volumes_on_an_external_and_on_an_unknown_output(log, client, tv):
    use_hdmi(tv, log)
    for route, volume in ((2, 7), (7, 0)):
        change_route(tv, log, route)
        for wanted in INTS:
            assert client.set_volume(wanted) == (INVALID_ARGUMENT if wanted > 100 else 0)
            assert client.get_volume() == (volume, 0)
        assert tv.read(f"{MIRRORING}/set_volume_level") == "100"


@pytest.mark.parametrize("method", ["ApplyPlayerFadeIn", "ApplyUnmuteFadeIn", "ResetPlayerGain"])
def test_paths(daemon, client, method):
    for muted in (False, True):
        client.set_mute(muted)
        for path in INTS:
            assert client.call(method, "i", path) == (INVALID_ARGUMENT if path in WITHOUT_OUTPUT else 0,)


def test_paths_and_gains_on_mute(daemon, client, tv):
    for path in INTS:
        for asked, gain in ((INT_MIN, 0), (-1000, -1000), (0, 0), (1, 1), (100, 100), (INT_MAX, 100)):
            wrong = path in WITHOUT_OUTPUT
            assert client.call("ApplyGainOnMute", "ii", path, asked) == (INVALID_ARGUMENT if wrong else 0,)
            assert tv.read(MAIN_GAIN) == ("100" if wrong else str(gain)), f"path {path}, gain {asked}"


def test_pulse_gains_at_once(daemon, client, tv):
    daemon.rest()
    for asked, gain in ((INT_MIN, 0), (INT_MIN + 1, 1), (-1000, -1000), (-1, -1), (99, 99), (100, 100)):
        client.emit("ApplyPulseAudioGain", "ii", asked, 0)
        tv.wait_until(SUB_GAIN, lambda gain=str(gain): tv.read(SUB_GAIN) == gain)  # is written last
        daemon.rest()
        assert tv.read(MAIN_GAIN) == str(gain)
    for above in (101, INT_MAX):  # are ignored
        client.emit("ApplyPulseAudioGain", "ii", above, 0)
        client.get_support()
        daemon.rest()
        assert tv.read(MAIN_GAIN) == "100"


# --- values ----------------------------------------------------------------------------------------------------------


def test_master_volumes_written_by_hand(daemon, client, tv):
    for volume in INTS:
        tv.echo(volume, "audio/master_volume")
        if not 0 <= volume <= 100:
            assert client.get_volume() == (0, OUT_OF_RANGE)
            continue
        if volume != 0:  # the daemon remembers 0 from its start
            client.expect("SpeakerVolumeChanged", TV_SUPPORT, volume)
        assert client.get_volume() == (volume, 0)
    client.expect_silence()


def test_levels_and_mutes_of_an_external_output(log, client, tv):
    use_hdmi(tv, log)
    muted = False
    for level in INTS:
        tv.echo(level, LEVEL)
        client.expect("SpeakerVolumeChanged", 15, level)
        assert client.get_volume() == (level, 0)
        tv.echo(level, MUTE)
        if muted != bool(level):
            muted = bool(level)
            client.expect("SpeakerMuteChanged", 15, muted)
        assert client.get_mute() == (int(muted), 0)
    client.expect_silence()


def test_support_words(log, client, tv):
    use_hdmi(tv, log)
    for word in INTS:
        tv.echo(word, SUPPORT)
        assert client.get_support() == (word, 0)
        assert client.get_volume() == ((7, 0) if word & 1 else (0, NOT_SUPPORTED))
        assert client.set_volume(30) == (0 if word & 2 else NOT_SUPPORTED)


def test_routes(log, client, tv):
    tv.echo(15, SUPPORT)
    for route in INTS:
        change_route(tv, log, route)
        expected = 15 if route in (2, 8) else TV_SUPPORT if route in (0, 6) else 0
        assert client.get_support()[0] == expected, route


def test_zones_and_focuses(log, client, tv):
    for zone in INTS:
        tv.echo(0, f"sound/zones/{zone}/route")
    tv.echo(1, "zones/focus")
    change_at_rest(tv, log, "settings/memory/multiscreen/info", '{"mode":"on"}')
    for zone in INTS:
        change_at_rest(tv, log, "zones/focus", zone)
        change_at_rest(tv, log, f"sound/zones/{zone}/route", 7)
        assert client.get_support() == (0, 0), zone
        change_at_rest(tv, log, f"sound/zones/{zone}/route", 0)
        assert client.get_support() == (TV_SUPPORT, 0), zone
    client.emit("SpkDisconnected", "is", 0, "box")
    client.get_support()  # its reply comes after the signal was handled
    assert {tv.read(f"sound/zones/{zone}/route") for zone in INTS} == {"7"}


def test_sub_bluetooth_zones_and_states_of_a_projector(scene, daemon, tv, client):
    daemon.kill()
    tv.echo("true", "features/com.norvik/featureconf/projector_feature_support")
    scene.start()
    held = "100"
    for number in INTS:
        tv.echo(number, "settings/memory/projector/status/ready")
        gain = "40" if held == "50" else "50"
        assert client.call("ApplyGainOnMute", "ii", 3, int(gain)) == (0,)
        held = gain if number != 0 else held
        assert tv.read(MAIN_GAIN) == held
    for number in INTS:
        tv.echo(number, "settings/memory/org.olvane.btapp/sub_audio_zoneid")
        assert client.call("ApplyGainOnMute", "ii", 2, 60) == (0,)
        assert tv.read(SUB_GAIN) == "60"
        assert client.call("ApplyGainOnMute", "ii", 1, 70) == (0,)
        assert (tv.read(MAIN_GAIN), tv.read(SUB_GAIN)) == ("70", "70" if number == -1 else "60")


def test_states_of_mirroring_and_of_the_optical_cable(log, client, tv):
    tv.echo(15, f"{MIRRORING}/volume_support_optical")
    mirrors = False
    for number in INTS:
        assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
        assert tv.read(MAIN_GAIN) == ("100" if mirrors else "40")
        change_at_rest(tv, log, f"{MIRRORING}/smsrc_status", number)
        mirrors = number != 0 if number >= 0 else mirrors
        change_route(tv, log, 1)
        change_at_rest(tv, log, "settings/memory/sysman/spdif", number)
        assert tv.read("sound/route") == ("0" if number == 0 else "1")


def test_gains_that_the_outputs_hold(daemon, client, tv):
    for held in INTS:
        tv.echo(held, MAIN_GAIN)
        assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)
        assert tv.read(MAIN_GAIN) == "40"

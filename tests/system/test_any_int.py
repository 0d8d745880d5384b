# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that the daemon handles any 32-bit integer correctly in each method, signal and value."""
import errno
import re
from itertools import product

import pytest

from harness import TV_SUPPORT, change

INT_MAX, INT_MIN = 2**31 - 1, -2**31
INTS = [INT_MIN, INT_MIN + 1, -2**24, -65536, -10001, -1000, -128, -101, -100, -99, -20, -10, -9, -5, -4, -3, -2, -1,
        0, 1, 2, 3, 4, 5, 6, 7, 9, 10, 11, 19, 20, 21, 50, 99, 100, 101, 127, 128, 255, 256, 1000, 10000, 65535, 65536,
        2**24, INT_MAX - 1, INT_MAX]
FEW = [INT_MIN, -1000, -1, 0, 1, 100, 101, INT_MAX]

OUT_OF_RANGE = -1000 - errno.ERANGE  # the platform's result
INVALID_ARGUMENT = -2
MIRRORING = "settings/memory/menu/network/screenmirroring"
SUPPORT, LEVEL, MUTE = (f"{MIRRORING}/{key}_hdmi" for key in ("volume_support", "get_volume_level", "get_volume_mute"))
MODE, FOCUS = "settings/memory/multiscreen/info", "zones/focus"
MAIN_GAIN = "audio/main_out_gain2"


def wrap(number):
    """Returns the number as a signed 32-bit integer, after overflow."""
    return (number + 2**31) % 2**32 - 2**31


def divide(number, divisor):
    """Returns the quotient, truncated toward zero as in C++."""
    quotient = abs(number) // divisor
    return quotient if number >= 0 else -quotient


def total(pulse=100, player=100, unmute=100):
    return divide(wrap(pulse * wrap(player * unmute)), 10000)


def is_valid_path(path):
    return path & 3 != 0


def use_hdmi(tv, daemon):
    tv.echo(15, SUPPORT)
    tv.echo(7, LEVEL)
    tv.echo(0, MUTE)
    tv.echo(2, "sound/route")
    daemon.log.wait(re.compile(r"Speaker changed\[0->2\]\. .*"))


# --- methods ---------------------------------------------------------------------------------------------------------


def test_volumes_on_the_tv_speaker(daemon, client, tv):
    volume = 10
    for wanted in INTS:
        expected = INVALID_ARGUMENT if wanted > 100 else OUT_OF_RANGE if wanted < 0 else 0
        assert client.set_volume(wanted) == expected
        volume = wanted if expected == 0 else volume
        assert client.get_volume() == (volume, 0)
        assert tv.read("audio/master_volume") == str(volume)


def test_volumes_on_an_external_output(daemon, client, tv):
    use_hdmi(tv, daemon)
    for wanted in INTS:
        assert client.set_volume(wanted) == (INVALID_ARGUMENT if wanted > 100 else 0)
    assert tv.read(f"{MIRRORING}/set_volume_level") == "100"


def test_volumes_on_an_unknown_output(daemon, client, tv):
    change(tv, daemon.log, "sound/route", 7, re.compile(r"Speaker changed\[0->7\]\. .*"))
    for wanted in INTS:
        assert client.set_volume(wanted) == (INVALID_ARGUMENT if wanted > 100 else 0)
        assert client.get_volume() == (0, 0)


@pytest.mark.parametrize("muted", [False, True])
@pytest.mark.parametrize("method", ["ApplyPlayerFadeIn", "ApplyUnmuteFadeIn", "ResetPlayerGain"])
def test_paths(daemon, client, method, muted):
    client.set_mute(muted)
    for path in INTS:
        assert client.call(method, "i", path) == (0 if is_valid_path(path) else INVALID_ARGUMENT,)


def test_paths_and_gains_on_mute(daemon, client, tv):
    unmute = 100
    for path, gain in product(FEW, INTS):
        valid = is_valid_path(path)
        assert client.call("ApplyGainOnMute", "ii", path, gain) == (0 if valid else INVALID_ARGUMENT,)
        if valid and gain <= 100:
            unmute = gain
        assert tv.read(MAIN_GAIN) == str(total(unmute=unmute)), f"path {path}, gain {gain}"


def test_gains_on_mute_on_top_of_any_pulse_gain(daemon, client, tv):
    for pulse in (gain for gain in FEW if gain <= 100):
        set_pulse(daemon, client, pulse)
        for unmute in (gain for gain in INTS if gain <= 100):
            assert client.call("ApplyGainOnMute", "ii", 3, unmute) == (0,)
            assert tv.read(MAIN_GAIN) == str(total(pulse=pulse, unmute=unmute)), f"pulse {pulse}, unmute {unmute}"


# --- signals ---------------------------------------------------------------------------------------------------------


def test_reasons_of_earbuds(daemon, client):
    for reason in INTS:
        before = daemon.log.end()
        client.emit("BudsConnected", "i", reason)
        client.emit("BudsDisconnected", "i", reason)
        client.expect("SpeakerChangeRequest", 0, 1)
        daemon.log.wait("Buds disconnected. Connect to previous(type:0)", before)
        assert daemon.log.find(f"Buds Connected. reason:{reason}", before)


def test_types_of_speakers_that_go(daemon, client):
    for kind in INTS:
        before = daemon.log.end()
        client.emit("SpkDisconnected", "is", kind, "box")
        daemon.log.wait("Set Speaker Output(0)", before)
        assert daemon.log.find(f"Speaker(type:{kind}):box disconnected. Connect to previous(type:0)", before)


def set_pulse(daemon, client, gain):
    """Sets the pulse gain without a ramp, and waits until the pulse worker sleeps again."""
    before = daemon.log.end()
    daemon.settle()
    client.emit("ApplyPulseAudioGain", "ii", gain, 0)
    daemon.log.wait("Sleep PulseRampH", before)


def test_pulse_gains_at_once(daemon, client, tv):
    pulse = 100
    for gain in INTS:
        set_pulse(daemon, client, gain)
        pulse = gain if gain <= 100 else pulse
        assert tv.read(MAIN_GAIN) == str(total(pulse=pulse)), f"gain {gain}"


def test_pulse_ramps_to_any_gain(daemon, client):
    pulse = 100
    target = 100
    for gain in INTS:
        target = gain if gain <= 100 else target
        before = daemon.log.end()
        daemon.settle()
        client.emit("ApplyPulseAudioGain", "ii", gain, 5)
        daemon.log.wait("Sleep PulseRampH", before)
        steps = [wrap(pulse + divide(wrap(step * wrap(target - pulse)), 10)) for step in range(1, 11)]
        ramped = [text for text in daemon.log.texts(before) if text.startswith("Remain[")]
        assert ramped == [f"Remain[{9 - done}]. gain:{step}" for done, step in enumerate(steps)], f"gain {gain}"
        pulse = ([pulse] + [step for step in steps if step <= 100])[-1]


def test_durations_of_pulse_ramps(daemon, client):
    for duration in INTS:
        if duration == 0:
            continue
        before = daemon.log.end()
        daemon.settle()
        client.emit("ApplyPulseAudioGain", "ii", 50, duration)
        timeout = divide(duration, 10) % 2**32
        daemon.log.wait(re.compile(rf"startVolume:-?\d+, remainCount:10, timeout:{timeout}"), before)
    daemon.settle()
    before = daemon.log.end()
    client.emit("ApplyPulseAudioGain", "ii", 50, 10)
    daemon.log.wait("Sleep PulseRampH", before)
    assert client.get_volume() == (10, 0)


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


def test_levels_and_mutes_of_an_external_output(daemon, client, tv):
    use_hdmi(tv, daemon)
    muted = False
    for level in INTS:
        tv.echo(level, LEVEL)
        if level != 0 or client.signals():
            client.expect("SpeakerVolumeChanged", 15, level)
        assert client.get_volume() == (level, 0)
        change(tv, daemon.log, MUTE, level, re.compile(r"(mute is same : \d|mute changed : \[\d\])"))
        if muted != bool(level):
            muted = bool(level)
            client.expect("SpeakerMuteChanged", 15, muted)
        assert client.get_mute() == (int(muted), 0)
    client.expect_silence()


def test_support_words(daemon, client, tv):
    use_hdmi(tv, daemon)
    for word in INTS:
        change(tv, daemon.log, SUPPORT, word, re.compile(rf"Volume support flag changed .* to 0x{word % 2**32:04x}"))
        assert client.get_support() == (word, 0)
        assert client.get_volume() == ((7, 0) if word & 1 else (0, -4))
        assert client.set_volume(30) == (0 if word & 2 else -4)


def test_routes(daemon, client, tv):
    tv.echo(15, SUPPORT)
    for route in INTS:
        if route == 0:
            continue
        change(tv, daemon.log, "sound/route", route, re.compile(rf"Type\(-?\d+->{route}\)"))
        assert client.get_support()[0] in (0, 15, TV_SUPPORT)
    assert client.get_support() == (0, 0)


def test_zones_and_focuses(daemon, client, tv):
    for zone in INTS:
        tv.echo(0, f"sound/zones/{zone}/route")
    tv.echo(1, FOCUS)
    change(tv, daemon.log, MODE, '{"mode":"on"}', "MSmode:on")
    focused = 1
    for zone in INTS:
        if zone != focused:
            found = change(tv, daemon.log, FOCUS, zone, f"Focus ({focused}->{zone})")
            daemon.log.wait(f"zoneID:{zone} route:0", found.number)
            focused = zone
        change(tv, daemon.log, f"sound/zones/{zone}/route", 12, f"Zone:{zone} Type(0->12)")
        change(tv, daemon.log, f"sound/zones/{zone}/route", 0, f"Zone:{zone} Type(12->0)")
    before = daemon.log.end()
    client.emit("SpkDisconnected", "is", 0, "box")
    daemon.log.wait("Set Speaker Output(12)", before)
    zones = [int(match[1]) for text in daemon.log.texts(before)
             if (match := re.match(r"\[Zone: *(-?\d+)\] Speaker Output\(12\)\. ret:0", text))]
    assert zones == sorted(INTS)


@pytest.mark.parametrize("key, logged", [
    ("memory/org.olvane.btapp/sub_audio_zoneid", "Key[memory/org.olvane.btapp/sub_audio_zoneid] Changed to {}"),
    ("memory/projector/status/ready", "Key[memory/projector/status/ready] Changed:{}, gain control is {}abled"),
])
def test_settings_of_the_gain_controller(scene, tv, client, key, logged):
    scene.start().kill()
    tv.echo("true", "features/com.norvik/featureconf/projector_feature_support")
    log = scene.start().log
    for number in INTS:
        change(tv, log, f"settings/{key}", number, logged.format(number, "En" if number else "Dis"))
        assert client.call("ApplyGainOnMute", "ii", 3, 40) == (0,)


def test_states_of_mirroring_and_of_the_optical_cable(daemon, tv):
    for number in INTS:
        expected = ("get vconf memory/menu/network/screenmirroring/smsrc_status error" if number < 0
                    else "TV To Mobile Enable" if number else "TV To Mobile Disable")
        change(tv, daemon.log, f"{MIRRORING}/smsrc_status", number, expected)
        before = daemon.log.end()
        tv.echo(number, "settings/memory/sysman/spdif")
        daemon.settle()
        said = [text for text in daemon.log.texts(before) if "pdif" in text]
        assert said == (["get vconf memory/sysman/spdif error"] if number < 0
                        else [] if number else ["Spdif cable is disconnected. route:0"])


def test_gains_that_the_outputs_hold(daemon, client, tv):
    for held in INTS:
        tv.echo(held, MAIN_GAIN)
        gain = 40 if held != 40 else 50
        assert client.call("ApplyGainOnMute", "ii", 3, gain) == (0,)
        assert tv.read(MAIN_GAIN) == str(gain)

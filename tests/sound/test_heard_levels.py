# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests volume and mute between the bus and the sound server, in both directions, by what is heard."""
import math
import random
import statistics

import pytest

from bridge import MUTE, SUPPORT_KEYS, VOLUME
from harness import TV_SUPPORT
from hearing import undisturbed

EVERYTHING = 15  # the support word of an external output whose sink is there
QUIETEST = 5  # a level whose sound is still well above the noise
# The decibels of some levels on a sound server, whose amplitude is the cube of the level.
DECIBELS = {QUIETEST: -78.062, 30: -31.373, 37: -25.908, 50: -18.062, 55: -15.578, 70: -9.294, 81: -5.491, 100: 0}


def heard_decibels(recording):
    end = recording.wait_for(0.1)
    moments = recording.moments(end - 4800, end)
    amplitude = statistics.median(moment.amplitude for moment in moments)
    return 20 * math.log10(max(amplitude, 1e-9) / 100)  # 0 when a busy machine has lost the samples


def wait_for_level(recording, level):
    if level == 0:
        recording.wait_until_silent()
    else:
        gain = 100 * 10 ** (DECIBELS[level] / 20)
        recording.wait_until(lambda amplitude: abs(20 * math.log10(max(amplitude, 1e-9) / gain)) < 0.5, f"level {level} is not heard")


def error_of(recording, level, say):
    """Returns by how many decibels the sound differs from the mapping of its level."""
    def scene():
        error = abs(heard_decibels(recording) - DECIBELS[level])
        assert error < 0.5
        return error

    return undisturbed(say, scene)


@pytest.fixture
def playing(sound):
    sound.start()
    sound.play()
    return sound


def test_at_first_contact_the_volume_of_the_server_wins(sound):
    sound.server.pactl("set-sink-volume", "speaker", "63%")
    sound.server.pactl("set-sink-mute", "speaker", "1")
    assert (sound.tv.read(VOLUME), sound.tv.read(MUTE)) == ("10", "0")
    sound.start()
    sound.client.expect("SpeakerVolumeChanged", TV_SUPPORT, 63)
    assert sound.client.take()[:1] == ("SpeakerMuteChanged",)
    assert sound.server.volume("speaker") == (63, True)


def test_a_volume_that_is_set_on_the_bus_is_heard_as_loud_as_the_server_says(playing, say):
    recording = playing.record("speaker")
    recording.wait_until_heard(99.5)
    errors = []
    for level in (50, QUIETEST, 0, 37, 81, 100):
        assert playing.client.set_volume(level) == 0
        wait_for_level(recording, level)
        playing.wait_for_volume("speaker", level)
        if level:
            errors.append(error_of(recording, level, say))
    say(f"at most {max(errors):.3f} dB from the mapping")


def test_a_change_by_another_program_is_announced_on_the_bus(playing):
    playing.client.forget()
    playing.server.pactl("set-sink-volume", "speaker", "40%")
    playing.client.expect("SpeakerVolumeChanged", TV_SUPPORT, 40)
    assert playing.tv.read(VOLUME) == "40"
    playing.server.pactl("set-sink-mute", "speaker", "1")
    playing.client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    playing.server.pactl("set-sink-mute", "speaker", "0")
    playing.client.expect("SpeakerMuteChanged", TV_SUPPORT, False)


@pytest.mark.parametrize("output", SUPPORT_KEYS)
def test_an_external_output_has_the_level_of_its_sink(playing, output, say):
    sink = output
    playing.server.pactl("set-sink-volume", sink, "55%")
    playing.switch(output)
    assert playing.tv.read(SUPPORT_KEYS[output]) == str(EVERYTHING)
    recording = playing.record(sink)
    wait_for_level(recording, 55)
    playing.client.forget()
    assert playing.client.set_volume(30) == 0  # a request to the device
    playing.client.expect("SpeakerVolumeChanged", EVERYTHING, 30)
    wait_for_level(recording, 30)
    error_of(recording, 30, say)
    assert playing.client.set_mute(True) == 0
    playing.client.expect("SpeakerMuteChanged", EVERYTHING, True)
    recording.wait_until_silent()
    playing.server.pactl("set-sink-mute", sink, "0")  # the device's own remote control
    playing.client.expect("SpeakerMuteChanged", EVERYTHING, False)
    playing.server.pactl("set-sink-volume", sink, "70%")
    playing.client.expect("SpeakerVolumeChanged", EVERYTHING, 70)
    wait_for_level(recording, 70)
    assert playing.server.volume("speaker") == (100, False)


def test_the_balance_of_a_sink_is_kept(playing):
    playing.server.pactl("set-sink-volume", "speaker", "80%", "40%")
    playing.client.forget()
    assert playing.client.set_volume(40) == 0
    def volumes():
        return [channel["value_percent"] for channel in playing.server.sink("speaker")["volume"].values()]
    playing.server.wait_until(lambda: volumes() == ["40%", "20%"], "40 % and 20 %")


def test_200_sets_from_both_sides_at_once_end_in_agreement(playing):
    dice = random.Random(7)
    for _ in range(100):
        playing.tv.echo(dice.randrange(101), VOLUME)
        playing.server.pactl("set-sink-volume", "speaker", f"{dice.randrange(101)}%")
    for last in (23, 77):  # each side has the last word once
        if last == 23:
            playing.server.pactl("set-sink-volume", "speaker", f"{last}%")
        else:
            playing.tv.echo(last, VOLUME)
        playing.server.wait_until(lambda last=last: playing.server.volume("speaker") == (last, False)
                                  and playing.tv.read(VOLUME) == str(last), f"both sides have {last}")


def test_each_level_comes_back_as_it_went(playing):
    for level in range(0, 101, 9):
        playing.tv.echo(level, VOLUME)
        playing.wait_for_volume("speaker", level)
        assert playing.tv.read(VOLUME) == str(level)

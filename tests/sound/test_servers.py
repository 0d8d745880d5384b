# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the tools of these tests: the servers are private and hold what they should, and the hearing measures right."""
import math

import pytest

from hearing import AMPLITUDE, RATE, TONE, Moment, Recording, Tone, envelope, hole_within, moments_of, plateaus, shift_within, undisturbed
from servers import SINKS


def sine(seconds, gain=lambda _second: 1.0, lost=None):
    """Returns a tone with a gain over time; `lost` is a range of samples to leave out."""
    samples = [AMPLITUDE * gain(n / RATE) * math.sin(2 * math.pi * TONE * n / RATE) for n in range(int(seconds * RATE))]
    if lost:
        del samples[lost.start:lost.stop]
    return samples


def test_the_amplitude_of_a_tone_is_measured():
    assert all(moment.amplitude == pytest.approx(30, abs=1e-6) for moment in moments_of(sine(0.1, lambda _: 0.3)))


@pytest.mark.parametrize("lost", [range(4000, 4480), range(4000, 4960), range(4000, 6400), range(4000, 5024)], ids=len)
def test_lost_samples_are_noticed(lost):
    assert shift_within(moments_of(sine(0.5, lost=lost))) is not None


@pytest.mark.parametrize("length, is_hole", [(0.001, True), (0.004, True), (0.01, False), (0.05, False)])
def test_a_hole_is_shorter_than_any_volume(length, is_hole):
    dipped = moments_of(sine(0.3, lambda second: 0.2 if 0.1 <= second < 0.1 + length else 0.5))
    assert (hole_within(dipped) is not None) == is_hole


def test_a_change_of_volume_is_not_taken_for_lost_samples():
    assert shift_within(moments_of(sine(0.5, lambda second: round(20 * second) / 20))) is None


def test_a_mute_is_not_taken_for_lost_samples():
    assert shift_within(moments_of(sine(0.5, lambda second: 0 if 0.1 < second < 0.2 else 1))) is None


def test_each_step_of_a_fade_is_a_plateau():
    assert [round(amplitude) for amplitude in plateaus([Moment(step, 0.0) for step in range(0, 101, 5) for _ in range(60)])
            ] == list(range(0, 101, 5))


def test_an_envelope_is_the_rms_of_its_windows():
    assert envelope([Moment(3, 0), Moment(4, 0)], window=2) == [pytest.approx(math.sqrt(12.5))]


def test_a_server_holds_its_sinks_and_no_other_program(server):
    assert {sink["name"] for sink in server.list("sinks")} >= set(SINKS)
    assert server.pactl("get-default-sink") == f"{SINKS[0]}\n"
    assert server.list("sink-inputs") == []


def test_a_server_that_was_killed_starts_again(server):
    server.kill()
    assert not server.path.exists()
    server.start()
    assert {sink["name"] for sink in server.list("sinks")} >= set(SINKS)


def test_what_a_program_plays_is_heard_with_its_amplitude(server, say, request):
    tone = Tone(server, SINKS[0])
    request.addfinalizer(tone.end)
    recording = Recording(server, SINKS[0])
    request.addfinalizer(recording.end)

    def scene():
        begin = recording.wait_until_heard(99)
        heard = envelope(recording.moments(begin, recording.wait_for(0.5)))
        assert max(heard) < 100.5 and min(heard) > 99.5

    undisturbed(say, scene)
    server.pactl("set-sink-volume", SINKS[0], "50%")
    server.pactl("set-sink-mute", SINKS[0], "1")
    recording.wait_until_silent()
    server.pactl("set-sink-mute", SINKS[0], "0")
    begin = recording.wait_until_heard(10)
    recording.wait_for(0.2)
    assert envelope(recording.moments(begin))[-1] == pytest.approx(12.5, abs=0.1)

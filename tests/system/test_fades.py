# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the gains that reach the outputs after requests: fades, immediate gains, pulse ramps, and their settings."""
import os
import re
import threading
import time

import pytest

from harness import PATIENCE, TV_SUPPORT, FolderWatch

INVALID_ARGUMENT = -2
MAIN, SUB, BOTH = 1, 2, 3  # audio paths
MAIN_GAIN, SUB_GAIN = "audio/main_out_gain2", "audio/sub_out_gain2"
FADE = list(range(0, 101, 5))
FADE_SECONDS = 1.5
COARSE = 0.02  # seconds by which the kernel's file times may be late

PROJECTOR = "features/com.norvik/featureconf/projector_feature_support"
READY = "settings/memory/projector/status/ready"
SUB_ZONE_KEY = "memory/org.olvane.btapp/sub_audio_zoneid"
POPUP_EVENT = "events/FadeInPopup"


@pytest.fixture
def daemon(scene):
    """A kavreld whose gain workers are at rest."""
    daemon = scene.start()
    daemon.rest()
    return daemon


def start_with(scene, tv, **values):
    """Starts a kavreld on a TV with these values, and waits until its gain workers are at rest."""
    scene.start().kill()
    for value, text in values.items():
        tv.echo(text, value)
    daemon = scene.start()
    daemon.rest()
    return daemon


def mute(client):
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)


def gains(tv):
    return int(tv.read(MAIN_GAIN)), int(tv.read(SUB_GAIN))


def is_subsequence(part, whole):
    rest_of_whole = iter(whole)
    return all(item in rest_of_whole for item in part)


class Recording:
    """Records the numbers in a value as another program sees them, each with the file's modification time."""

    def __init__(self, tv, value):
        self.file = tv.path / value
        self.items = []
        self.over = threading.Event()

    def __enter__(self):
        self.watch = FolderWatch(self.file.parent)
        self._look()
        self.thread = threading.Thread(target=self._record)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        nudge = self.file.with_name(".unused-value")  # its creation wakes the thread
        nudge.touch()
        self.thread.join()
        nudge.unlink()

    def _record(self):
        with self.watch:
            while not self.over.is_set():
                self._look()
                self.watch.wait(time.monotonic() + PATIENCE)
            self._look()

    def _look(self):
        with open(self.file) as file:
            item = (int(file.read()), os.fstat(file.fileno()).st_mtime)
        if not self.items or item != self.items[-1]:
            self.items.append(item)

    def numbers(self):
        return [number for number, _ in self.items]

    def assert_fade(self, asked):
        """Checks that since then the output went from 0 in steps of 5 to 100."""
        first, *numbers = self.numbers()
        assert first == numbers[-1] == 100
        assert is_subsequence(numbers, FADE)  # a loaded machine may skip some steps, and this program others
        assert self.items[-1][1] - asked >= 19 * 0.075 - COARSE  # the worker stores 20 gains 75 ms apart


# --- fades -----------------------------------------------------------------------------------------------------------


def test_player_fades_of_both_outputs_run_side_by_side(daemon, client, tv, capsys):
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        asked = time.time()
        assert client.call("ApplyPlayerFadeIn", "i", MAIN) == (0,)
        assert client.call("ApplyPlayerFadeIn", "i", SUB) == (0,)
        daemon.rest()
    main.assert_fade(asked)
    sub.assert_fade(asked)
    with capsys.disabled():
        print(f" [{len(main.items) - 1} of 21 gains seen, 100 written {main.items[-1][1] - asked:.3f} s after the request]",
              end=" ")


def test_a_fade_of_the_player_touches_its_own_output_only(daemon, client, tv):
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        assert client.call("ApplyPlayerFadeIn", "i", SUB) == (0,)
        tv.wait_until(SUB_GAIN, lambda: int(tv.read(SUB_GAIN)) >= 5)
        assert client.call("ResetPlayerGain", "i", SUB) == (0,)
        daemon.rest()
    assert main.numbers() == [100]
    assert sub.numbers()[0] == sub.numbers()[-1] == 100


@pytest.mark.parametrize("unmute", [lambda client: client.call("ApplyUnmuteFadeIn", "i", SUB) == (0,),
                                    lambda client: client.set_mute(False) == 0], ids=["request", "unmuted"])
def test_a_muted_tv_fades_both_outputs_in(daemon, client, tv, unmute):
    mute(client)
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        asked = time.time()
        assert unmute(client)
        daemon.rest()
    main.assert_fade(asked)
    sub.assert_fade(asked)


def test_an_unmute_fade_while_not_muted_brings_the_full_gain_back_at_once(daemon, client, tv):
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    assert client.call("ApplyUnmuteFadeIn", "i", SUB) == (0,)
    assert gains(tv) == (100, 100)


# --- immediate gains -------------------------------------------------------------------------------------------------


def test_a_gain_on_mute_reaches_both_outputs_before_the_reply(daemon, client, tv):
    for path, gain in ((MAIN, 40), (SUB, 60), (BOTH, 0), (BOTH, 100), (BOTH, -5), (5, 25)):
        assert client.call("ApplyGainOnMute", "ii", path, gain) == (0,)
        assert gains(tv) == (gain, gain)
    for above in (101, 2**31 - 1):  # is ignored
        assert client.call("ApplyGainOnMute", "ii", BOTH, above) == (0,)
        assert gains(tv) == (25, 25)


def test_an_output_that_cannot_be_written_fails_and_leaves_the_other(daemon, client, tv):
    tv.remove(MAIN_GAIN)
    (tv.path / MAIN_GAIN / "in-the-way").mkdir(parents=True)
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (-1,)
    daemon.rest()
    assert tv.read(SUB_GAIN) == "100"


def test_a_path_without_an_output_is_an_invalid_argument_of_every_gain_method(daemon, client, tv):
    def refused(path):
        return [client.call("ApplyPlayerFadeIn", "i", path), client.call("ApplyUnmuteFadeIn", "i", path),
                client.call("ResetPlayerGain", "i", path), client.call("ApplyGainOnMute", "ii", path, 40)]

    for path in (0, 4, -4, 2**30, -2**31):
        assert refused(path) == 4 * [(INVALID_ARGUMENT,)]
    mute(client)
    assert client.call("ApplyUnmuteFadeIn", "i", 0) == (INVALID_ARGUMENT,)
    daemon.rest()
    assert gains(tv) == (100, 100)


# --- the pulse gain --------------------------------------------------------------------------------------------------


def test_a_pulse_gain_reaches_both_outputs_in_ten_equal_steps_or_without_duration_at_once(daemon, client, tv):
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        client.emit("ApplyPulseAudioGain", "ii", 20, 1000)
        tv.wait_until(SUB_GAIN, lambda: gains(tv) == (20, 20))
    for recording in (main, sub):
        assert is_subsequence(recording.numbers(), [100, 92, 84, 76, 68, 60, 52, 44, 36, 28, 20])

    daemon.rest()
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        client.emit("ApplyPulseAudioGain", "ii", 50, 0)
        tv.wait_until(SUB_GAIN, lambda: gains(tv) == (50, 50))
    assert main.numbers() == sub.numbers() == [20, 50]


# --- the projector ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("ready", ["0", None])
def test_a_projector_keeps_its_gains_until_it_is_ready(scene, tv, client, ready):
    values = {PROJECTOR: "true", MAIN_GAIN: 7, SUB_GAIN: 8, **({READY: ready} if ready else {})}
    daemon = start_with(scene, tv, **values)
    assert gains(tv) == (100, 100)  # the start gain is written even so
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    assert gains(tv) == (100, 100)

    daemon.rest()
    tv.echo(1, READY)
    daemon.rest()
    assert gains(tv) == (100, 100)  # until the next write
    assert client.call("ResetPlayerGain", "i", BOTH) == (0,)
    assert gains(tv) == (40, 40)

    daemon.rest()
    tv.echo(0, READY)
    assert client.call("ApplyGainOnMute", "ii", BOTH, 60) == (0,)
    daemon.rest()
    assert gains(tv) == (40, 40)

    tv.echo("soon", READY)  # no number means that it is ready
    assert client.call("ApplyGainOnMute", "ii", BOTH, 80) == (0,)
    assert gains(tv) == (80, 80)


@pytest.mark.parametrize("values", [{}, {PROJECTOR: "true", READY: -1}], ids=["no projector", "ready"])
def test_without_a_projector_that_is_not_ready_gains_are_followed(scene, tv, client, values):
    start_with(scene, tv, **{READY: 0, **values})
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    assert gains(tv) == (40, 40)


# --- the sub output's Bluetooth zone ---------------------------------------------------------------------------------


@pytest.fixture
def sub_zone(scene, tv):
    """A kavreld on a TV whose sub output is a Bluetooth zone."""
    return start_with(scene, tv, **{f"settings/{SUB_ZONE_KEY}": 3, MAIN_GAIN: 7, SUB_GAIN: 8})


def test_with_a_sub_zone_an_unmute_gain_or_fade_stays_on_its_output(sub_zone, tv, client):
    assert gains(tv) == (100, 100)  # the start gain goes to both
    assert client.call("ApplyGainOnMute", "ii", MAIN, 40) == (0,)
    assert gains(tv) == (40, 100)
    assert client.call("ApplyGainOnMute", "ii", SUB, 50) == (0,)
    assert gains(tv) == (40, 50)
    assert client.call("ApplyGainOnMute", "ii", BOTH, 60) == (0,)
    assert gains(tv) == (60, 50)

    sub_zone.rest()
    mute(client)
    assert client.call("ApplyUnmuteFadeIn", "i", SUB) == (0,)
    tv.wait_until(SUB_GAIN, lambda: tv.read(SUB_GAIN) == "100")
    assert gains(tv) == (60, 100)


def test_a_sub_zone_that_comes_and_goes_is_followed_and_nothing_is_applied_by_it(daemon, client, tv):
    assert client.call("ApplyGainOnMute", "ii", MAIN, 40) == (0,)
    assert gains(tv) == (40, 40)
    tv.echo(3, f"settings/{SUB_ZONE_KEY}")
    daemon.rest()
    assert gains(tv) == (40, 40)
    assert client.call("ApplyGainOnMute", "ii", MAIN, 60) == (0,)
    assert gains(tv) == (60, 40)

    tv.echo(-1, f"settings/{SUB_ZONE_KEY}")
    assert client.call("ApplyGainOnMute", "ii", MAIN, 80) == (0,)
    assert gains(tv) == (80, 80)


# --- the popup -------------------------------------------------------------------------------------------------------


@pytest.fixture
def popups(client):
    client.listen_to("org.olvane.kv_popupnoti")
    return client


def test_a_finished_fade_is_announced_with_its_duration_while_popups_are_wanted(daemon, popups, tv):
    tv.echo("done", POPUP_EVENT)
    mute(popups)
    popups.call("ApplyUnmuteFadeIn", "i", BOTH)  # each of its outputs has its own popup
    announced = dict(re.fullmatch(r"Gain Source:(\w+)<br> Duration\(sec\):(\d+\.?\d*)", popups.take()[1]).groups()
                     for _ in range(2))
    assert sorted(announced) == ["UnMuteMainOutH", "UnMuteSubOutH"]
    for seconds in announced.values():
        assert float(seconds) >= FADE_SECONDS
        assert len(seconds.replace(".", "")) <= 6  # six digits, as a C++ stream prints a double
    assert popups.heard_from[-1] == ("/Org/Olvane/KVPopupNoti", "org.olvane.kv_popupnoti", "s")

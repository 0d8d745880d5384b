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

FADE_WORKERS = ["PlayerMainOutH", "PlayerSubOutH", "UnMuteMainOutH", "UnMuteSubOutH"]
SLEEP = {"PulseRampH": "Sleep PulseRampH", "AudioGainOutH": "Sleep AudioGainOut",
         **{worker: f"Sleep {worker}" for worker in FADE_WORKERS}}
WAKE = {"PulseRampH": "Wake PulseRampH", "AudioGainOutH": "AudioGainOut. Update",
        **{worker: f"Wake {worker}." for worker in FADE_WORKERS}}

PROJECTOR = "features/com.norvik/featureconf/projector_feature_support"
READY_KEY = "memory/projector/status/ready"
SUB_ZONE_KEY = "memory/org.olvane.btapp/sub_audio_zoneid"
TV2MOBILE_KEY = "memory/menu/network/screenmirroring/smsrc_status"
POPUP_EVENT = "events/FadeInPopup"

invalid_path = pytest.mark.parametrize("path", [0, 4, 8, -4, 2**30, -2**31])


def sleeps(log, worker):
    """Returns whether the worker's last line says that it sleeps."""
    words = [text for text in log.texts() if text == SLEEP[worker] or text.startswith(WAKE[worker])]
    return bool(words) and words[-1] == SLEEP[worker]


def rest(daemon):
    """Waits until all six workers wait for a request; they can miss an earlier one."""
    deadline = time.monotonic() + PATIENCE
    with FolderWatch(daemon.log.path.parent) as watch:
        while True:
            logged = len(daemon.log.raw_lines())
            if all(sleeps(daemon.log, worker) for worker in SLEEP):
                # A worker logs that before it waits. If nothing is logged until all threads sleep, none has woken again.
                if daemon.log.end() + 1 == logged:
                    return
            else:
                assert watch.wait(deadline), f"the gain workers do not come to rest within {PATIENCE} s"


@pytest.fixture
def daemon(scene):
    """A kavreld whose gain workers are at rest."""
    daemon = scene.start()
    rest(daemon)
    return daemon


def start_with(scene, tv, **values):
    """Starts a kavreld on a TV with these values, and waits until its gain workers are at rest."""
    scene.start().kill()
    for value, text in values.items():
        tv.echo(text, value)
    daemon = scene.start()
    rest(daemon)
    return daemon


def mute(client):
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)


def gains(tv):
    return int(tv.read(MAIN_GAIN)), int(tv.read(SUB_GAIN))


def written(log, path, after=-1):
    """Returns all gains that kavreld wrote to an output, in order."""
    prefix = f"[Path:{path:02}] gain2:"
    return [int(text.removeprefix(prefix)) for text in log.texts(after) if text.startswith(prefix)]


def is_subsequence(part, whole):
    rest_of_whole = iter(whole)
    return all(item in rest_of_whole for item in part)


def wait_for_step(log, path, gain, after):
    """Waits until a fade has written this gain or a higher one: a loaded machine may skip some steps."""
    steps = "|".join(str(step) for step in FADE if step >= gain)
    log.wait_matching(rf"\[Path:{path:02}\] gain2:({steps})", after)


class Recording:
    """Records the numbers in a value as another program sees them, each with the file's modification time."""

    def __init__(self, tv, value):
        self.file = tv.path / value
        self.items = []
        self.over = threading.Event()

    def __enter__(self):
        self.watch = FolderWatch(self.file.parent)
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

    def time_of(self, number):
        return dict(self.items)[number]


# --- fades -----------------------------------------------------------------------------------------------------------


def test_a_fade_shows_on_the_output_as_0_then_5_to_100_without_a_step_back(daemon, client, tv, capsys):
    before = daemon.log.end()
    with Recording(tv, MAIN_GAIN) as recording:
        asked = time.time()
        assert client.call("ApplyPlayerFadeIn", "i", MAIN) == (0,)
        woke = daemon.log.wait("Wake PlayerMainOutH. gain:0", before)
        seen_awake = time.time()
        daemon.log.wait("handlerGainType:2, LastGain:100", woke.number)
        seen_full = time.time()
        rest(daemon)

    all_written = written(daemon.log, MAIN, before)
    assert (all_written[0], all_written[-1]) == (0, 100)
    assert is_subsequence(all_written, FADE)  # a loaded machine may skip some steps
    assert recording.numbers()[0] == 100
    assert is_subsequence(recording.numbers()[1:], all_written)
    assert recording.numbers()[-1] == 100
    # The worker stores 20 gains 75 ms apart, writes the last one at most 60 ms later, and checks it 75 ms after that.
    assert recording.time_of(100) - asked >= 19 * 0.075 - COARSE
    assert seen_full - asked >= FADE_SECONDS
    assert seen_full - seen_awake < FADE_SECONDS + PATIENCE
    with capsys.disabled():
        print(f" [{len(recording.items) - 1} of 21 gains seen, 100 written {recording.time_of(100) - asked:.3f} s after"
              f" the request, LastGain {seen_full - seen_awake:.3f} s after Wake]", end=" ")


def test_a_fade_of_the_player_touches_its_own_output_only(daemon, client, tv):
    before = daemon.log.end()
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        assert client.call("ApplyPlayerFadeIn", "i", SUB) == (0,)
        daemon.log.wait("handlerGainType:3, LastGain:100", before)
        rest(daemon)
    assert main.numbers() == [100]
    assert is_subsequence(written(daemon.log, SUB, before), FADE)
    assert is_subsequence(sub.numbers()[1:], FADE)
    assert gains(tv) == (100, 100)


@pytest.mark.parametrize("path", [BOTH, 5, -1, 2**31 - 1])
def test_any_path_with_the_main_bit_fades_the_players_main_output(daemon, client, path):
    before = daemon.log.end()
    assert client.call("ApplyPlayerFadeIn", "i", path) == (0,)
    daemon.log.wait("Wake PlayerMainOutH. gain:0", before)
    rest(daemon)
    assert written(daemon.log, MAIN, before)[-1] == 100
    assert written(daemon.log, SUB, before) == []
    assert not any("PlayerSubOutH" in text for text in daemon.log.texts(before))


def test_what_the_player_fade_logs_from_call_to_sleep(daemon, client):
    before = daemon.log.end()
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    rest(daemon)
    handler = [("I", "_HandleApplyVolumeFadeIn", "Apply Player VolumeFadeIn. path:1"),
               ("I", "_HandleApplyVolumeFadeIn", "Doen Apply Player VolumeFadeIn. ret:0")]
    assert [(line.priority, line.function, line.text) for line in daemon.log.lines(before)
            if line.text.endswith(("VolumeFadeIn. path:1", "VolumeFadeIn. ret:0"))] == handler
    worker = ["Wake PlayerMainOutH. gain:0", "handlerGainType:2, LastGain:100", "Sleep PlayerMainOutH"]
    assert [line.text for line in daemon.log.lines(before) if line.function == "FadeInGainHandler"] == worker
    # The gain-out worker reads the flags after the fade worker has set its own: only the main output moves.
    assert [line.text for line in daemon.log.lines(before) if line.function == "AudioGainOutHandler"] == [
        "AudioGainOut. Update(M:1/S:0)", "Sleep AudioGainOut"]


@pytest.mark.parametrize("path", [MAIN, SUB, BOTH])
def test_the_unmute_fade_of_a_muted_tv_moves_both_outputs_whatever_the_path(daemon, client, path):
    mute(client)
    before = daemon.log.end()
    assert client.call("ApplyUnmuteFadeIn", "i", path) == (0,)
    rest(daemon)
    for output in (MAIN, SUB):
        assert written(daemon.log, output, before)[0] == 0
        assert written(daemon.log, output, before)[-1] == 100
        assert is_subsequence(written(daemon.log, output, before), FADE)
    for worker, slot in (("UnMuteMainOutH", 4), ("UnMuteSubOutH", 5)):
        own = [f"Wake {worker}. gain:0", f"handlerGainType:{slot}, LastGain:100", f"Sleep {worker}"]
        assert [text for text in daemon.log.texts(before) if text in own] == own
    assert daemon.log.find(f"Apply Unmute VolumeFadeIn. path:{path}", before)
    assert daemon.log.find("Doen Apply Unmute VolumeFadeIn. ret:0", before)


def test_unmuting_the_tv_speaker_fades_both_outputs_in(daemon, client):
    mute(client)
    before = daemon.log.end()
    assert client.set_mute(False) == 0
    rest(daemon)
    assert is_subsequence(written(daemon.log, MAIN, before), FADE)
    assert is_subsequence(written(daemon.log, SUB, before), FADE)
    assert written(daemon.log, MAIN, before)[-1] == written(daemon.log, SUB, before)[-1] == 100
    assert daemon.log.find("Apply unmute fadein. ret=0x0", before)


@pytest.mark.parametrize("path", [MAIN, SUB, BOTH])
def test_an_unmute_fade_while_not_muted_brings_the_full_gain_back_at_once(daemon, client, tv, path):
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    rest(daemon)
    before = daemon.log.end()
    assert client.call("ApplyUnmuteFadeIn", "i", path) == (0,)
    assert gains(tv) == (100, 100)
    line = daemon.log.find("UnMute State, Recover gain instead of FadeIn", before)
    assert (line.priority, line.function) == ("W", "ApplyVolumeFadeIn")
    rest(daemon)
    assert not any(text.startswith("Wake ") for text in daemon.log.texts(before))


def test_a_second_fade_during_the_first_starts_again_from_0_without_another_wake(daemon, client):
    before = daemon.log.end()
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    wait_for_step(daemon.log, MAIN, 20, before)
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    rest(daemon)
    numbers = written(daemon.log, MAIN, before)
    again = numbers.index(0, 1)
    assert is_subsequence(numbers[:again], FADE)
    assert is_subsequence(numbers[again:], FADE)
    assert numbers[-1] == 100
    assert [text for text in daemon.log.texts(before) if "Wake PlayerMainOutH" in text] == [
        "Wake PlayerMainOutH. gain:0"]


def test_player_fades_of_both_outputs_run_side_by_side(daemon, client):
    before = daemon.log.end()
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    client.call("ApplyPlayerFadeIn", "i", SUB)
    rest(daemon)
    for output in (MAIN, SUB):
        assert is_subsequence(written(daemon.log, output, before), FADE)
        assert written(daemon.log, output, before)[-1] == 100
    last = [text for text in daemon.log.texts(before) if text.endswith("LastGain:100")]
    assert sorted(last) == ["handlerGainType:2, LastGain:100", "handlerGainType:3, LastGain:100"]


# --- immediate gains -------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("path, gain", [(MAIN, 40), (SUB, 60), (BOTH, 0), (BOTH, 100), (BOTH, -5), (5, 25)])
def test_a_gain_on_mute_reaches_both_outputs_before_the_reply(daemon, client, tv, path, gain):
    before = daemon.log.end()
    assert client.call("ApplyGainOnMute", "ii", path, gain) == (0,)
    assert gains(tv) == (gain, gain)
    wanted = [f"Apply GainOnMute path:{path} gain:{gain}", f"Done Apply GainOnMute:{gain}. ret:0"]
    assert [line.text for line in daemon.log.lines(before) if line.function == "_OnApplyGainOnMute"] == wanted


@pytest.mark.parametrize("gain", [101, 1000, 2**31 - 1])
def test_a_gain_above_the_maximum_is_ignored(daemon, client, tv, gain):
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    assert client.call("ApplyGainOnMute", "ii", BOTH, gain) == (0,)
    assert gains(tv) == (40, 40)


def test_the_total_is_the_product_of_the_three_gains_truncated(daemon, client, tv):
    before = daemon.log.end()
    client.emit("ApplyPulseAudioGain", "ii", 99, 0)
    daemon.log.wait("[Path:02] gain2:99", before)
    rest(daemon)
    client.call("ApplyGainOnMute", "ii", BOTH, 33)
    assert gains(tv) == (32, 32)  # 99 x 100 x 33 / 10000 = 32.67
    totals = [line.text for line in daemon.log.lines(before) if line.function == "GetAudioGain"]
    assert "Path:1 player:100 pulse: 99 unmute: 33 Total: 32" in totals
    assert "Path:2 player:100 pulse: 99 unmute: 33 Total: 32" in totals


def test_reset_player_gain_ends_a_fade_at_the_full_gain(daemon, client):
    before = daemon.log.end()
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    wait_for_step(daemon.log, MAIN, 10, before)
    assert client.call("ResetPlayerGain", "i", MAIN) == (0,)
    rest(daemon)
    numbers = written(daemon.log, MAIN, before)
    assert numbers[-1] == 100
    assert numbers[-2] < 90  # so the last number is not a step of the fade
    assert daemon.log.texts(before).count("handlerGainType:2, LastGain:100") == 1
    wanted = ["Reset PlayerGain. path:1", "Done Reset PlayerGain:MAX. ret:0"]
    assert [line.text for line in daemon.log.lines(before) if line.function == "_OnResetPlayerGain"] == wanted


def test_a_gain_on_mute_cuts_an_unmute_fade_short_and_stays(daemon, client, tv):
    mute(client)
    before = daemon.log.end()
    client.call("ApplyUnmuteFadeIn", "i", BOTH)
    wait_for_step(daemon.log, SUB, 15, before)
    assert client.call("ApplyGainOnMute", "ii", BOTH, 1) == (0,)
    rest(daemon)
    assert gains(tv) == (1, 1)
    for slot in (4, 5):  # a worker's step before the new gain may still log the fade's gain
        theirs = re.compile(rf"(Interruptable status\[type:{slot}\]|handlerGainType:{slot},)")
        cut = [text for text in daemon.log.texts(before) if theirs.match(text)]
        last = cut[-1].rpartition(":")[2]
        assert last == "1" or 15 <= int(last) < 100
        assert cut == [f"Interruptable status[type:{slot}]. gain:{last}", f"handlerGainType:{slot}, LastGain:{last}"]


def test_a_player_fade_is_never_cut_short(daemon, client):
    before = daemon.log.end()
    client.call("ApplyPlayerFadeIn", "i", MAIN)
    wait_for_step(daemon.log, MAIN, 15, before)
    client.call("ApplyGainOnMute", "ii", BOTH, 50)
    rest(daemon)
    assert not any(text.startswith("Interruptable") for text in daemon.log.texts(before))
    assert daemon.log.find("handlerGainType:2, LastGain:100", before)
    assert written(daemon.log, MAIN, before)[-1] == 50


def test_a_gain_wakes_the_gain_out_worker_for_one_round(daemon, client):
    before = daemon.log.end()
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    rest(daemon)
    rounds = [line.text for line in daemon.log.lines(before) if line.function == "AudioGainOutHandler"]
    assert rounds == ["AudioGainOut. Update(M:0/S:0)", "Sleep AudioGainOut"]
    assert written(daemon.log, MAIN, before) == [40]  # a gain that the hardware already has is not written again


def test_an_output_that_cannot_be_written_fails_and_wakes_no_worker(daemon, client, tv):
    tv.remove(MAIN_GAIN)
    (tv.path / MAIN_GAIN / "in-the-way").mkdir(parents=True)
    before = daemon.log.end()
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (-1,)
    failed = daemon.log.find("Failed to set SetAudioGain(type:4) path:1. gain:40", before)
    assert (failed.priority, failed.function) == ("E", "_ApplyAudioGain")
    assert daemon.log.find(re.compile(r"Failed to set gain2\(40\)\. ret:-1\d{3}"), before).priority == "E"
    assert tv.read(SUB_GAIN) == "100"
    rest(daemon)
    assert not any(text.startswith("AudioGainOut.") for text in daemon.log.texts(before))


@invalid_path
def test_a_path_without_an_output_is_an_invalid_argument_of_every_gain_method(daemon, client, tv, path):
    before = daemon.log.end()
    assert client.call("ApplyPlayerFadeIn", "i", path) == (INVALID_ARGUMENT,)
    assert client.call("ApplyUnmuteFadeIn", "i", path) == (INVALID_ARGUMENT,)
    assert client.call("ResetPlayerGain", "i", path) == (INVALID_ARGUMENT,)
    assert client.call("ApplyGainOnMute", "ii", path, 40) == (INVALID_ARGUMENT,)
    mute(client)
    assert client.call("ApplyUnmuteFadeIn", "i", path) == (INVALID_ARGUMENT,)

    refused = [line for line in daemon.log.lines(before) if line.text == f"Invalid audioPath:{path}"]
    assert [(line.priority, line.function) for line in refused] == [
        ("E", "ApplyVolumeFadeIn"), *3 * [("E", "ApplyAudioGain")], ("E", "ApplyVolumeFadeIn")]
    rest(daemon)
    assert gains(tv) == (100, 100)
    assert not any(text.startswith("Wake ") for text in daemon.log.texts(before))


# --- the pulse gain --------------------------------------------------------------------------------------------------


def pulse(daemon, client, gain, duration):
    """Requests a pulse gain and waits until it is reached; returns the number of the last line before the request."""
    rest(daemon)
    before = daemon.log.end()
    client.emit("ApplyPulseAudioGain", "ii", gain, duration)
    daemon.log.wait("Wake PulseRampH", before)
    rest(daemon)
    return before


def pulse_lines(log, after):
    return [line.text for line in log.lines(after) if line.function == "PulseGainHandler"]


def test_a_pulse_gain_without_duration_is_written_at_once_by_its_worker(daemon, client, tv):
    before = pulse(daemon, client, 50, 0)
    assert gains(tv) == (50, 50)
    assert pulse_lines(daemon.log, before) == ["Wake PulseRampH", "remain count is 0, Nothing to do!",
                                               "Sleep PulseRampH"]
    wanted = ["Apply PulseAudioGain 50, duration 0", "Done Apply PulseAudioGain 50, duration 0. ret:0"]
    assert [line.text for line in daemon.log.lines(before) if line.function == "_OnApplyPulseAudioGain"] == wanted


def ramp_lines(start, gains_of_steps, timeout):
    lines = ["Wake PulseRampH", f"startVolume:{start}, remainCount:10, timeout:{timeout}"]
    for remain, gain in zip(range(9, -1, -1), gains_of_steps):
        lines += [f"remain count is {remain + 1}, timedwait {timeout}", f"Remain[{remain}]. gain:{gain}"]
    return [*lines, "remain count is 0, Nothing to do!", "Sleep PulseRampH"]


def test_a_pulse_ramp_takes_ten_equal_steps(daemon, client, tv):
    with Recording(tv, MAIN_GAIN) as main, Recording(tv, SUB_GAIN) as sub:
        before = pulse(daemon, client, 20, 1000)
    steps = [92, 84, 76, 68, 60, 52, 44, 36, 28, 20]
    assert pulse_lines(daemon.log, before) == ramp_lines(100, steps, 100)
    for recording in (main, sub):
        assert is_subsequence(recording.numbers(), [100, *steps])
    assert gains(tv) == (20, 20)


def test_a_pulse_ramp_goes_up_too_and_its_steps_are_truncated(daemon, client, tv):
    pulse(daemon, client, 1, 0)
    before = pulse(daemon, client, 100, 50)
    assert pulse_lines(daemon.log, before) == ramp_lines(1, [10, 20, 30, 40, 50, 60, 70, 80, 90, 100], 5)
    assert gains(tv) == (100, 100)


def test_a_ramp_shorter_than_ten_milliseconds_steps_without_a_pause(daemon, client, tv):
    before = pulse(daemon, client, 20, 5)
    assert pulse_lines(daemon.log, before) == ramp_lines(100, [92, 84, 76, 68, 60, 52, 44, 36, 28, 20], 0)
    assert gains(tv) == (20, 20)


def test_a_refused_target_leaves_the_last_one_in_force(daemon, client, tv):
    pulse(daemon, client, 40, 0)
    before = pulse(daemon, client, 101, 5000)
    assert daemon.log.find("Done Apply PulseAudioGain 101, duration 5000. ret:0", before)
    assert pulse_lines(daemon.log, before) == ["Wake PulseRampH", "remain count is 0, Nothing to do!",
                                               "Sleep PulseRampH"]
    assert gains(tv) == (40, 40)


def test_a_request_during_a_ramp_starts_ten_steps_anew_from_where_it_is(daemon, client, tv):
    before = daemon.log.end()
    client.emit("ApplyPulseAudioGain", "ii", 0, -10)  # each step would take seven weeks
    daemon.log.wait("remain count is 10, timedwait 4294967295", before)
    daemon.settle()
    client.emit("ApplyPulseAudioGain", "ii", 50, 10)
    daemon.log.wait("Remain[0]. gain:50", before)
    rest(daemon)
    started = [text for text in pulse_lines(daemon.log, before) if text.startswith("startVolume")]
    assert started == ["startVolume:100, remainCount:10, timeout:4294967295",
                       "startVolume:100, remainCount:10, timeout:1"]
    assert gains(tv) == (50, 50)


def test_a_gain_at_once_during_a_ramp_leaves_its_remaining_steps_aimed_at_the_new_target(daemon, client, tv):
    before = daemon.log.end()
    client.emit("ApplyPulseAudioGain", "ii", 0, 2000)
    daemon.log.wait("Remain[8]. gain:80", before)
    daemon.settle()
    client.emit("ApplyPulseAudioGain", "ii", 50, 0)
    daemon.log.wait("Remain[0]. gain:50", before)
    rest(daemon)
    steps = [int(text.split(":")[1]) for text in pulse_lines(daemon.log, before) if text.startswith("Remain[")]
    to_0, to_50 = range(90, -1, -10), range(95, 49, -5)  # both start at 100
    assert steps in [[*to_0[:turn], *to_50[turn:]] for turn in range(2, 10)]
    assert gains(tv) == (50, 50)


# --- the projector ---------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("ready", ["0", None])
def test_a_projector_that_is_not_ready_keeps_its_gains(scene, tv, client, ready):
    values = {PROJECTOR: "true", **({f"settings/{READY_KEY}": ready} if ready else {})}
    daemon = start_with(scene, tv, **values)
    line = daemon.log.find(f"Key[{READY_KEY}] value:0, Disable Gain control")
    assert (line.priority, line.function) == ("I", "SetAudioGainControlChangedCb")
    before = daemon.log.end()
    assert client.call("ApplyGainOnMute", "ii", BOTH, 40) == (0,)
    refused = daemon.log.find("Disable Gain Control", before)
    assert (refused.priority, refused.function) == ("E", "SetAudioGain")
    rest(daemon)
    assert gains(tv) == (100, 100)


def test_the_start_gain_is_written_even_on_a_projector_that_is_not_ready(scene, tv):
    start_with(scene, tv, **{PROJECTOR: "true", MAIN_GAIN: 7, SUB_GAIN: 8})
    assert gains(tv) == (100, 100)


def test_the_gains_of_a_projector_that_becomes_ready_come_with_the_next_write(scene, tv, client):
    daemon = start_with(scene, tv, **{PROJECTOR: "true"})
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    rest(daemon)
    before = daemon.log.end()
    tv.echo(1, f"settings/{READY_KEY}")
    line = daemon.log.wait(f"Key[{READY_KEY}] Changed:1, gain control is Enabled", before)
    assert (line.priority, line.function) == ("I", "AudioGainControlChangedCb")
    rest(daemon)
    assert gains(tv) == (100, 100)
    assert client.call("ResetPlayerGain", "i", BOTH) == (0,)
    assert gains(tv) == (40, 40)

    rest(daemon)
    tv.echo(0, f"settings/{READY_KEY}")
    daemon.log.wait(f"Key[{READY_KEY}] Changed:0, gain control is Disabled", before)
    client.call("ApplyGainOnMute", "ii", BOTH, 60)
    rest(daemon)
    assert gains(tv) == (40, 40)


@pytest.mark.parametrize("ready", ["1", "-1", "2147483647"])
def test_a_ready_projector_follows_its_gains(scene, tv, client, ready):
    daemon = start_with(scene, tv, **{PROJECTOR: "true", f"settings/{READY_KEY}": ready})
    assert daemon.log.find(f"Key[{READY_KEY}] value:{ready}, Enable Gain control")
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    assert gains(tv) == (40, 40)


def test_a_ready_key_that_turns_to_junk_means_ready(scene, tv, client):
    daemon = start_with(scene, tv, **{PROJECTOR: "true", f"settings/{READY_KEY}": 0})
    tv.echo("soon", f"settings/{READY_KEY}")
    daemon.log.wait(f"Key[{READY_KEY}] Changed:-1, gain control is Enabled")
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    assert gains(tv) == (40, 40)


def test_a_tv_that_is_no_projector_does_not_ask_for_the_ready_key(scene, tv, client):
    daemon = start_with(scene, tv, **{f"settings/{READY_KEY}": 0})
    tv.echo(1, f"settings/{READY_KEY}")
    tv.echo(0, f"settings/{READY_KEY}")
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    assert gains(tv) == (40, 40)
    assert not any(READY_KEY in text for text in daemon.log.texts())


def test_a_tv_without_the_projector_flag_is_treated_as_no_projector(scene, tv, client):
    scene.start().kill()
    tv.remove(PROJECTOR)
    daemon = scene.start()
    line = daemon.log.find("Failed to get Projector FMS Key. ret:-1002")
    assert (line.priority, line.function) == ("E", "SetAudioGainControlChangedCb")
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    assert gains(tv) == (40, 40)


# --- the sub output's Bluetooth zone ---------------------------------------------------------------------------------


@pytest.fixture
def sub_zone(scene, tv):
    """A kavreld on a TV whose sub output is a Bluetooth zone."""
    return start_with(scene, tv, **{f"settings/{SUB_ZONE_KEY}": 3, MAIN_GAIN: 7, SUB_GAIN: 8})


def test_the_start_gain_goes_to_both_outputs_even_with_a_sub_zone(sub_zone, tv):
    assert gains(tv) == (100, 100)


@pytest.mark.parametrize("path, expected", [(MAIN, (40, 100)), (SUB, (100, 40)), (BOTH, (40, 100))])
def test_with_a_sub_zone_an_unmute_gain_stays_on_its_output(sub_zone, tv, client, path, expected):
    assert client.call("ApplyGainOnMute", "ii", path, 40) == (0,)
    rest(sub_zone)
    assert gains(tv) == expected


@pytest.mark.parametrize("path, moving, still, worker", [(MAIN, MAIN, SUB, "UnMuteMainOutH"),
                                                         (SUB, SUB, MAIN, "UnMuteSubOutH")])
def test_with_a_sub_zone_an_unmute_fade_stays_on_its_output(sub_zone, client, path, moving, still, worker):
    mute(client)
    before = sub_zone.log.end()
    assert client.call("ApplyUnmuteFadeIn", "i", path) == (0,)
    rest(sub_zone)
    assert is_subsequence(written(sub_zone.log, moving, before), FADE)
    assert written(sub_zone.log, moving, before)[-1] == 100
    assert written(sub_zone.log, still, before) == []
    assert [text for text in sub_zone.log.texts(before) if text.startswith("Wake ")] == [f"Wake {worker}. gain:0"]


def test_a_sub_zone_that_comes_and_goes_is_followed_and_nothing_is_applied_by_it(daemon, client, tv):
    assert client.call("ApplyGainOnMute", "ii", MAIN, 40) == (0,)
    assert gains(tv) == (40, 40)
    rest(daemon)
    before = daemon.log.end()
    tv.echo(3, f"settings/{SUB_ZONE_KEY}")
    line = daemon.log.wait(f"Key[{SUB_ZONE_KEY}] Changed to 3", before)
    assert (line.priority, line.function) == ("I", "SubBTChangedCb")
    rest(daemon)
    assert gains(tv) == (40, 40)
    assert client.call("ApplyGainOnMute", "ii", MAIN, 60) == (0,)
    assert gains(tv) == (60, 40)

    tv.echo(-1, f"settings/{SUB_ZONE_KEY}")
    daemon.log.wait(f"Key[{SUB_ZONE_KEY}] Changed to -1", before)
    assert client.call("ApplyGainOnMute", "ii", MAIN, 80) == (0,)
    assert gains(tv) == (80, 80)


def test_without_a_sub_zone_key_there_is_no_sub_zone(daemon):
    line = daemon.log.find("Failed to get subBT zone ID")
    assert (line.priority, line.function) == ("E", "GetSubBTZoneID")


# --- mirroring to a mobile -------------------------------------------------------------------------------------------


def test_mirroring_to_a_mobile_restores_the_gain_and_stops_unmute_fades_but_not_the_players(daemon, client, tv):
    client.call("ApplyGainOnMute", "ii", BOTH, 40)
    mute(client)
    rest(daemon)
    tv.echo(1, f"settings/{TV2MOBILE_KEY}")
    daemon.log.wait("TV To Mobile Enable")
    rest(daemon)
    assert gains(tv) == (100, 100)

    before = daemon.log.end()
    assert client.call("ApplyUnmuteFadeIn", "i", BOTH) == (0,)
    assert client.set_mute(False) == 0
    rest(daemon)
    assert not any(text.startswith("Wake ") for text in daemon.log.texts(before))
    assert client.call("ApplyPlayerFadeIn", "i", MAIN) == (0,)
    daemon.log.wait("Wake PlayerMainOutH. gain:0", before)
    rest(daemon)
    assert written(daemon.log, MAIN, before)[-1] == 100


# --- the popup -------------------------------------------------------------------------------------------------------


@pytest.fixture
def popups(client):
    client.listen_to("org.olvane.kv_popupnoti")
    return client


@pytest.mark.parametrize("path, worker", [(MAIN, "PlayerMainOutH"), (SUB, "PlayerSubOutH")])
def test_a_finished_fade_is_announced_with_its_duration_while_popups_are_wanted(daemon, popups, tv, path, worker):
    tv.echo("done", POPUP_EVENT)
    before = daemon.log.end()
    popups.call("ApplyPlayerFadeIn", "i", path)
    member, text = popups.take()
    assert member == "PopupNoti"
    seconds = re.fullmatch(rf"Gain Source:{worker}<br> Duration\(sec\):(\d+\.?\d*)", text)[1]
    assert FADE_SECONDS <= float(seconds) < FADE_SECONDS + PATIENCE
    assert len(seconds.replace(".", "")) <= 6  # six digits, as a C++ stream prints a double
    assert popups.heard_from[-1] == ("/Org/Olvane/KVPopupNoti", "org.olvane.kv_popupnoti", "s")
    assert daemon.log.find(f"MSG :{text}", before).priority == "I"
    assert daemon.log.find("Signal 'PopupNoti'", before)


def test_each_output_of_an_unmute_fade_has_its_own_popup(daemon, popups, tv):
    tv.echo("done", POPUP_EVENT)
    mute(popups)
    popups.call("ApplyUnmuteFadeIn", "i", BOTH)
    sources = sorted(popups.take()[1].split("<br>")[0] for _ in range(2))
    assert sources == ["Gain Source:UnMuteMainOutH", "Gain Source:UnMuteSubOutH"]


def test_a_fade_under_half_a_second_has_no_popup(daemon, popups, tv):
    tv.echo("done", POPUP_EVENT)
    mute(popups)
    before = daemon.log.end()
    popups.send("ApplyUnmuteFadeIn", "i", BOTH)
    popups.send("ApplyGainOnMute", "ii", BOTH, 40)  # ends both fades at their first step at the latest
    for worker in ("UnMuteMainOutH", "UnMuteSubOutH"):
        daemon.log.wait_matching(rf"Wake {worker}\. gain:\d+", before)
    rest(daemon)
    lines = [line for line in daemon.log.lines(before) if line.function == "SendPopupMsg"]
    assert len(lines) == 2
    for line in lines:
        assert line.priority == "E" and re.fullmatch(r"Time\(0\.\d{6}\) is under \(0\.500000\)", line.text)


def test_without_the_event_there_is_no_popup(daemon, popups):
    before = daemon.log.end()
    popups.call("ApplyPlayerFadeIn", "i", MAIN)
    daemon.log.wait("handlerGainType:2, LastGain:100", before)
    rest(daemon)
    assert not any(line.function == "SendPopupMsg" for line in daemon.log.lines(before))
    popups.expect_silence()


def test_popups_can_be_turned_off_again(daemon, popups, tv):
    tv.echo("done", POPUP_EVENT)
    popups.call("ApplyPlayerFadeIn", "i", MAIN)
    assert popups.take()[0] == "PopupNoti"
    rest(daemon)
    tv.remove(POPUP_EVENT)
    before = daemon.log.end()
    popups.call("ApplyPlayerFadeIn", "i", MAIN)
    daemon.log.wait("handlerGainType:2, LastGain:100", before)
    rest(daemon)
    popups.expect_silence()

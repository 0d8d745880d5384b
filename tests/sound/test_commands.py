# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the commands of kavrel-sound on a real server: outputs, status, tone and hear. And what makes it end at once."""
import csv
import re
import statistics

import pytest

from bridge import KAVREL_SOUND, OUTPUTS
from hearing import AMPLITUDE, TONE
from kavrel_tv import Running


def test_outputs_names_the_sink_of_each_output_and_why(sound):
    sound.start()
    shown = sound.command("outputs")
    assert (shown.returncode, shown.stderr) == (0, "")
    assert re.search(r"^tv +speaker +--output; in use$", shown.stdout, re.MULTILINE)
    assert re.search(r"^hdmi-2 +hdmi +as hdmi$", shown.stdout, re.MULTILINE)
    assert re.search(r"^bt +none +no sink is named for it$", shown.stdout, re.MULTILINE)


def test_status_shows_the_gains_as_they_are_heard(sound):
    sound.start(*OUTPUTS, "--no-smoothing")
    sound.tv.echo(50, "audio/main_out_gain2")
    sound.server.wait_until(lambda: sound.status()["main"]["amplitude"] == pytest.approx(0.5, abs=0.001), "gain 50 is in force")
    status = sound.status()
    assert (status["bridge"], status["output"]) == (sound.bridge.child.pid, "tv")
    assert (status["main"]["gain"], status["main"]["sink"], status["sub"]["sink"]) == (50, "speaker", None)
    assert status["sinks"]["hdmi"] == {"level": 100, "mute": False}


@pytest.mark.parametrize("command", ["outputs", "status"])
def test_without_a_server_they_fail(sound, command):
    sound.server.kill()
    done = sound.command(command)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", "kavrel-sound: no sound server: Connection refused\n")


def test_the_tone_is_heard_until_ctrl_c(sound):
    sound.start()
    recording = sound.record("speaker")
    tone = Running(sound.environment(), "tone", str(TONE), program=KAVREL_SOUND)
    sound.scene.callback(sound.end_bridge, tone)
    recording.wait_until(lambda amplitude: amplitude > 10, "the tone is not heard")
    assert tone.end() == (0, [])
    recording.wait_until_silent()


def test_hear_records_the_sound_in_percent_of_the_full_scale(sound, tmp_path):
    sound.start()
    sound.play()
    sound.record("speaker").wait_until_heard(99.5)
    sound.tv.echo(40, "audio/main_out_gain2")
    done = sound.command("hear", "--seconds", "1.5", str(tmp_path / "heard.csv"))
    assert done.returncode == 0, done.stderr
    rows = list(csv.DictReader((tmp_path / "heard.csv").read_text().splitlines()))
    heard = [float(row["heard"]) for row in rows if row["heard"]]
    assert len(heard) > 100
    assert statistics.median(heard) == pytest.approx(40 * AMPLITUDE / 2 ** 0.5, abs=0.3)
    assert {row["main_gain"] for row in rows} == {"40"}
    sound.kavrel_tv("plot", str(tmp_path / "heard.csv"), str(tmp_path / "heard.svg"))
    assert ">heard<" in (tmp_path / "heard.svg").read_text()


@pytest.mark.parametrize("options, complaint", [
    (["--output", "hdmi"], "is not ROUTE=SINK"), (["--output", "moon=sink"], "moon"), (["--latency", "soon"], "soon"),
    (["--output", "tv=kavrel"], "kavrel"),
])
def test_wrong_usage_ends_it_with_one_line(sound, options, complaint):
    done = sound.command(*options)
    assert (done.returncode, done.stdout) == (64, "")
    assert done.stderr.startswith("kavrel-sound: ") and complaint in done.stderr, done.stderr


def test_without_a_tv_it_ends(sound, tmp_path):
    done = sound.command("--dir", str(tmp_path / "none"))
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr.count("\n") == 1, done.stderr

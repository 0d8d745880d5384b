# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""kavrel-tv plays scenarios against the real daemon, records what happens, and draws the record."""
import csv
import itertools
import re
import shutil
import signal
import subprocess
import time
import xml.etree.ElementTree

import pytest

from harness import PATIENCE, REQUEST, ROOT, FolderWatch
from impostor import Impostor
from kavrel_tv import KAVREL_TV, KavrelTv, refused

SCENARIOS = sorted(set((ROOT / "scenarios").glob("*.txt")) - {ROOT / "scenarios/tour.txt"})  # the tour has its own test
HEADER = ["seconds", "main_gain", "sub_gain", "volume", "mute", "output", "output_level", "output_mute", "event"]
OLD_HEADER = HEADER[:5] + HEADER[-1:]
MIRRORING = "settings/memory/menu/network/screenmirroring"
FULL_FADE = list(range(0, 101, 5))


@pytest.fixture
def tool(scene):
    scene.start()
    tool = KavrelTv(scene)
    tool.devices("--delay", "200")  # the daemon misses an answer that comes while it is busy with the request
    return tool


@pytest.fixture
def play(tool, tmp_path):
    """Plays these lines and returns the finished process."""
    def run(*lines, options=("--fast",)):
        scenario = tmp_path / "scenario.txt"
        scenario.write_bytes(b"".join((line if isinstance(line, bytes) else line.encode()) + b"\n" for line in lines))
        return tool.run("play", *options, str(scenario))
    return run


def failed_at(done, line):
    assert done.returncode == 1 and done.stderr.count("\n") == 1, done.stderr
    place, message = done.stderr.removeprefix("kavrel-tv: ").removesuffix("\n").split(": ", 1)
    assert place.endswith(f"scenario.txt:{line}")
    return message


# --- play

@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda path: path.stem)
def test_the_scenarios_that_come_with_it_are_met(tool, scenario):
    tool("play", "--fast", str(scenario))


def test_the_tour_checks_each_step_draws_the_fades_and_fits_into_80_columns(tool):
    text = re.sub(r"\033\[[0-9]*m", "", tool.terminal("tour", "--fast").run())
    lines = re.split(r"[\r\n]", text)
    assert sum(line.startswith("  ok  ") for line in lines) > 100
    assert "      main gain 100 % ##################################################" in lines
    assert [line for line in lines if len(line) > 80] == []


def test_steps_are_told_as_they_are_done(play):
    done = play("# a comment", "", "say 'Now louder.'", "call SetSpeakerVolume 33 -> 0", "expect value audio/master_volume 33")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.splitlines() == ["Now louder.", "  ok  call SetSpeakerVolume 33 -> 0",
                                        "  ok  expect value audio/master_volume 33"]


@pytest.mark.parametrize("line, message", [
    ("call SetSpeakerVolume 101 -> 0", "expected the answer 0, seen: -2"),
    ("expect signal SpeakerVolumeChanged * 77 within 0.1",
     "expected the signal SpeakerVolumeChanged * 77 within 0.1 s, seen: nothing"),
    ("expect value audio/master_volume 77 within 0.1", "expected 77 in audio/master_volume within 0.1 s, seen: 10"),
    ("expect value no/such/file 1 within 0", "expected 1 in no/such/file within 0 s, seen: no readable value"),
    ("expect gain main 50 within 0.1", "expected the main gain 50 within 0.1 s, seen: 100"),
    ("expect fade sub within 0.1", "expected the sub gain to drop and to rise to 100 again, within 0.1 s, seen: 100"),
    ("expect output hdmi within 0.7", "expected kavreld to follow the output hdmi within 0.7 s, seen: nothing"),
    ("expect signal SpeakerMuteChanged within 0.1", "expected the signal SpeakerMuteChanged within 0.1 s, seen: nothing"),
    ("focus 7", "there is no zone 7; kavrel-tv zones makes some"),
    ("volume 10 # still", None),
    ("expect output 0", None),
    ("call GetSpeakerVolume -> * 0", None),
    ("call SetSpeakerVolume 101", None),
])
def test_the_first_expectation_that_fails_is_named_with_what_was_seen(play, line, message):
    done = play("route tv", line, "call SetSpeakerVolume 55")
    if message is None:
        assert (done.returncode, done.stderr) == (0, "")
    else:
        assert failed_at(done, 2) == message
        assert "SetSpeakerVolume 55" not in done.stdout


@pytest.mark.parametrize("route, level", [("tv", "audio/master_volume"),
                                          ("hdmi", f"{MIRRORING}/get_volume_level_hdmi"),
                                          ("usb", "settings/db/usbsound/volume_level")])
@pytest.mark.parametrize("volume", ["1", "30"])
def test_expect_output_puts_the_volume_back_and_leaves_no_signal_of_it(play, tv, route, level, volume):
    tv.echo(volume, level)
    done = play(f"route {route}", f"expect output {route}", f"expect value {level} {volume} within 0",
                "expect no signal SpeakerVolumeChanged within 0.2", f"call GetSpeakerVolume -> {volume} 0 within 5")
    assert (done.returncode, done.stderr) == (0, "")
    assert tv.read(level) == volume


def test_expect_output_never_tries_the_volume_that_is_there(beside_a_stopped_daemon, tv, tmp_path):
    tv.echo(1, "audio/master_volume")  # which would be its first one
    (tmp_path / "scenario.txt").write_text("expect output tv within 600\n")
    with FolderWatch(tv.path / "audio") as watch:
        playing = beside_a_stopped_daemon.start("play", str(tmp_path / "scenario.txt"))
        assert watch.wait(time.monotonic() + PATIENCE)
    assert tv.read("audio/master_volume") != "1"
    playing.end(signal.SIGINT)


def test_expect_output_removes_a_volume_that_was_not_there(scene, tv, tmp_path):
    scene.start()
    level = f"{MIRRORING}/get_volume_level_hdmi"
    tv.echo(15, f"{MIRRORING}/volume_support_hdmi")  # without devices, which would publish a level
    (tmp_path / "scenario.txt").write_text("route hdmi\nexpect output hdmi\n")
    KavrelTv(scene)("play", str(tmp_path / "scenario.txt"))
    assert not tv.has(level)
    # The volume 1 is the first one that it tries, and the daemon has announced it for another output before.
    (tmp_path / "scenario.txt").write_text("route tv\nexpect output tv\ncall SetSpeakerVolume 1 -> 0 within 5\n"
                                           "expect no signal SpeakerMuteChanged\nexpect output hdmi within 0.5\n")
    assert failed_at(KavrelTv(scene).run("play", str(tmp_path / "scenario.txt")), 5).startswith("expected kavreld to follow")
    assert not tv.has(level)


def test_expect_output_puts_the_volume_back_when_it_fails_or_is_interrupted(tool, tv, tmp_path):
    level = f"{MIRRORING}/get_volume_level_hdmi"
    scenario = tmp_path / "scenario.txt"
    tv.echo("30", level)
    scenario.write_text("expect output hdmi within 0.5\n")  # while the TV's speaker plays
    assert failed_at(tool.run("play", str(scenario)), 1).startswith("expected kavreld to follow the output hdmi")
    assert tv.read(level) == "30"
    scenario.write_text("expect output hdmi within 600\n")
    running = tool.start("play", str(scenario))
    tv.wait_until(level, lambda: tv.read(level) != "30")
    assert running.end(signal.SIGINT) == (130, [f"kavrel-tv: {scenario}:1: interrupted"])
    assert tv.read(level) == "30"


def test_a_failure_that_is_no_expectation_has_its_place_too(play, tv):
    (tv.path / "sound/zones").mkdir(exist_ok=True)
    tv.echo("in the way", "sound/zones/3")
    assert failed_at(play("zones 3"), 1).startswith("filesystem error: cannot rename: ")


def test_gains_before_a_call_are_forgotten(play):
    done = play("call ApplyGainOnMute 3 20 -> 0 within 5", "expect gain main 20", "call ApplyGainOnMute 3 100 -> 0 within 5",
                "expect gain main 100", "call GetSpeakerVolume", "expect fade main within 0.1")
    assert failed_at(done, 6) == "expected the main gain to drop and to rise to 100 again, within 0.1 s, seen: 100"


def test_a_call_is_repeated_every_fifth_of_a_second(scene, tmp_path):
    scene.tv.path.mkdir()
    impostor = Impostor(scene.client(), GetSpeakerVolume=[(0, -1), *[(10, 0)] * 1000])
    (tmp_path / "scenario.txt").write_text("call GetSpeakerVolume -> 0 -1\ncall GetSpeakerVolume -> 77 0 within 0.9\n")
    assert failed_at(KavrelTv(scene).run("play", str(tmp_path / "scenario.txt")), 2) == "expected the answer 77 0, seen: 10 0"
    assert len(impostor.calls) <= 7


def test_an_unexpected_signal_fails_and_a_seen_one_is_listed(play):
    done = play("call SetSpeakerVolume 44 -> 0", "expect no signal SpeakerVolumeChanged * * within 0.5")
    assert failed_at(done, 2) == ("expected no signal SpeakerVolumeChanged * * within 0.5 s, "
                                  "seen: SpeakerVolumeChanged 65535 44")


def test_every_line_that_is_wrong_is_named_before_anything_is_done(play, tv):
    done = play("volume 66", "jump", "", "expect gain main", "route tv", "1.5", "say 'half\x1b", "volume 67")
    places, errors = zip(*(line.split(": ", 2)[1:] for line in done.stderr.splitlines()))
    assert done.returncode == 64 and done.stdout == ""
    assert [place.rpartition("/")[2] for place in places] == [f"scenario.txt:{line}" for line in (2, 4, 6, 7)]
    assert errors[:3] == ('there is no such verb: "jump"', "PERCENT is required", "a time must be followed by a verb")
    assert errors[3].startswith("Text ended before matching quote") and errors[3].endswith("; see kavrel-tv play --help")
    assert "\x1b" not in done.stderr
    assert tv.read("audio/master_volume") == "10"


def test_what_is_said_reaches_the_terminal_without_control_characters(play):
    assert play("say a\x1b[31mb").stdout == "a?[31mb\n"


def test_words_behind_the_verb_are_never_options(play):
    assert play("say --help -> [a,b] {} within 5").stdout == "--help -> [a,b] {} within 5\n"
    done = play("key db/some/text --dir", "expect value settings/db/some/text --dir", "emit SpkDisconnected 4 '[x,y]'")
    assert (done.returncode, done.stderr) == (0, "")


def test_a_name_alone_stands_for_any_arguments(play):
    assert play("call SetSpeakerVolume 44 -> 0", "expect signal SpeakerVolumeChanged").returncode == 0
    done = play("call SetSpeakerVolume 45 -> 0", "expect no signal SpeakerVolumeChanged within 0.5")
    assert failed_at(done, 2) == ("expected no signal SpeakerVolumeChanged within 0.5 s, "
                                  "seen: SpeakerVolumeChanged 65535 45")


def test_times_are_the_earliest_moments_unless_fast(play, tv):
    begin = time.monotonic()
    done = play("0.4 volume 21", "0.4 volume 22", options=())
    assert done.returncode == 0 and tv.read("audio/master_volume") == "22"
    assert time.monotonic() - begin >= 0.4
    begin = time.monotonic()
    done = play("600 volume 23", "pause 600", "settle 0.4", "say Done.")
    assert (done.returncode, done.stdout) == (0, "  ok  volume 23\n  ok  settle 0.4\nDone.\n")
    assert time.monotonic() - begin >= 0.4


def test_an_expected_signal_takes_those_before_it_along(play):
    done = play(*(f"call SetSpeakerVolume {volume} -> 0" for volume in (41, 42, 43)),
                "expect signal SpeakerVolumeChanged * 42",
                "expect no signal SpeakerVolumeChanged * 41 within 0.1",
                "expect no signal SpeakerVolumeChanged * 42 within 0.1",
                "expect signal SpeakerVolumeChanged * 43")
    assert (done.returncode, done.stderr) == (0, "")


@pytest.fixture
def beside_a_stopped_daemon(tool, scene, tv):
    """kavrel-tv, and a daemon that writes no gain."""
    daemon = scene.daemons[0]
    daemon.signal(signal.SIGSTOP)
    deadline = time.monotonic() + PATIENCE
    while {thread.state for thread in daemon._threads().values()} != {"T"}:
        assert time.monotonic() < deadline, "the daemon does not stop"
        time.sleep(0.01)
    tv.echo(100, "audio/sub_out_gain2")
    yield tool
    daemon.signal(signal.SIGCONT)


@pytest.mark.parametrize("lines, message", [
    (["expect fade sub within 0.1"], "expected the sub gain to drop and to rise to 100 again, within 0.1 s, seen: (100 )?20"),
    (["expect gain sub 100 within 600", "expect gain sub 20 within 0.1"],
     "expected the sub gain 20 within 0.1 s, seen: (100 )?20 100"),
    (["expect gain sub 100 within 600", "emit BudsConnected 0", "expect fade sub within 0.1"],
     "expected the sub gain to drop and to rise to 100 again, within 0.1 s, seen: 100"),
    (["expect gain sub 100 within 600", "volume 20", "expect fade sub within 0.1"],
     "expected the sub gain to drop and to rise to 100 again, within 0.1 s, seen: 100"),
], ids=["in between", "a gain before", "after a signal", "after a change"])
def test_gains_are_those_since_the_last_action(beside_a_stopped_daemon, tv, tmp_path, lines, message):
    scenario = tmp_path / "scenario.txt"
    scenario.write_text("\n".join(["say begun", "expect gain sub 20 within 600", *lines]) + "\n")
    running = beside_a_stopped_daemon.start("play", str(scenario))
    running.wait("begun")
    tv.echo(20, "audio/sub_out_gain2")
    running.wait("ok  expect gain sub 20 within 600")
    if len(lines) > 1:
        tv.echo(100, "audio/sub_out_gain2")
    assert running.child.wait(PATIENCE) == 1
    _, [complaint] = running.end()
    assert re.fullmatch(re.escape(f"kavrel-tv: {scenario}:{len(lines) + 2}: ") + message, complaint)
    assert running.lines[1].startswith("      sub gain: ")


def test_a_fade_drops_far_and_rises_without_a_step_back(beside_a_stopped_daemon, tv, tmp_path):
    (tmp_path / "scenario.txt").write_text("expect fade sub within 600\n")
    terminal = beside_a_stopped_daemon.terminal("play", str(tmp_path / "scenario.txt"))
    terminal.wait_until(lambda: is_drawn(tv, terminal, 60), every=0.1)
    for gain in (100, 26, 100, 25, 50, 40):  # 26 is no drop
        tv.echo(gain, "audio/sub_out_gain2")
        terminal.wait_until(lambda gain=gain: terminal.output.rpartition("sub gain")[2].startswith(f" {gain:3} %"))
    tv.echo(100, "audio/sub_out_gain2")
    assert terminal.wait_for_end() == 1
    assert re.search("expected the sub gain to drop and to rise to 100 again, within 600 s, seen: (100 )?60 100 26 100 25 50 40 100",
                     re.sub(r"\s+", " ", terminal.output))


def is_drawn(tv, terminal, gain):
    """Writes the gain as often as it takes until the terminal shows it: before, the expectation may not yet wait."""
    tv.echo(gain, "audio/sub_out_gain2")
    return f"sub gain {gain:3} %" in terminal.output


def test_a_call_is_repeated_while_its_answer_is_another_one(tool, scene, tv, tmp_path):
    (tmp_path / "scenario.txt").write_text("call GetSpeakerVolume -> 77 0 within 600\n")
    log = scene.daemons[0].log
    running = tool.start("play", str(tmp_path / "scenario.txt"))
    first = log.wait_matching(REQUEST.format("GetSpeakerVolume"))
    log.wait_for_request("GetSpeakerVolume", first.number)
    tv.echo(77, "audio/master_volume")
    running.wait("ok  call GetSpeakerVolume")
    assert running.child.wait(PATIENCE) == 0


def test_a_missing_file_is_told(tool):
    done = tool.run("play", "/no/such/scenario")
    assert (done.returncode, done.stderr) == (
        1,
        "kavrel-tv: Failed to open file “/no/such/scenario”: No such file or directory\n",
    )


def test_without_kavreld_it_says_so(scene, tmp_path):
    scene.tv.path.mkdir()
    (tmp_path / "scenario.txt").write_text("volume 20\n")
    done = KavrelTv(scene).run("play", str(tmp_path / "scenario.txt"))
    assert done.returncode == 2
    assert refused(done) == "kavreld is not running: nobody on the bus owns org.olvane.kavrel"


def test_ctrl_c_ends_a_scenario_at_once(tool, tmp_path):
    (tmp_path / "scenario.txt").write_text("say begun\nsettle 600\n")
    running = tool.start("play", str(tmp_path / "scenario.txt"))
    running.wait("begun")
    status, complaints = running.end(signal.SIGINT)
    assert status == 130 and len(complaints) == 1 and complaints[0].endswith(":2: interrupted")


def test_ctrl_c_ends_a_scenario_that_never_waits(tool, tmp_path):
    (tmp_path / "scenario.txt").write_text("say begun\n" + "call SetSpeakerVolume 30 -> 0\n" * 100_000)
    running = tool.start("play", str(tmp_path / "scenario.txt"))
    running.wait("begun", patience=10 * PATIENCE)  # it reads all lines first
    status, complaints = running.end(signal.SIGINT)
    assert status == 130 and len(complaints) == 1 and complaints[0].endswith(": interrupted")


def test_ctrl_c_ends_the_line_of_a_gain_that_is_drawn(tool, tv, tmp_path):
    (tmp_path / "scenario.txt").write_text("say begun\nexpect gain main 7 within 600\n")
    terminal = tool.terminal("play", str(tmp_path / "scenario.txt"))
    terminal.wait_for_row("begun")
    gains = itertools.cycle((50, 51))

    def is_drawn():
        tv.echo(next(gains), "audio/main_out_gain2")
        return "main gain" in terminal.output

    terminal.wait_until(is_drawn, every=0.1)
    terminal.type("\x03")
    assert terminal.wait_for_end() == 130
    assert terminal.output.replace("^C", "").splitlines()[-1].startswith("kavrel-tv: ")


# --- record and plot

def rows_of(path):
    with open(path, newline="") as file:
        rows = list(csv.reader(file))
    assert rows[0] == HEADER
    return rows[1:]


def wait_until_recorded(path, condition):
    with FolderWatch(path.parent) as watch:
        deadline = time.monotonic() + PATIENCE
        while not condition(rows_of(path)):
            assert watch.wait(deadline), rows_of(path)


@pytest.fixture
def recording(tool, scene, client, tmp_path):
    """Records one fade of the TV's speaker and a change of route after it."""
    path = tmp_path / "fade.csv"
    running = tool.start("record", str(path))
    running.wait_for_complaint("recording until Ctrl-C")
    assert client.set_mute(True) == 0
    wait_until_recorded(path, lambda rows: rows[-1][4] == "1")
    assert client.set_mute(False) == 0
    wait_until_recorded(path, lambda rows: rows[-1][1:3] == ["100", "100"] and any(row[1] != "100" for row in rows))
    tool("route", "hdmi")
    wait_until_recorded(path, lambda rows: any(row[-1] == "route hdmi" for row in rows))
    status, complaints = running.end(signal.SIGINT)
    assert (status, complaints) == (0, ["kavrel-tv: recording until Ctrl-C"])
    assert running.said(f"{len(rows_of(path))} lines in ")
    return path


def test_a_recorded_fade_rises_without_a_step_back(recording):
    rows = rows_of(recording)
    times = [float(row[0]) for row in rows]
    assert times == sorted(times)
    assert rows[0] == ["0.000000", "100", "100", "10", "0", "tv", "10", "0", "start"] and rows[-1][-1] == "end"
    gains = [int(row[1]) for row in rows]
    rise = gains[gains.index(min(gains)):]
    assert rise == sorted(rise) and set(rise) <= set(FULL_FADE) and rise[-1] == 100
    assert [row[4] for row in rows if row[4] == "1"]
    assert "route hdmi" in [row[-1] for row in rows]


def test_what_else_happens_is_recorded_by_its_name(tool, tv, tmp_path):
    path = tmp_path / "events.csv"
    running = tool.start("record", str(path))
    running.wait_for_complaint("recording until Ctrl-C")
    for command, event in (("zones 1,2", "zone 2 route tv"), ("zone-route 2 usb", "zone 2 route usb"), ("focus 2", "focus 2"),
                           ("popup on", "events/FadeInPopup "), ("popup off", "events/FadeInPopup removed"),
                           ("zones none", "zone 2 removed"), ("cable out", "cable out"), ("mobile on", "mobile on"),
                           ("projector not-ready", "projector not-ready"), ("sub-bt 2", "sub-bt 2"), ("multiview on", "multiview on"),
                           ("key db/some/text hello", "settings/db/some/text hello")):
        tool(*command.split())
        wait_until_recorded(path, lambda rows, event=event: any(row[-1].startswith(event) for row in rows))
    assert running.end() == (0, ["kavrel-tv: recording until Ctrl-C"])
    events = [row[-1] for row in rows_of(path)]
    assert events.index("focus removed") < events.index("zone 1 removed")  # so that the focus is always on a zone
    assert not any("." in event for event in events)


def test_a_support_word_that_a_device_writes_again_is_no_event(tool, tv, tmp_path):
    path = tmp_path / "events.csv"
    support, request = f"{MIRRORING}/volume_support_hdmi", f"{MIRRORING}/set_volume_level"
    tv.echo(15, support)
    running = tool.start("record", str(path))
    running.wait_for_complaint("recording until Ctrl-C")
    events = ["start"]

    def is_recorded_after(change, event):
        change()
        events.append(event)
        wait_until_recorded(path, lambda rows: [row[-1] for row in rows] == events)

    tv.echo(15, support)
    is_recorded_after(lambda: tv.echo(40, request), "level request 40")
    is_recorded_after(lambda: tv.echo(40, request), "level request 40")
    is_recorded_after(lambda: tv.echo(7, support), "hdmi support 7")
    tv.echo(7, support)
    is_recorded_after(lambda: tv.echo(41, request), "level request 41")
    is_recorded_after(lambda: tv.remove(support), "hdmi support removed")
    is_recorded_after(lambda: tv.echo(7, support), "hdmi support 7")
    assert running.end() == (0, ["kavrel-tv: recording until Ctrl-C"])
    assert [row[-1] for row in rows_of(path)] == [*events, "end"]


def test_the_output_in_use_is_recorded_with_its_level_and_mute(tool, tv, tmp_path):
    path = tmp_path / "outputs.csv"
    running = tool.start("record", str(path))
    running.wait_for_complaint("recording until Ctrl-C")
    level, mute = f"{MIRRORING}/get_volume_level_hdmi", f"{MIRRORING}/get_volume_mute_hdmi"

    def is_recorded_after(change, *cells):
        change()
        wait_until_recorded(path, lambda rows: rows[-1][5:8] == list(cells))

    is_recorded_after(lambda: tool("volume", "30"), "tv", "30", "0")
    is_recorded_after(lambda: tool("mute", "on"), "tv", "30", "1")
    is_recorded_after(lambda: tool("route", "hdmi"), "hdmi", "10", "0")
    is_recorded_after(lambda: tool("key", level.removeprefix("settings/"), "55"), "hdmi", "55", "0")
    is_recorded_after(lambda: tool("key", mute.removeprefix("settings/"), "1"), "hdmi", "55", "1")
    is_recorded_after(lambda: tool("route", "other-7"), "other-7", "", "")
    is_recorded_after(lambda: tv.echo(99, "sound/route"), "99", "", "")
    for command in ("zones 1,2", "zone-route 2 usb", "focus 2"):
        tool(*command.split())
    is_recorded_after(lambda: tool("multiview", "on"), "usb", "10", "0")
    is_recorded_after(lambda: tv.echo("loud", "settings/db/usbsound/volume_level"), "usb", "", "0")
    assert running.end() == (0, ["kavrel-tv: recording until Ctrl-C"])
    events = [row[-1] for row in rows_of(path)]
    assert not any("hdmi level" in event or "hdmi mute" in event for event in events)  # they have columns


def test_a_plot_is_one_picture_with_axes_units_legend_and_marks(tool, recording, tmp_path):
    picture = tmp_path / "fade.svg"
    tool("plot", str(recording), str(picture))
    text = picture.read_text()
    xml.etree.ElementTree.fromstring(text)
    assert "fade.csv" in text and str(tmp_path) not in text
    for words in ("gain (%)", "time (s)", "volume", "main output gain", "sub output gain", "TV volume", "TV muted",
                  "output level", "output in use", "output muted", "tv", "hdmi", "route hdmi", "fade.csv"):
        assert f">{words}<" in text or (words == "fade.csv" and words in text), words
    assert "<image" not in text and "href=\"http" not in text
    rows = rows_of(recording)
    assert boxes_in(picture, TV_MUTED) == pytest.approx(in_parts(rows, 4, "1"), abs=0.001)


# Fill colour and opacity of the boxes
TV_MUTED, USED, OUTPUT_MUTED = ("192,32,32", "0.25"), ("96,128,160", "0.5"), ("192,32,32", "0.8")


def polygons(picture, kind):
    """Returns (left, right, top, bottom) of each box of a kind, from left to right, without the one in the legend."""
    found = []
    for polygon in xml.etree.ElementTree.parse(picture).iter("{http://www.w3.org/2000/svg}polygon"):
        colour = polygon.get("fill").removeprefix("rgb(").removesuffix(")").replace(" ", "")
        if (colour, polygon.get("fill-opacity").rstrip("0")) == kind:
            across, down = zip(*(map(float, point.split(",")) for point in polygon.get("points").split()))
            found.append((min(across), max(across), min(down), max(down)))
    return sorted(found[1:])


def boxes_in(picture, kind):
    """Returns begin and end of each box of a kind, in turn, as parts of the time in which any output was in use."""
    used = polygons(picture, USED)
    first, last = min(box[0] for box in used), max(box[1] for box in used)
    return [(side - first) / (last - first) for box in polygons(picture, kind) for side in box[:2]]


def in_parts(rows, column, cell):
    """Returns begin and end of each time in which a column has a cell, in turn, as parts of the recorded time."""
    first, last = float(rows[0][0]), float(rows[-1][0])
    sides = []
    for row in rows:
        if (row[column] == cell) != (len(sides) % 2 == 1):
            sides.append((float(row[0]) - first) / (last - first))
    return sides + [1.0] * (len(sides) % 2)


def test_a_plot_shows_all_of_the_time_that_tv_and_output_were_muted_and_in_use(scene, tmp_path):
    rows = [row.split(",") for row in (
        "0,100,100,10,0,tv,10,0,start", "2,100,100,10,1,tv,10,1,", "3,0,0,10,1,tv,10,1,", "4.5,0,0,10,0,tv,10,0,",
        "5,0,0,10,,hdmi,55,0,route hdmi", "6,0,0,10,0,hdmi,55,1,", "7,0,0,10,0,hdmi,55,0,", "8,0,0,10,1,hdmi,55,0,",
        "8.5,0,0,10,0,tv,10,0,route tv", "9,0,0,10,1,99,,,", "10,0,0,10,1,99,,,end")]
    table = "".join(",".join(row) + "\n" for row in [HEADER, *rows])
    (tmp_path / "some.csv").write_text(table)
    KavrelTv(scene)("plot", str(tmp_path / "some.csv"), str(tmp_path / "some.svg"))
    picture = tmp_path / "some.svg"
    assert boxes_in(picture, TV_MUTED) == pytest.approx([0.2, 0.45, 0.8, 0.85, 0.9, 1], abs=0.001)
    assert boxes_in(picture, TV_MUTED) == pytest.approx(in_parts(rows, 4, "1"), abs=0.001)
    assert boxes_in(picture, USED) == pytest.approx([0, 0.5, 0.5, 0.85, 0.85, 0.9, 0.9, 1], abs=0.001)
    assert boxes_in(picture, OUTPUT_MUTED) == pytest.approx([0.2, 0.45, 0.6, 0.7], abs=0.001)
    assert len({(top, bottom) for _, _, top, bottom in polygons(picture, USED)}) == 3  # a row for each output
    assert {">tv<", ">hdmi<", ">99<"} <= set(re.findall(">[^<>]+<", picture.read_text()))


def test_an_old_recording_is_drawn_without_what_it_lacks(scene, tmp_path):
    (tmp_path / "old.csv").write_text(",".join(OLD_HEADER) + "\n0,100,100,10,0,start\n1,100,,10,1,\n2,100,,10,1,end\n")
    KavrelTv(scene)("plot", str(tmp_path / "old.csv"), str(tmp_path / "old.svg"))
    text = (tmp_path / "old.svg").read_text()
    for words in ("main output gain", "sub output gain", "TV volume", "TV muted"):
        assert f">{words}<" in text
    assert polygons(tmp_path / "old.svg", USED) == [] and len(polygons(tmp_path / "old.svg", TV_MUTED)) == 1
    assert ">output" not in text


def test_a_recording_is_read_by_the_names_of_its_columns(scene, tmp_path):
    (tmp_path / "odd.csv").write_text("seconds,mute,colour,event\n0,1,red,start\n4,0,,\n5,,,end\n")
    KavrelTv(scene)("plot", str(tmp_path / "odd.csv"), str(tmp_path / "odd.svg"))
    assert len(polygons(tmp_path / "odd.svg", TV_MUTED)) == 1
    assert ">main output gain<" not in (tmp_path / "odd.svg").read_text()


def test_a_plot_shows_the_sound_as_high_as_the_gain_100_where_it_was_loudest(scene, tmp_path):
    lines = ["seconds,main_gain,heard,event", "0,0,,start", "1,0,0.0,", "2,100,,", "3,100,2.5,", "4,100,10.0,", "5,100,7.5,", "5,100,,end"]
    (tmp_path / "heard.csv").write_text("".join(line + "\n" for line in lines))
    KavrelTv(scene)("plot", str(tmp_path / "heard.csv"), str(tmp_path / "heard.svg"))
    text = (tmp_path / "heard.svg").read_text()
    assert ">heard<" in text and ">main output gain<" in text

    def line(colour):  # without the two points of its sample in the legend
        points = re.search(rf"<path stroke='rgb\({colour}\)'\s+d='([^']*)'", text).group(1)
        return [(float(x), float(y)) for x, y in re.findall(r"([\d.]+),([\d.]+)", points)][2:]

    gain, heard = line("  0,  96, 192"), line("224, 160, 160")
    (start, low), (end, high) = gain[0], gain[-1]
    at = [((x - start) / (end - start) * 5, (y - low) / (high - low) * 100) for x, y in heard]
    assert [value for point in at for value in point] == pytest.approx([1, 0, 3, 25, 4, 100, 5, 75], abs=0.01)


def test_a_sound_that_is_no_number_is_no_recording(scene, tmp_path):
    for cell in ("loud", "inf", "nan"):
        (tmp_path / "odd.csv").write_text(f"seconds,heard,event\n0,{cell},start\n")
        assert "odd.csv:2: " in refused(KavrelTv(scene).run("plot", str(tmp_path / "odd.csv"), str(tmp_path / "odd.svg")))


# --- The picture's type

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


@pytest.fixture
def plotted(scene, tmp_path):
    """Returns a function that draws a recording with these arguments and returns the finished process, with bytes."""
    (tmp_path / "some.csv").write_text(",".join(HEADER) + "\n0,100,100,10,0,tv,10,0,start\n1,0,0,10,0,tv,10,0,end\n")

    def run(*arguments):
        return subprocess.run([KAVREL_TV, "plot", "some.csv", *arguments], cwd=tmp_path, capture_output=True,
                              env=KavrelTv(scene).environment(), timeout=PATIENCE, check=False)
    return run


def test_the_type_of_a_picture_follows_its_name(plotted, tmp_path):
    assert plotted("some.svg").stdout == b"2 lines drawn in some.svg\n"
    assert (tmp_path / "some.svg").read_bytes().startswith(b"<?xml")
    assert plotted("some\x1b.svg").stdout == b"2 lines drawn in some?.svg\n"
    assert plotted("some.png", "--format", "png").stdout == b"2 lines drawn in some.png\n"
    assert (tmp_path / "some.png").read_bytes().startswith(PNG_SIGNATURE)
    assert plotted("MORE.SVG").stdout == b"2 lines drawn in MORE.SVG\n"
    assert plotted("MORE.PNG").stdout == b"2 lines drawn in MORE.PNG\n"
    assert (tmp_path / "MORE.PNG").read_bytes().startswith(PNG_SIGNATURE)


def test_a_picture_that_cannot_be_written_is_told_by_its_own_name(plotted):
    done = plotted("/no/such/folder/some.svg")
    assert (done.returncode, done.stderr) == (
        1, b"kavrel-tv: cannot write /no/such/folder/some.svg: No such file or directory\n")


def test_the_title_of_the_time_axis_keeps_off_the_legend(plotted):
    svg = plotted("-").stdout.decode()
    # gnuplot writes each text in a group that moves it to its place.
    places = {text: float(y) for y, text in re.findall(
        r'<g transform="translate\([\d.]+,([\d.]+)\)"[^>]*>\s*<text><[^>]*>([^<]+)<', svg)}
    assert places["output in use"] - places["time (s)"] >= 20  # pixels; a letter has 13


@pytest.mark.parametrize("options, begin, end", [([], b"<?xml", b"</svg>\n\n"), (["--format", "svg"], b"<?xml", b"</svg>\n\n"),
                                                 (["--format", "png"], PNG_SIGNATURE, b"IEND\xaeB`\x82")])
def test_standard_output_gets_the_picture_alone(plotted, options, begin, end):
    done = plotted("-", *options)
    assert (done.returncode, done.stderr) == (0, b"")
    assert done.stdout.startswith(begin) and done.stdout.endswith(end)


@pytest.mark.parametrize("arguments, message", [
    (["some.pdf"], 'PICTURE: "some.pdf" is not FILE.svg, FILE.png or -'),
    (["svg"], 'PICTURE: "svg" is not FILE.svg, FILE.png or -'),
    (["some.svg.gz"], 'PICTURE: "some.svg.gz" is not FILE.svg, FILE.png or -'),
    (["some.svg", "--format", "png"], '--format differs from the type of "some.svg"'),
    (["-", "--format", "pdf"], '--format: "pdf" is not one of svg, png'),
])
def test_other_types_of_pictures_are_refused_before_any_work(plotted, tmp_path, arguments, message):
    (tmp_path / "some.csv").unlink()  # which would be the error of any work
    done = plotted(*arguments)
    assert (done.returncode, done.stdout) == (64, b"")
    assert done.stderr.decode() == f"kavrel-tv: {message}; see kavrel-tv plot --help\n"
    assert list(tmp_path.glob("some*")) == []


@pytest.mark.parametrize("text, message", [
    ("", "this is not a recording of kavrel-tv record"), ("a,b\n", "this is not a recording of kavrel-tv record"),
    (",".join(HEADER) + "\n", "the recording is empty"),
    (",".join(OLD_HEADER) + "\n0,1,2,3,0,start\n\0\n", "some.csv:3: a time, 4 values and an event were expected"),
    (",".join(HEADER) + "\n0.0,1,2\n", "a time, 7 values and an event were expected"),
    (",".join(HEADER) + "\n0.0,1,2,3,0,hdmy,1,0,\n", "a time, 7 values and an event were expected"),
    (",".join(OLD_HEADER) + "\n0.0,1,2,x,0,\n", "a time, 4 values and an event were expected"),
    (",".join(OLD_HEADER) + "\n1.0,1,2,3,0,\n0.5,1,2,3,0,\n", "the time is earlier than on the line before"),
])
def test_what_is_no_recording_is_refused_with_its_line(scene, tmp_path, text, message):
    (tmp_path / "some.csv").write_text(text)
    done = KavrelTv(scene).run("plot", str(tmp_path / "some.csv"), str(tmp_path / "some.svg"))
    assert done.returncode == 1 and not (tmp_path / "some.svg").exists()
    assert message in refused(done) or (text == "" and "the recording is empty" in refused(done))


def test_hostile_event_texts_reach_neither_gnuplot_nor_the_csv_s_form(scene, tmp_path):
    event = "it's `touch {0}/owned` \\\" $x @y \\n <b>&amp;".format(tmp_path)
    (tmp_path / "odd.csv").write_text(",".join(OLD_HEADER) + f"\n0.0,100,100,10,0,start\n0.5,100,,10,1,{event}\n1.0,0,0,0,0,end\n")
    KavrelTv(scene)("plot", str(tmp_path / "odd.csv"), str(tmp_path / "odd.svg"))
    xml.etree.ElementTree.parse(tmp_path / "odd.svg")
    assert not (tmp_path / "owned").exists()


@pytest.fixture
def plot(scene, tmp_path):
    """Returns a function that runs plot with only tmp_path/bin in PATH and with an installer of the given lines."""
    def run(installer):
        (tmp_path / "some.csv").write_text(",".join(OLD_HEADER) + "\n0.0,100,100,10,0,start\n")
        script = tmp_path / "installer"
        script.write_text(f"#!/bin/sh\n{installer}\n")
        script.chmod(0o755)
        (tmp_path / "bin").mkdir(exist_ok=True)
        return KavrelTv(scene).run("plot", str(tmp_path / "some.csv"), str(tmp_path / "some.svg"),
                                   PATH=str(tmp_path / "bin"), KAVREL_INSTALL=str(script) if installer else "")
    return run


INSTALLER = "echo \"installing $*\"; /bin/ln -s {} {}/bin/gnuplot"


def test_a_missing_gnuplot_is_installed_once(plot, tmp_path):
    installer = INSTALLER.format(shutil.which("gnuplot"), tmp_path)
    done = plot(installer)
    assert (done.returncode, done.stdout) == (0, f"1 lines drawn in {tmp_path}/some.svg\n")
    assert done.stderr == "installing gnuplot-nox\n"
    xml.etree.ElementTree.parse(tmp_path / "some.svg")
    assert plot(installer).stderr == ""


@pytest.mark.parametrize("installer", ["", "exit 1", ":"])
def test_a_gnuplot_that_stays_missing_is_named(plot, tmp_path, installer):
    done = plot(installer)
    assert done.returncode == 1 and not (tmp_path / "some.svg").exists()
    assert refused(done) == "cannot start gnuplot, which draws the picture: install the Debian package gnuplot-nox"


def test_a_gnuplot_that_fails_says_why_in_one_line(plot, tmp_path):
    (tmp_path / "bin").mkdir()
    (tmp_path / "bin/gnuplot").write_text("#!/bin/sh\nwhile read -r line; do :; done\necho one >&2\necho two >&2\nexit 1\n")
    (tmp_path / "bin/gnuplot").chmod(0o755)
    done = plot("")
    assert done.returncode == 1 and not (tmp_path / "some.svg").exists()
    assert refused(done) == "gnuplot has failed: one two "


def test_recording_for_some_time_ends_by_itself(tool, tmp_path):
    out = tool("record", "--seconds", "0.2", str(tmp_path / "short.csv"))
    rows = rows_of(tmp_path / "short.csv")
    assert out.startswith(f"{len(rows)} lines in ") and float(rows[-1][0]) >= 0.2


def test_standard_output_gets_the_recording_alone(tool, tmp_path):
    lines = tool("record", "--seconds", "0.2", "-").splitlines()
    assert lines[0].split(",") == HEADER
    assert [line.split(",")[-1] for line in lines[1:]] == ["start", "end"]
    assert not (tmp_path / "-").exists()


def test_a_recording_that_cannot_be_written_is_told(tool):
    done = tool.run("record", "--seconds", "1", "/no/such/folder/file.csv")
    assert done.returncode == 1 and refused(done) == "cannot write /no/such/folder/file.csv"

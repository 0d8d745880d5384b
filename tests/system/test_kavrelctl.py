# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests kavrelctl as persons and scripts use it: its output, its exit status, and its effect on the daemon."""
import contextlib
import ctypes
import datetime
import json
import os
import re
import signal
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from gi.repository import Gio, GLib

from harness import KAVRELD, METHODS_PATH, NAME, PATIENCE, SIGNALS_PATH, TV_SUPPORT, Process, change_route
from impostor import Impostor
from kavrel_tv import wait_until_asleep
from terminal import Terminal
from view import View

KAVRELCTL, KAVREL_TV = os.environ["KAVRELCTL"], os.environ["KAVREL_TV"]
DONE, REFUSED, UNREACHABLE, USAGE, BUSY, NOT_ALLOWED, INTERRUPTED = 0, 1, 2, 64, 75, 77, 130

ALL_WORDS = "read volume, set volume, read mute, set mute (0xffff)"
HDMI = 2
MIRRORING = "settings/memory/menu/network/screenmirroring"

# A good command line for every command that does its work and ends.
SHORT_COMMANDS = [
    ["status"], ["support"], ["volume"], ["volume", "30"], ["volume", "+1"], ["mute"], ["mute", "on"],
    ["mute", "toggle"], ["unmute"], ["fade", "player"], ["fade", "unmute", "main"], ["gain", "reset"], ["gain", "on-mute", "40"],
    ["pulse", "20", "100"], ["buds", "connected"], ["buds", "disconnected", "3"], ["speaker-gone", "4", "Living room"],
]
HELP_PAGES = [
    [], ["status"], ["support"], ["volume"], ["mute"], ["unmute"], ["fade"], ["gain"], ["gain", "reset"], ["gain", "on-mute"],
    ["pulse"], ["buds"], ["speaker-gone"], ["wait"], ["monitor"], ["report"], ["help"],
]


class Ctl:
    """Runs kavrelctl in a scene."""

    def __init__(self, scene):
        self.scene = scene

    def run(self, *arguments, timeout=PATIENCE, **environment):
        return subprocess.run([KAVRELCTL, *arguments], env=self.scene.environment(**environment),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=timeout, check=False)

    def __call__(self, *arguments):
        """Runs it, checks that it succeeded, and returns its output."""
        done = self.run(*arguments)
        assert (done.returncode, done.stderr) == (DONE, "")
        return done.stdout

    def fails(self, status, *arguments, **options):
        """Checks that it fails with this status and prints nothing; returns its complaint without the program's name."""
        done = self.run(*arguments, **options)
        assert (done.returncode, done.stdout) == (status, ""), done.stderr
        assert re.fullmatch(r"kavrelctl: [^\n]+\n", done.stderr)
        return done.stderr.removeprefix("kavrelctl: ").removesuffix("\n")

    def view(self, *arguments):
        view = View(self.scene.environment(), KAVRELCTL, *arguments)
        self.scene.callback(view.end)
        return view

    def monitor(self, *arguments):
        """Starts a monitor and waits until it has printed the present state."""
        view = self.view("monitor", *arguments)
        view.read_until('"event":"state"' if "--json" in arguments else r"  support  ")
        return view


@pytest.fixture
def ctl(scene):
    return Ctl(scene)


@pytest.fixture
def hdmi(daemon, tv):
    """Uses an HDMI receiver that supports reading and setting the volume, but not mute."""
    tv.echo(0x3, f"{MIRRORING}/volume_support_hdmi")
    tv.echo(17, f"{MIRRORING}/get_volume_level_hdmi")
    change_route(tv, daemon.log, HDMI)


@pytest.fixture
def stopped(daemon):
    """A daemon that owns its name and does not answer."""
    daemon.signal(signal.SIGSTOP)
    yield daemon
    daemon.signal(signal.SIGCONT)


# Reading and setting values


def test_status_on_one_screen(daemon, ctl):
    assert ctl("status") == f"volume   10\nmute     off\nsupport  {ALL_WORDS}\noutput   tv, TV speaker (route 0)\n"


def test_status_as_one_object(daemon, ctl):
    assert ctl("status", "--json") == (
        '{"mute":false,"mute_status":0,"output":"tv","route":0,"support":65535,"support_status":0,'
        '"support_words":["read volume","set volume","read mute","set mute"],"volume":10,"volume_status":0}\n')


def test_status_tells_in_words_what_the_output_does_not(hdmi, ctl):
    done = ctl.run("status")
    assert done.returncode == REFUSED
    assert done.stdout == ("volume   17\nmute     not supported by this output (-4)\n"
                           "support  read volume, set volume; not: read mute, set mute (0x0003)\n"
                           "output   hdmi, HDMI receiver (route 2)\n")


def test_status_as_an_object_has_null_for_what_the_output_does_not_tell(hdmi, ctl):
    done = ctl.run("status", "--json")
    assert done.returncode == REFUSED
    assert json.loads(done.stdout) == {
        "volume": 17, "volume_status": 0, "mute": None, "mute_status": -4, "output": "hdmi", "route": 2,
        "support": 3, "support_status": 0, "support_words": ["read volume", "set volume"]}


VOLUMES = [
    (10, "30", 30), (10, "0", 0), (10, "100", 100),
    (10, "5%", 5), (10, "5%+", 15), (10, "5%-", 5), (10, "+5%", 15), (10, "-5%", 5), (10, "5+", 15), (97, "5%+", 100),
    (10, "+5", 15), (10, "-5", 5), (10, "+0", 10), (97, "+5", 100), (3, "-5", 0), (50, "-2147483647", 0),
    (50, "+2147483647", 100),
]


def test_volume_is_set(daemon, ctl, client):
    for before, argument, after in VOLUMES:
        client.set_volume(before)
        assert ctl("volume", argument) == ""
        assert client.get_volume() == (after, 0), argument
        assert ctl("volume") == f"{after}\n"


def test_volume_and_mute_as_objects(daemon, ctl, client):
    client.set_volume(42)
    assert ctl("volume", "--json") == '{"volume":42,"volume_status":0}\n'
    client.set_mute(True)
    assert ctl("mute", "--json") == '{"mute":true,"mute_status":0}\n'
    assert ctl("volume", "-2", "--json") == '{"volume":40,"volume_status":0}\n'
    assert ctl("mute", "toggle", "--json") == '{"mute":true,"mute_status":0}\n'


def test_volume_unmutes(daemon, ctl, client):
    client.set_mute(True)
    ctl("volume", "20")
    assert client.get_mute() == (0, 0)


@pytest.mark.parametrize("before, argument, after", [
    (False, "on", "on"), (True, "on", "on"), (False, "off", "off"), (True, "off", "off"), (False, "toggle", "on"),
    (True, "toggle", "off"),
])
def test_mute_is_set(daemon, ctl, client, before, argument, after):
    client.set_mute(before)
    assert ctl("mute", argument) == ""
    assert client.get_mute() == (int(after == "on"), 0)
    assert ctl("mute") == f"{after}\n"


@pytest.mark.parametrize("word, words", [
    (0x5, "read volume, read mute; not: set volume, set mute (0x0005)"),
    (0xA, "set volume, set mute; not: read volume, read mute (0x000a)"),
    (0x10, "nothing: volume and mute can be neither read nor set (0x0010)"),
])
def test_support_in_words(daemon, tv, ctl, word, words):
    tv.echo(word, f"{MIRRORING}/volume_support_hdmi")
    change_route(tv, daemon.log, HDMI)
    assert ctl("support") == f"{words}\n"
    assert json.loads(ctl("support", "--json"))["support"] == word


@pytest.mark.parametrize("arguments, after", [
    (["mute", "ON"], "on"), (["mute", "1"], "on"), (["mute", "True"], "on"), (["mute", "yes"], "on"),
    (["mute", "Off"], "off"), (["mute", "0"], "off"), (["mute", "FALSE"], "off"), (["mute", "No"], "off"),
    (["mute", "Toggle"], "off"), (["unmute"], "off"),
])
def test_mute_has_many_words(daemon, ctl, client, arguments, after):
    client.set_mute(after == "off")
    if arguments[-1] == "Toggle":
        client.set_mute(True)
    assert ctl(*arguments) == ""
    assert ctl("mute") == f"{after}\n"


def test_unmute_as_an_object(daemon, ctl, client):
    client.set_mute(True)
    assert ctl("unmute", "--json") == '{"mute":false,"mute_status":0}\n'


# The output that plays, which the TV directory tells


@pytest.fixture
def no_volume_control(daemon, tv):
    """Uses an output without volume control."""
    change_route(tv, daemon.log, 7)


def test_status_names_an_output_without_volume_control(no_volume_control, ctl):
    assert ctl("status").splitlines()[2:] == [
        "support  nothing: volume and mute can be neither read nor set (0x0000)",
        "output   other-7, output without volume control (route 7)"]


@pytest.mark.parametrize("route, words", [
    ("42", "unknown (route 42)"), (" -1 ", "unknown (route -1)"), ("19", "auracast, Auracast speaker (route 19)"),
])
def test_status_names_any_route(daemon, tv, ctl, route, words):
    change_route(tv, daemon.log, route)
    assert ctl.run("status").stdout.splitlines()[3:] == [f"output   {words}"]


def test_status_names_the_output_of_the_zone_in_focus(daemon, tv, ctl):
    tv.echo(2, "sound/zones/1/route")
    tv.echo(1, "zones/focus")
    assert ctl.run("status").stdout.splitlines()[3] == "output   tv, TV speaker (route 0)"
    tv.echo('{"mode":"on"}', "settings/memory/multiscreen/info")
    assert ctl.run("status").stdout.splitlines()[3] == "output   hdmi, HDMI receiver (route 2), of the zone in focus"
    assert json.loads(ctl.run("status", "--json").stdout)["output"] == "hdmi"
    for text, value in (("false", "features/com.norvik/featureconf/multiview.support"),
                        ('{"mode":"off"}', "settings/memory/multiscreen/info"),
                        ("[" * 5000, "settings/memory/multiscreen/info"), ("none", "sound/zones/1/route")):
        before = tv.read(value)
        tv.echo(text, value)
        assert ctl.run("status").stdout.splitlines()[3] == "output   tv, TV speaker (route 0)", value
        tv.echo(before, value)


def test_empty_name_of_a_tv_directory_is_none(scene, daemon, tv):
    tv.echo(19, "sound/route")
    done = subprocess.run([KAVRELCTL, "status"], env=scene.environment(KAVREL_TV_DIR=""), cwd=tv.path, capture_output=True,
                          text=True, timeout=PATIENCE, check=False)
    assert done.stdout.startswith("volume ") and "auracast" not in done.stdout
    report = Ctl(scene).run("report", "--timeout", str(PATIENCE), KAVREL_TV_DIR="", PATH=str(scene.folder)).stdout
    is_missing = rows_of(parts_of(report)["State"])["output"] == "missing: no readable route in /run/kavrel"
    assert is_missing != Path("/run/kavrel/sound/route").exists()


def not_a_directory(folder):
    return folder / "nothing"


def directory_without_a_route(folder):
    return folder


def directory_with_a_folder_for_a_route(folder):
    (folder / "sound/route").mkdir(parents=True)
    return folder


def directory_with_a_fifo_for_a_route(folder):
    (folder / "sound").mkdir()
    os.mkfifo(folder / "sound/route")
    return folder


def directory_with_nonsense(folder):
    (folder / "sound").mkdir()
    (folder / "sound/route").write_text("hdmi\n")
    return folder


@pytest.mark.parametrize("make", [
    not_a_directory, directory_without_a_route, directory_with_a_folder_for_a_route, directory_with_a_fifo_for_a_route,
    directory_with_nonsense,
])
def test_status_leaves_out_an_output_that_no_directory_tells(daemon, ctl, tmp_path, make):
    directory = str(make(tmp_path))
    before = sorted(tmp_path.rglob("*"))
    shown = ctl.run("status", KAVREL_TV_DIR=directory)
    assert (shown.returncode, len(shown.stdout.splitlines())) == (DONE, 3)
    state = json.loads(ctl.run("status", "--json", KAVREL_TV_DIR=directory).stdout)
    assert (state["output"], state["route"]) == (None, None)
    assert sorted(tmp_path.rglob("*")) == before  # it makes no TV


# Refused arguments


@pytest.mark.parametrize("arguments, complaint", [
    (["volume", "20"], "the volume was not set"), (["volume", "+1"], "the volume was not set"),
    (["mute", "on"], "mute was not set"), (["unmute"], "mute was not set"),
])
def test_set_on_an_output_without_volume_control_says_so(no_volume_control, ctl, arguments, complaint):
    assert ctl.fails(REFUSED, *arguments) == (
        f"{complaint}: the output in use supports nothing: volume and mute can be neither read nor set (0x0000)")


def test_set_on_a_device_that_supports_nothing_says_so(daemon, tv, ctl):
    tv.echo(0, f"{MIRRORING}/volume_support_hdmi")
    change_route(tv, daemon.log, HDMI)
    assert ctl.fails(REFUSED, "volume", "20").startswith("the volume was not set: the output in use supports nothing")
    assert ctl.fails(REFUSED, "volume", "101") == "the volume was not set: invalid argument (-2)"


def test_status_says_that_support_is_unknown(daemon, tv, ctl):
    change_route(tv, daemon.log, HDMI)
    done = ctl.run("status")
    assert (done.returncode, done.stdout.splitlines()[2]) == (
        REFUSED, "support  unknown: the output's device has not said, or kavreld is busy (-1)")


def test_status_below_zero_is_told_in_words(daemon, hdmi, tv, ctl):
    assert ctl.fails(REFUSED, "volume", "101") == "the volume was not set: invalid argument (-2)"
    assert ctl.fails(REFUSED, "mute") == "the mute cannot be read: not supported by this output (-4)"
    assert ctl.fails(REFUSED, "mute", "on") == "mute was not set: not supported by this output (-4)"
    tv.remove(f"{MIRRORING}/get_volume_level_hdmi")
    assert ctl.fails(REFUSED, "volume") == "the volume cannot be read: failed or busy (-1)"


def test_other_status_is_the_platforms(daemon, tv, ctl):
    tv.remove("audio/master_volume")
    assert ctl.fails(REFUSED, "volume") == "the volume cannot be read: platform error (-1002)"
    assert ctl.fails(REFUSED, "volume", "+1") == "the volume cannot be read: platform error (-1002)"


# Gains and signals: what the daemon gets


def calls_of(ctl, *arguments):
    """Runs kavrelctl with a program in the daemon's place that answers the calls for gains; returns those that came."""
    methods = ["ApplyPlayerFadeIn", "ApplyUnmuteFadeIn", "ResetPlayerGain", "ApplyGainOnMute"]
    impostor = Impostor(ctl.scene.client(), **{method: [(0,), (0,)] for method in methods})
    assert ctl(*arguments) == ""
    return list(zip(impostor.calls, impostor.arguments))


@pytest.mark.parametrize("arguments, method, paths", [
    (["player"], "ApplyPlayerFadeIn", [1, 2]),
    (["player", "both"], "ApplyPlayerFadeIn", [1, 2]),
    (["player", "main"], "ApplyPlayerFadeIn", [1]),
    (["player", "sub"], "ApplyPlayerFadeIn", [2]),
    (["unmute"], "ApplyUnmuteFadeIn", [3]),
    (["unmute", "both"], "ApplyUnmuteFadeIn", [3]),
    (["unmute", "main"], "ApplyUnmuteFadeIn", [1]),
    (["unmute", "sub"], "ApplyUnmuteFadeIn", [2]),
])
def test_fade(ctl, arguments, method, paths):
    assert calls_of(ctl, "fade", *arguments) == [(method, (path,)) for path in paths]


def test_fade_of_the_player_reaches_full_gain_on_both_outputs(daemon, tv, ctl):
    ctl("fade", "player")
    for gain in ("audio/main_out_gain2", "audio/sub_out_gain2"):
        tv.wait_until(gain, lambda gain=gain: tv.read(gain) == "100")


@pytest.mark.parametrize("output, paths", [([], [1, 2]), (["both"], [1, 2]), (["main"], [1]), (["sub"], [2])])
def test_gain_reset(ctl, output, paths):
    assert calls_of(ctl, "gain", "reset", *output) == [("ResetPlayerGain", (path,)) for path in paths]


@pytest.mark.parametrize("arguments, path, gain", [
    (["40"], 3, 40), (["0", "both"], 3, 0), (["100", "main"], 1, 100), (["7", "sub"], 2, 7),
])
def test_gain_on_mute(ctl, arguments, path, gain):
    assert calls_of(ctl, "gain", "on-mute", *arguments) == [("ApplyGainOnMute", (path, gain))]


def test_a_gain_on_mute_is_written(daemon, tv, ctl):
    ctl("gain", "on-mute", "40")
    assert tv.read("audio/main_out_gain2") == tv.read("audio/sub_out_gain2") == "40"


@pytest.mark.parametrize("arguments, member, signature, values", [
    (["pulse", "20", "1000"], "ApplyPulseAudioGain", "ii", (20, 1000)),
    (["pulse", "0", "0"], "ApplyPulseAudioGain", "ii", (0, 0)),
    (["buds", "connected"], "BudsConnected", "i", (0,)),
    (["buds", "connected", "-7"], "BudsConnected", "i", (-7,)),
    (["buds", "disconnected", "3"], "BudsDisconnected", "i", (3,)),
    (["speaker-gone", "4", "Wohnzimmer süd"], "SpkDisconnected", "is", (4, "Wohnzimmer süd")),
    (["speaker-gone", "--", "-1", "-x"], "SpkDisconnected", "is", (-1, "-x")),
    (["speaker-gone", "HDMI-2", "x"], "SpkDisconnected", "is", (8, "x")),
])
def test_signals_are_sent(ctl, client, arguments, member, signature, values):
    Impostor(client)
    assert ctl(*arguments) == ""
    client.expect(member, *values)
    assert client.heard_from == [(SIGNALS_PATH, NAME, signature)]


def test_a_signal_is_heard(daemon, ctl, client):
    assert ctl("buds", "disconnected", "3") == ""
    client.expect("SpeakerChangeRequest", 0, 1)


# Waiting


def test_wait_ends_at_once_when_the_daemon_is_there(daemon, ctl):
    assert ctl("wait") == ""


def test_wait_ends_when_the_daemon_comes(scene, ctl, client):
    view = ctl.view("wait", "--timeout", "0")
    scene.start()
    assert view.wait() == DONE


def test_wait_gives_up(ctl):
    assert ctl.fails(UNREACHABLE, "wait", "--timeout", "3") == (  # enough to reach the bus
        f"kavreld did not come in time: nobody on the bus owns {NAME}")


def test_wait_needs_no_reader(scene, ctl):
    view = ctl.view("wait", "--timeout", "0")
    view.close_output()
    scene.start()
    assert view.wait() == DONE


def test_wait_ends_with_the_bus(scene, ctl, client):
    asked = threading.Event()

    def see(_connection, message, *_):
        if message.get_member() == "GetNameOwner":
            asked.set()  # the last question of kavrelctl before it waits
            return None  # which is for the bus
        return message

    client.connection.add_filter(see)
    client.connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus.Monitoring",
                                "BecomeMonitor", GLib.Variant("(asu)", (["member='GetNameOwner'"], 0)), None,
                                Gio.DBusCallFlags.NONE, -1, None)
    view = ctl.view("wait", "--timeout", "0")
    assert asked.wait(PATIENCE), "kavrelctl does not ask"
    wait_until_asleep(view.pid)  # until it has the answer
    scene.bus.end()
    assert (view.wait(), view.errors()) == (UNREACHABLE, "kavrelctl: the bus has gone\n")


# No bus, no daemon or no answer


def test_no_daemon_and_nobody_starts_it(scene, ctl, change_bus):
    change_bus(f"<servicedir>{scene.folder}/services</servicedir>")
    for arguments in [*SHORT_COMMANDS, ["monitor"], ["monitor", "--calls"]]:
        assert ctl.fails(UNREACHABLE, *arguments) == f"kavreld is not running: nobody on the bus owns {NAME}", arguments
    assert not (scene.folder / "started").exists()


def test_no_bus(scene, ctl):
    nobody = f"unix:path={scene.folder}/nobody"
    for arguments in [*SHORT_COMMANDS, ["wait"], ["monitor"], ["monitor", "--calls"]]:
        complaint = ctl.fails(UNREACHABLE, *arguments, DBUS_SYSTEM_BUS_ADDRESS=nobody)
        assert complaint == (
            f"no system bus: Could not connect: No such file or directory; DBUS_SYSTEM_BUS_ADDRESS names {nobody}"), arguments


def test_bus_that_goes_before_the_daemon_answers(scene, ctl):
    impostor = Impostor(scene.client())
    view = ctl.view("volume", "--timeout", "0")
    assert impostor.called.wait(PATIENCE)
    scene.bus.end()
    assert (view.wait(), view.errors()) == (UNREACHABLE, "kavrelctl: the bus has gone\n")


def test_nonsense_for_a_bus_address(ctl):
    assert ctl.fails(UNREACHABLE, "status", DBUS_SYSTEM_BUS_ADDRESS="nonsense").startswith("no system bus: ")


def test_empty_bus_address_is_named(ctl):
    assert ctl.fails(UNREACHABLE, "status", DBUS_SYSTEM_BUS_ADDRESS="") == (
        "no system bus: DBUS_SYSTEM_BUS_ADDRESS is empty; unset it to use the system's bus")


ANSWERED_COMMANDS = [arguments for arguments in SHORT_COMMANDS
                     if arguments[0] not in ("pulse", "buds", "speaker-gone")]


@pytest.mark.parametrize("commands", [ANSWERED_COMMANDS, [["monitor"]]], ids=["requests", "monitor"])
def test_no_answer_in_time(stopped, ctl, commands):
    def complaint(arguments):
        begin = time.monotonic()
        return ctl.fails(UNREACHABLE, *arguments, "--timeout", "2"), time.monotonic() - begin  # enough to reach the bus

    with ThreadPoolExecutor(5) as pool:  # they only wait
        for text, seconds in pool.map(complaint, commands):
            assert text == "no answer within 2 s"
            assert seconds >= 2


def test_no_answer_from_the_bus_in_time(scene, ctl):
    scene.tv.path.mkdir()
    scene.bus.signal(signal.SIGSTOP)
    try:
        by_default = [View(scene.environment(), *command)
                      for command in ([KAVRELCTL, "status"], [KAVREL_TV, "tour"], [KAVREL_TV, "emulator", "bt"])]
        for view in by_default:
            scene.callback(view.end)
        begin = time.monotonic()
        assert ctl.fails(UNREACHABLE, "--timeout", "0.2", "status") == "no answer from the bus within 0.2 s"
        assert time.monotonic() - begin >= 0.2
        assert ctl.fails(UNREACHABLE, "status", "--timeout", "0.0001") == "no answer from the bus within 0.001 s"
        for view, program in zip(by_default, ("kavrelctl", "kavrel-tv", "kavrel-tv")):
            assert (view.wait(), view.errors()) == (UNREACHABLE, f"{program}: no answer from the bus within 5 s\n")
    finally:
        scene.bus.signal(signal.SIGCONT)


def test_daemon_that_ends_before_it_answers(scene, ctl):
    impostor = Impostor(scene.client())
    view = ctl.view("status", "--timeout", "0")
    assert impostor.called.wait(PATIENCE)
    impostor.connection.close_sync(None)
    assert (view.wait(), view.errors()) == (UNREACHABLE, "kavrelctl: kavreld left the bus before it answered\n")


def test_timeout_of_zero_is_none(stopped, ctl):
    view = ctl.view("volume", "--timeout", "0")
    time.sleep(0.3)  # only time can show that nothing happens
    assert view.is_alive()
    stopped.signal(signal.SIGCONT)
    assert view.read_line() == "10"
    assert view.wait() == DONE


# A bus or a daemon that has too much to do

PAUSES = 0.05 + 0.1 + 0.2  # seconds between the four attempts


@pytest.mark.parametrize("busy", [(0, -1), Impostor.TOO_MUCH], ids=str)
def test_busy_daemon_is_asked_again(scene, ctl, busy):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[busy, busy, busy, (30, 0)])
    assert ctl("volume") == "30\n"
    assert impostor.calls == ["GetSpeakerVolume"] * 4


@pytest.mark.parametrize("busy, status, complaint", [
    ((0, -1), REFUSED, "the volume cannot be read: failed or busy (-1)"),
    (Impostor.TOO_MUCH, BUSY, "busy, try again: Too many wait"),
])
def test_daemon_that_stays_busy_is_left_alone(scene, ctl, busy, status, complaint):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[busy] * 9)
    begin = time.monotonic()
    assert ctl.fails(status, "volume") == complaint
    assert time.monotonic() - begin >= PAUSES
    assert impostor.calls == ["GetSpeakerVolume"] * 4


INVALID = "invalid argument (-2)"


@pytest.mark.parametrize("arguments, answers, calls, complaint", [
    (["volume", "30"], {"SetSpeakerVolume": [(-2,)] * 9}, 1, f"the volume was not set: {INVALID}"),
    (["volume", "30"], {"SetSpeakerVolume": [(-4,)], "GetSpeakerSupportType": [(0, 0)]}, 2,
     "the volume was not set: the output in use supports nothing: volume and mute can be neither read nor set (0x0000)"),
    (["volume"], {"GetSpeakerVolume": ["org.freedesktop.DBus.Error.ServiceUnknown"]}, 1,
     f"kavreld is not running: nobody on the bus owns {NAME}"),
    (["fade", "player"], {"ApplyPlayerFadeIn": [(0,), (-2,)]}, 2,
     f"the player fade-in was not started (sub output): {INVALID}"),
    (["fade", "player"], {"ApplyPlayerFadeIn": [(-2,), (0,)]}, 2,
     f"the player fade-in was not started (main output): {INVALID}"),
    (["gain", "reset", "sub"], {"ResetPlayerGain": [(-2,)]}, 1, f"the player gain was not reset (sub output): {INVALID}"),
    (["fade", "unmute"], {"ApplyUnmuteFadeIn": [(-2,)]}, 1, f"the unmute fade-in was not started: {INVALID}"),
    (["gain", "on-mute", "40"], {"ApplyGainOnMute": [(-2,)]}, 1, f"the unmute gain was not set: {INVALID}"),
], ids=lambda value: " ".join(value) if isinstance(value, list) else None)
def test_failure_of_the_daemon_is_named(scene, ctl, arguments, answers, calls, complaint):
    impostor = Impostor(scene.client(), **answers)
    assert ctl.fails(UNREACHABLE if "not running" in complaint else REFUSED, *arguments) == complaint
    assert len(impostor.calls) == calls


@pytest.mark.parametrize("command, method", [("volume", "GetSpeakerVolume"), ("monitor", f"{NAME}.GetSpeakerVolume")])
def test_answer_with_other_values_is_a_failure(scene, ctl, command, method):
    Impostor(scene.client(), GetSpeakerVolume=[(30,)])
    assert ctl.fails(UNREACHABLE, command) == f"the call failed: Method “{method}” returned type “(i)”, but expected “(ii)”"


def test_set_is_tried_again(scene, ctl):
    impostor = Impostor(scene.client(), SetSpeakerVolume=[(-1,), Impostor.TOO_MUCH, (0,)],
                        GetSpeakerSupportType=[(15, 0)])
    assert ctl("volume", "30") == ""
    assert impostor.calls == ["SetSpeakerVolume"] * 3 + ["GetSpeakerSupportType"]
    impostor.answers = {"SetSpeakerVolume": [(0,)], "GetSpeakerSupportType": [(0, -1)] * 4}  # the device has not said it
    assert ctl("volume", "30") == ""


def test_monitor_asks_a_busy_daemon_again(scene, ctl):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[Impostor.TOO_MUCH, (0, -1), (30, 0)],
                        GetSpeakerMute=[(0, -1)] * 9, GetSpeakerSupportType=[(15, 0)])
    begin = time.monotonic()
    view = ctl.view("monitor", "--json")
    state = view.read_events("state")[0]
    assert time.monotonic() - begin >= PAUSES
    assert (state["volume"], state["mute_status"], state["support"]) == (30, -1, 15)
    assert sorted(impostor.calls) == (
        ["GetSpeakerMute"] * 4 + ["GetSpeakerSupportType"] + ["GetSpeakerVolume"] * 3)
    assert impostor.starting == []


@pytest.mark.parametrize("answers", [{"GetSpeakerVolume": [(0, -1)] * 9}, {}], ids=["to ask again", "for answers"])
def test_monitor_ends_while_it_waits(scene, ctl, answers):
    impostor = Impostor(scene.client(), **answers)
    view = ctl.view("monitor", "--timeout", "0")
    assert impostor.called.wait(PATIENCE)
    view.close_output()
    assert view.wait() == DONE


@pytest.fixture
def change_bus(scene):
    """Starts the scene's bus anew, with more lines in its configuration."""
    def change(lines):
        services = scene.folder / "services"
        services.mkdir(exist_ok=True)
        (services / "kavreld.service").write_text(
            f"[D-BUS Service]\nName={NAME}\nExec=/bin/touch {scene.folder}/started\n")
        scene.change_bus("</busconfig>", f"{lines}</busconfig>")
    return change


def test_bus_with_too_many_connections_is_busy(scene, ctl, change_bus):
    change_bus('<limit name="max_connections_per_user">8</limit>')
    scene.start()
    clients = []
    with pytest.raises(GLib.Error, match="LimitsExceeded"):
        while len(clients) < 9:
            clients.append(scene.client())
    begin = time.monotonic()
    assert ctl.fails(BUSY, "status").startswith("busy, try again: The maximum number of active connections")
    assert time.monotonic() - begin >= PAUSES
    clients[0].close()
    assert ctl("volume") == "10\n"


def test_signal_that_the_bus_has_no_room_for_is_not_lost_in_silence(scene, ctl, change_bus):
    change_bus('<limit name="max_outgoing_bytes">100000</limit>')
    daemon = scene.start()
    client = scene.client()
    daemon.signal(signal.SIGSTOP)
    try:
        for _ in range(100):  # 200 MB
            for _ in range(20):
                message = Gio.DBusMessage.new_signal(SIGNALS_PATH, NAME, "BudsConnected")
                message.set_destination(NAME)
                message.set_body(GLib.Variant("(s)", ("x" * 100_000,)))
                client.connection.send_message(message, Gio.DBusSendMessageFlags.NONE)
            assert client.owner()  # the bus has them all
            done = ctl.run("buds", "connected")
            if done.returncode != DONE:
                break
        assert (done.returncode, done.stderr.split(": ")[:2]) == (BUSY, ["kavrelctl", "busy, try again"])
    finally:
        daemon.signal(signal.SIGCONT)


# A bus that refuses

NEEDS_RIGHTS = "not allowed: needs root or the group audio"
CHANGES = [["volume", "30"], ["mute", "on"], ["unmute"], ["fade", "player"], ["fade", "unmute"], ["gain", "reset"],
           ["gain", "on-mute", "40"], ["pulse", "20", "100"], ["buds", "connected"], ["buds", "disconnected"],
           ["speaker-gone", "4", "x"]]


@pytest.fixture
def refusing(scene, change_bus):
    """A daemon on a bus that lets everybody ask, and nobody change anything."""
    deny = f'<deny send_destination="{NAME}" send_interface="{NAME}"'
    allow = "".join(f'<allow send_destination="{NAME}" send_interface="{NAME}" send_member="{method}"/>'
                    for method in ("GetSpeakerVolume", "GetSpeakerMute", "GetSpeakerSupportType"))
    change_bus(f'<policy context="mandatory">{deny}/>{allow}</policy>')
    return scene.start()


@pytest.mark.parametrize("arguments", CHANGES, ids=" ".join)
def test_refusal_of_the_bus_has_a_status_of_its_own(refusing, ctl, arguments):
    assert ctl.fails(NOT_ALLOWED, *arguments) == NEEDS_RIGHTS


def test_questions_are_not_refused(refusing, ctl):
    assert ctl("volume") == "10\n"
    assert ctl("status").startswith("volume   10\n")


# Wrong usage: reported without a call

NO_VOLUME = ("VOLUME: {} is not N, N%, +N, -N, N%+ or N%- with N from 0 to 2147483647; "
             "see kavrelctl volume --help")


WRONG_USAGE = [
    ([], "a command is missing; see kavrelctl --help"),
    (["bogus"], 'no such command: "bogus"; see kavrelctl --help'),
    (["x"], 'no such command: "x"; see kavrelctl --help'),
    (["stauts"], 'no such command: "stauts" (did you mean "status"?); see kavrelctl --help'),
    (["vol"], 'no such command: "vol" (did you mean "volume"?); see kavrelctl --help'),
    (["monitr", "--json"], 'no such command: "monitr" (did you mean "monitor"?); see kavrelctl --help'),
    (["umute"], 'no such command: "umute" (did you mean "unmute"?); see kavrelctl --help'),
    (["UNMUTE"], 'no such command: "UNMUTE" (did you mean "unmute"?); see kavrelctl --help'),
    (["MUTE", "on"], 'no such command: "MUTE" (did you mean "mute"?); see kavrelctl --help'),
    ([""], 'no such command: ""; see kavrelctl --help'),
    (["s"], 'no such command: "s"; see kavrelctl --help'),
    (["mtue"], 'no such command: "mtue" (did you mean "mute"?); see kavrelctl --help'),
    (["mutee"], 'no such command: "mutee" (did you mean "mute"?); see kavrelctl --help'),
    (["mode"], 'no such command: "mode"; see kavrelctl --help'),
    (["mtxe"], 'no such command: "mtxe"; see kavrelctl --help'),
    (["mxue"], 'no such command: "mxue"; see kavrelctl --help'),
    (["Status"], 'no such command: "Status" (did you mean "status"?); see kavrelctl --help'),
    (["help", "bogus"], 'no such command: "bogus"; see kavrelctl help --help'),
    (["help", "fad"], 'no such command: "fad" (did you mean "fade"?); see kavrelctl help --help'),
    (["help", "gain", "rest"], 'no such command: "rest" (did you mean "reset"?); see kavrelctl help --help'),
    (["help", "mute", "on"], 'no such command: "on"; see kavrelctl help --help'),
    (["--bogus"], 'unexpected argument "--bogus"; see kavrelctl --help'),
    (["status", "x"], 'unexpected argument "x"; see kavrelctl status --help'),
    (["status", "--bogus"], 'unexpected argument "--bogus"; see kavrelctl status --help'),
    (["support", "volume"], 'unexpected argument "volume"; see kavrelctl support --help'),
    (["volume", "loud"], NO_VOLUME.format('"loud"')),
    (["volume", ""], NO_VOLUME.format('""')),
    (["volume", "+"], NO_VOLUME.format('"+"')),
    (["volume", "%"], NO_VOLUME.format('"%"')),
    (["volume", "%+"], NO_VOLUME.format('"%+"')),
    (["volume", "5%%"], NO_VOLUME.format('"5%%"')),
    (["volume", "5-%"], NO_VOLUME.format('"5-%"')),
    (["volume", "+5+"], NO_VOLUME.format('"+5+"')),
    (["volume", "+-5"], NO_VOLUME.format('"+-5"')),
    (["volume", "-5x"], NO_VOLUME.format('"-5x"')),
    (["volume", "0x10"], NO_VOLUME.format('"0x10"')),
    (["volume", " 5"], NO_VOLUME.format('" 5"')),
    (["volume", "2147483648"], NO_VOLUME.format('"2147483648"')),
    (["volume", "loud", "--bogus"], NO_VOLUME.format('"loud"')),
    (["volume", "5", "6"], 'unexpected argument "6"; see kavrelctl volume --help'),
    (["mute", "maybe"], 'STATE: "maybe" is not one of on, off, toggle; see kavrelctl mute --help'),
    (["mute", ""], 'STATE: "" is not one of on, off, toggle; see kavrelctl mute --help'),
    (["fade"], "SOURCE is required; see kavrelctl fade --help"),
    (["fade", "pulse"], 'SOURCE: "pulse" is not one of player, unmute; see kavrelctl fade --help'),
    (["fade", "player", "left"], 'OUTPUT: "left" is not one of main, sub, both; see kavrelctl fade --help'),
    (["gain"], "a command is missing; see kavrelctl gain --help"),
    (["gain", "set"], 'no such command: "set"; see kavrelctl gain --help'),
    (["gain", "on-mute", "40", "both", "reset"], 'unexpected argument "reset"; see kavrelctl gain on-mute --help'),
    (["gain", "reset", "left"], 'OUTPUT: "left" is not one of main, sub, both; see kavrelctl gain reset --help'),
    (["gain", "on-mute"], "GAIN is required; see kavrelctl gain on-mute --help"),
    (["gain", "on-mute", "101"], 'GAIN: "101" is not a whole number from 0 to 100; '
                                 'see kavrelctl gain on-mute --help'),
    (["gain", "on-mute", "-1"], 'GAIN: "-1" is not a whole number from 0 to 100; '
                                'see kavrelctl gain on-mute --help'),
    (["gain", "on-mute", "1.5"], 'GAIN: "1.5" is not a whole number from 0 to 100; '
                                 'see kavrelctl gain on-mute --help'),
    (["pulse", "20"], "MS is required; see kavrelctl pulse --help"),
    (["pulse", "101", "5"], 'GAIN: "101" is not a whole number from 0 to 100; see kavrelctl pulse --help'),
    (["pulse", "5", "-1"], 'MS: "-1" is not a whole number from 0 to 2147483647; see kavrelctl pulse --help'),
    (["buds"], "EVENT is required; see kavrelctl buds --help"),
    (["buds", "lost"], 'EVENT: "lost" is not one of connected, disconnected; see kavrelctl buds --help'),
    (["buds", "connected", "x"], 'REASON: "x" is not a whole number of 32 bits; see kavrelctl buds --help'),
    (["speaker-gone", "4"], "NAME is required; see kavrelctl speaker-gone --help"),
    (["speaker-gone", "hdmii", "x"], 'TYPE: "hdmii" is neither the name of a route nor an integer of 32 bits; '
                                     'see kavrelctl speaker-gone --help'),
    (["speaker-gone", "2147483648", "x"], 'TYPE: "2147483648" is neither the name of a route nor an integer of 32 bits; '
                                          'see kavrelctl speaker-gone --help'),
    (["speaker-gone", "4", b"\xff"], 'NAME: "?" is not UTF-8 text; see kavrelctl speaker-gone --help'),
    (["wait", "x"], 'unexpected argument "x"; see kavrelctl wait --help'),
    (["monitor", "--color"], 'unexpected argument "--color"; see kavrelctl monitor --help'),
    (["status", "--timeout", "-1"], '--timeout: "-1" is not a number from 0 to 1000000; '
                                    'see kavrelctl status --help'),
    (["status", "--timeout", "nan"], '--timeout: "nan" is not a number from 0 to 1000000; '
                                     'see kavrelctl status --help'),
    (["status", "--timeout", ""], '--timeout: "" is not a number from 0 to 1000000; '
                                  'see kavrelctl status --help'),
    (["wait", "--timeout"], "--timeout: 1 required SECONDS missing; see kavrelctl wait --help"),
    (["status", "a\nb\x1b"], 'unexpected argument "a?b?"; see kavrelctl status --help'),
]


def test_wrong_usage(ctl):
    for arguments, complaint in WRONG_USAGE:
        assert ctl.fails(USAGE, *arguments) == complaint, arguments


def test_numbers_are_decimal(daemon, tv, ctl, client):
    ctl("volume", "010")
    assert client.get_volume() == (10, 0)
    ctl("gain", "on-mute", "010")
    assert tv.read("audio/main_out_gain2") == "10"


# Help


def help_of(ctl, page):
    return ctl(*page, "--help")


def test_help_fits_the_terminal_and_has_an_example(ctl):
    for page in HELP_PAGES:
        text = help_of(ctl, page)
        assert [line for line in text.splitlines() if len(line) > 80] == []
        assert re.search(rf"^  {' '.join(['kavrelctl', *page])}\b", text.split("Example")[1], re.MULTILINE), page


def test_help_is_shown_whatever_else_is_wrong(ctl):
    assert ctl("volume", "loud", "--help") == help_of(ctl, ["volume"])
    assert ctl("--help", "gain", "on-mute", "101") == help_of(ctl, ["gain", "on-mute"])


def test_help_is_a_command_too(ctl):
    for page in HELP_PAGES:
        assert ctl("help", *page) == help_of(ctl, page)


def test_help_names_every_exit_status(ctl):
    exits = help_of(ctl, []).split("Exit status:")[1].split("Environment:")[0]
    assert re.findall(r"(\d+) [a-zA-Z]", exits) == ["0", "1", "2", "64", "75", "77", "130"]


def test_help_names_every_command(ctl):
    named = re.findall(r"^  ([a-z-]+) ", help_of(ctl, []).split("Commands:")[1].split("Examples:")[0], re.MULTILINE)
    assert named == [page[0] for page in HELP_PAGES if len(page) == 1]


@pytest.mark.parametrize("page", [page for page in HELP_PAGES if page not in ([], ["monitor"])], ids=" ".join)
def test_examples_work(scene, daemon, ctl, page):
    examples = re.findall(r"^  (kavrelctl .*)", help_of(ctl, page), re.MULTILINE)
    assert examples
    for example in examples:
        scene.run("bash", "-c", example.replace("kavrelctl", KAVRELCTL, 1))


def test_reader_that_has_gone_ends_a_tool_in_silence(scene, daemon):
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "w") as output:
        done = subprocess.run([KAVRELCTL, "status"], env=scene.environment(), stdout=output, stderr=subprocess.PIPE,
                              timeout=PATIENCE, check=False)
    assert (done.returncode, done.stderr) == (DONE, b"")


FADE_HELP = """Fade a gain in, from 0 to 100 in about 1.5 s
player  It fades OUTPUT; both is two calls, main and then sub.
unmute  Without a sub Bluetooth zone it fades both outputs whatever OUTPUT is.
        With one, both is main alone; sub needs a call of its own. If the output
        is not muted, the gain is 100 at once. With multi-output audio or
        TV-to-mobile the daemon does nothing and reports no error.

Usage: kavrelctl fade [options] SOURCE [OUTPUT]

Arguments:
  SOURCE              player|unmute
  OUTPUT              main|sub|both; default: both

Options:
  -h,--help           Show this help
  --timeout SECONDS   Wait so long for an answer; 0: no limit (default: 5)

Examples:
  kavrelctl fade player main
  kavrelctl fade unmute
"""


def test_help_page_of_a_command(ctl):
    assert help_of(ctl, ["fade"]) == FADE_HELP
    assert "\nExample:\n  kavrelctl unmute\n" in help_of(ctl, ["unmute"])
    assert "\n  fade                Fade a gain in, from 0 to 100 in about 1.5 s\n  gain  " in help_of(ctl, [])
    assert "\nUsage: kavrelctl [options] [COMMAND]\n" in help_of(ctl, [])


def test_version(ctl):
    assert re.fullmatch(r"kavrelctl \d+\.\d+\.\d+\n", ctl("--version"))


# The live view


def events(lines):
    """Splits the lines of monitor into [(event, words)]; each line begins with the time of day."""
    matches = [re.fullmatch(r"\d\d:\d\d:\d\d\.\d{3}  (\w+) +(.*)", line) for line in lines]
    assert all(matches), lines
    return [match.groups() for match in matches]


def test_monitor_tells_the_present_state_first(daemon, ctl):
    view = ctl.view("monitor")
    assert events(view.read_until("support")) == [("volume", "10"), ("mute", "off"), ("support", ALL_WORDS)]


def test_monitor_tells_each_change(daemon, ctl, client):
    view = ctl.monitor()
    client.set_volume(35)
    client.set_mute(True)
    client.set_mute(False)
    client.emit("BudsDisconnected", "i", 1)
    assert events(view.read_until("request")) == [
        ("volume", "35"), ("mute", "on"), ("mute", "off"), ("request", "change the output to route 0")]


def test_monitor_tells_changes_of_the_tv_itself(daemon, tv, ctl):
    view = ctl.monitor()
    tv.echo(61, "audio/master_volume")
    assert events([view.read_line()]) == [("volume", "61")]


def test_monitor_tells_new_support_with_the_first_change_of_another_output(daemon, hdmi, tv, ctl):
    view = ctl.monitor()
    change_route(tv, daemon.log, 0)
    tv.echo(44, "audio/master_volume")
    assert events([view.read_line(), view.read_line()]) == [("support", ALL_WORDS), ("volume", "44")]


def test_monitor_listens_to_the_daemon_alone(scene, daemon, ctl, client):
    view = ctl.monitor()
    scene.client()  # whose name on the bus is no owner of the daemon's
    client.emit("SpeakerVolumeChanged", "ii", TV_SUPPORT, 99, path="/Org/Olvane/KavrelInternal")
    client.emit("SpeakerChangeRequest", "ii", 9, 1)
    client.set_volume(12)
    assert events([view.read_line()]) == [("volume", "12")]


def test_monitor_as_objects(daemon, ctl, client):
    view = ctl.view("monitor", "--json")
    state = view.read_events("state")[0]
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4}", state.pop("time"))
    assert state == {
        "event": "state", "volume": 10, "volume_status": 0, "mute": False, "mute_status": 0, "support": TV_SUPPORT,
        "support_status": 0, "support_words": ["read volume", "set volume", "read mute", "set mute"]}
    client.set_volume(35)
    client.set_mute(True)
    client.emit("BudsDisconnected", "i", 1)
    told = view.read_events("request")
    assert all(event.pop("time") for event in told)
    assert told == [{"event": "volume", "volume": 35, "volume_status": 0},
                    {"event": "mute", "mute": True, "mute_status": 0},
                    {"event": "request", "route": 0}]


def test_monitor_goes_on_through_a_restart(scene, daemon, tv, ctl, client):
    view = ctl.monitor()
    daemon.kill()
    assert events([view.read_line()]) == [("gone", "kavreld has left the bus")]
    tv.echo(77, "audio/master_volume")
    scene.start()
    assert events(view.read_until("support")) == [
        ("back", "kavreld is on the bus again"), ("volume", "77"), ("mute", "off"), ("support", ALL_WORDS)]
    client.set_volume(78)
    assert events([view.read_line()]) == [("volume", "78")]


def test_monitor_of_objects_goes_on_through_a_restart(scene, daemon, ctl):
    view = ctl.monitor("--json")
    daemon.kill()
    scene.start()
    told = view.read_events("state")
    assert [event["event"] for event in told] == ["gone", "back", "state"]
    scene.daemons[-1].kill()
    Impostor(scene.client(), GetSpeakerVolume=["org.some.Error"])
    told = view.read_events("error")
    assert [event["event"] for event in told] == ["gone", "back", "error"]
    assert told[-1]["message"] == "the call failed: Too many wait"


def test_monitor_says_when_the_daemon_is_back_and_does_not_answer(scene, daemon, ctl):
    view = ctl.monitor("--timeout", "1.5")
    daemon.kill()
    view.read_until("gone")
    # Stopped before it runs, it owns no name; a process of the test's own takes it, and answers nothing.
    impostor = Impostor(scene.client())
    assert events([view.read_line(), view.read_line()]) == [
        ("back", "kavreld is on the bus again"), ("error", "no answer within 1.5 s")]
    assert impostor.called.is_set()
    # From now on it tells what it hears, unless the values have other types.
    impostor.emit("SpeakerVolumeChanged", "(s)", "loud")
    impostor.emit("SpeakerVolumeChanged", "(ii)", 15, 44)
    impostor.emit("SpeakerVolumeChanged", "(ii)", 15, 45)
    impostor.emit("SpeakerMuteChanged", "(ib)", 15, True)
    impostor.emit("SpeakerChangeRequest", "(ii)", 9, 1)
    assert events([view.read_line() for _ in range(5)]) == [
        ("support", ALL_WORDS.replace("0xffff", "0x000f")), ("volume", "44"), ("volume", "45"), ("mute", "on"),
        ("request", "change the output to route 9")]


def test_monitor_takes_a_change_before_its_first_state_into_that(scene, ctl):
    impostor = Impostor(scene.client())
    view = ctl.view("monitor")
    impostor.answer("GetSpeakerVolume", (30, 0))
    impostor.emit("SpeakerVolumeChanged", "(ii)", 15, 44)  # two answers are still to come
    impostor.answer("GetSpeakerMute", (0, 0))
    impostor.answer("GetSpeakerSupportType", (7, 0))
    impostor.emit("SpeakerVolumeChanged", "(ii)", 7, 45)
    assert events([view.read_line() for _ in range(4)]) == [
        ("volume", "44"), ("mute", "off"), ("support", "read volume, set volume, read mute; not: set mute (0x0007)"),
        ("volume", "45")]


def test_monitor_goes_on_when_the_daemon_ends_before_its_first_answer(scene, ctl):
    impostor = Impostor(scene.client())
    view = ctl.view("monitor", "--timeout", "0")
    assert impostor.called.wait(PATIENCE)
    impostor.connection.close_sync(None)
    assert events([view.read_line()]) == [("gone", "kavreld has left the bus")]
    impostor = Impostor(scene.client(), GetSpeakerVolume=["org.some.Error"])
    assert events([view.read_line(), view.read_line()]) == [
        ("back", "kavreld is on the bus again"), ("error", "the call failed: Too many wait")]
    impostor.connection.close_sync(None)
    assert events([view.read_line()]) == [("gone", "kavreld has left the bus")]
    scene.start()
    assert events(view.read_until("support"))[:2] == [("back", "kavreld is on the bus again"), ("volume", "10")]


def test_monitor_asks_only_once(daemon, ctl, client):
    ctl.monitor()
    begin = daemon.log.end()
    client.set_volume(50)
    client.set_volume(51)
    assert [text for text in daemon.log.texts(begin) if text.startswith("Return Current")] == []


def test_monitor_ends_with_its_reader_before_the_next_signal(daemon, ctl):
    view = ctl.monitor()
    view.close_output()
    assert (view.wait(), view.errors()) == (DONE, "")


@pytest.mark.parametrize("options", ["", "--json", "--calls"])
def test_monitor_into_head(scene, daemon, options):
    first = scene.run("bash", "-c", f"set -o pipefail; {KAVRELCTL} monitor {options} | head -1")
    assert re.fullmatch(r"\d\d:.* volume   10\n|\{.*\}\n", first)


@pytest.mark.parametrize("options", [[], ["--calls"]])
def test_monitor_ends_with_the_bus(scene, daemon, ctl, options):
    view = ctl.monitor(*options)
    daemon.may_be_gone = True
    scene.bus.end()
    assert (view.wait(), view.errors()) == (UNREACHABLE, "kavrelctl: the bus has gone\n")


@pytest.mark.parametrize("number, status", [(signal.SIGINT, DONE), (signal.SIGTERM, 143), (signal.SIGHUP, 129)])
def test_monitor_ends_with_a_signal(daemon, ctl, number, status):
    view = ctl.monitor()
    view.signal(number)
    assert (view.wait(), view.errors()) == (status, "")


def test_wait_that_is_interrupted_was_not_done(ctl, client):
    view = ctl.view("wait", "--timeout", "0")
    client._wait(lambda: any(client.owners.values()), "kavrelctl does not join the bus")
    view.signal(signal.SIGINT)
    assert view.wait() in (INTERRUPTED, -signal.SIGINT)  # the latter if it was not yet waiting


# The calls of other programs


def test_calls_name_caller_arguments_status_and_duration(daemon, ctl, client):
    view = ctl.monitor("--calls")
    client.set_volume(33)
    words = dict(events(view.read_until("  call  ")))["call"]
    assert re.fullmatch(rf"SetSpeakerVolume\(33\) -> 0, \d+\.\d ms, by python3? .*test_kavrelctl\.py.* \(pid {os.getpid()}\)",
                        words)


def test_calls_as_objects(daemon, ctl, client):
    view = ctl.monitor("--calls", "--json")
    begin = time.time()
    client.set_mute(True)
    call = view.read_events("call")[-1]
    assert begin - 0.001 <= datetime.datetime.strptime(call.pop("time"), "%Y-%m-%dT%H:%M:%S.%f%z").timestamp() <= time.time()
    assert 0 < call.pop("duration_ms") < PATIENCE * 1000
    assert call == {
        "event": "call", "interface": NAME, "method": "SetSpeakerMute", "arguments": [True], "value": None,
        "status": 0, "error": None, "caller": client.name, "pid": os.getpid(),
        "program": Path(Path("/proc/self/cmdline").read_bytes().split(b"\0")[0].decode()).name,
        "command": Path("/proc/self/cmdline").read_bytes().decode().split("\0")[:-1]}


def test_calls_tell_values_failures_and_refusals(daemon, ctl, client):
    view = ctl.monitor("--calls")
    client.get_volume()
    client.set_volume(101)
    client.call("Ping", interface="org.freedesktop.DBus.Peer")
    silent = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, NAME, "GetSpeakerMute")
    silent.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    client.connection.send_message(silent, Gio.DBusSendMessageFlags.NONE)
    with pytest.raises(Exception, match="UnknownMethod"):
        client.call("Explode")
    told = [words for event, words in events(view.read_until("Explode")) if event == "call"]
    assert [words.split(" -> ")[0] + " -> " + words.split(" -> ")[1].split(", ")[0] for words in told] == [
        "GetSpeakerVolume() -> 10", "SetSpeakerVolume(101) -> invalid argument (-2)",
        "org.freedesktop.DBus.Peer.Ping() -> done", "GetSpeakerMute() -> no answer wanted", "Explode() -> org.freedesktop.DBus.Error.UnknownMethod"]


def test_calls_without_an_answer_are_told(stopped, ctl, client):
    # The daemon must answer the monitor's own questions first.
    stopped.signal(signal.SIGCONT)
    view = ctl.monitor("--calls", "--timeout", "1.5")
    stopped.signal(signal.SIGSTOP)
    client.send("SetSpeakerVolume", "i", 30)
    told = view.read_line()
    waited = re.search(r"SetSpeakerVolume\(30\) -> no answer for (\d+\.\d) ms, by ", told)
    assert float(waited[1]) >= 1500, told


def test_calls_of_programs_that_end_at_once_are_told(scene, daemon, ctl):
    view = ctl.monitor("--calls")
    ctl("volume", "21")
    words = dict(events(view.read_until("  call  ")))["call"]
    # While it ends, a program has no arguments any more; then it has no name either, and then nobody knows it.
    assert re.fullmatch(r"SetSpeakerVolume\(21\) -> 0, \d+\.\d ms, by "
                        r"(kavrelctl( volume 21)? \(pid \d+\)|a program that has gone \(pid \d+\)|:[\d.]+, which has gone)",
                        words)


def test_calls_that_the_bus_answers_are_shown(scene, ctl, client):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[(30, 0)], GetSpeakerMute=[(0, 0)], GetSpeakerSupportType=[(15, 0)])
    view = ctl.monitor("--calls", "--timeout", "0")
    client.send("SetSpeakerMute", "b", True)
    with impostor.news:
        assert impostor.news.wait_for(lambda: "SetSpeakerMute" in impostor.waiting, PATIENCE)
    impostor.connection.close_sync(None)
    words = dict(events(view.read_until("  call  ")))["call"]
    assert words.startswith("SetSpeakerMute(true) -> org.freedesktop.DBus.Error.NoReply, ")


def test_callers_are_looked_up_before_they_leave(scene, daemon, ctl, client):
    view = ctl.monitor("--calls")
    caller = scene.client()
    client.get_mute()
    view.read_until("GetSpeakerMute")  # behind the news that the other client has joined
    view.signal(signal.SIGSTOP)
    caller.send("SetSpeakerVolume", "i", 33)
    caller.flush()
    caller.close()
    client.wait_until_gone(caller.name)
    stranger = scene.client()
    stranger.send("SetSpeakerMute", "b", True)
    stranger.flush()
    stranger.close()
    client.wait_until_gone(stranger.name)
    view.signal(signal.SIGCONT)
    assert f"(pid {os.getpid()})" in view.read_until("SetSpeakerVolume")[-1]
    assert view.read_until("SetSpeakerMute")[-1].endswith(f", by {stranger.name}, which has gone")


def test_calls_do_not_show_the_monitors_own(daemon, ctl, client):
    view = ctl.view("monitor", "--calls")
    told = view.read_until("support")
    client.get_mute()
    told += view.read_until("  call  ")
    assert [words.split("(")[0] for event, words in events(told) if event == "call"] == ["GetSpeakerMute"]


# The report


@pytest.fixture
def programs(scene):
    """A folder for PATH, and a function that makes a shell script there."""
    folder = scene.folder / "bin"
    folder.mkdir()

    def make(name, script):
        path = folder / name
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)
    make.folder = folder
    return make


def parts_of(report):
    """Splits a report into {heading: its lines}."""
    first, *parts = report.split("\n\n")
    assert re.fullmatch(r"Report of kavrelctl, \d{4}-\d\d-\d\dT[\d:.+-]+", first)
    return {heading: [line.strip() for line in lines] for heading, *lines in (part.splitlines() for part in parts)}


def rows_of(lines):
    return dict(re.split("  +", line, maxsplit=1) for line in lines)


OTHER_UNIT = "The daemon on this bus is another one than that of this unit."


def test_report(daemon, tv, ctl, client, programs):
    programs("systemctl", 'echo "ActiveState=active for $*"')
    done = ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder))
    assert (done.returncode, done.stderr) == (DONE, "")
    parts = parts_of(done.stdout)
    assert list(parts) == ["Versions", "Daemon", "State", "Unit", "Last lines of the log"]
    versions = rows_of(parts["Versions"])
    assert versions["kavrelctl"] == ctl("--version").split()[1]
    assert versions["kavreld"] == f"{versions['kavrelctl']} (the one that runs)"
    numbers = [ctypes.c_uint.in_dll(ctypes.CDLL("libglib-2.0.so.0"), f"glib_{part}_version").value
               for part in ("major", "minor", "micro")]
    assert versions["GLib"] == ".".join(map(str, numbers))
    assert versions["kernel"] == f"{os.uname().sysname} {os.uname().release} {os.uname().machine}"
    assert versions["distribution"] == re.search('PRETTY_NAME="(.*)"', Path("/etc/os-release").read_text()).group(1)
    assert rows_of(parts["Daemon"])["owner of name"] == f"{client.owner()}, pid {daemon.pid}, {KAVRELD}"
    assert rows_of(parts["Daemon"])["reported by"] == GLib.get_user_name()
    assert rows_of(parts["State"]) == {"volume": "10", "mute": "off", "support": ALL_WORDS,
                                       "output": "tv, TV speaker (route 0)"}
    assert parts["Unit"] == [
        "ActiveState=active for show kavrel.service --property=LoadState,UnitFileState,ActiveState,SubState,Result,NRestarts,"
        "MainPID,StateChangeTimestamp"]


def is_logged(daemon, lines):
    return "\n".join(lines) in "\n".join(line.strip() for line in daemon.log.raw_lines())


@pytest.mark.parametrize("more", [0, 60])
def test_report_shows_the_end_of_the_file_into_which_the_own_daemon_logs(daemon, ctl, programs, more):
    programs("journalctl", "echo of another daemon")
    with open(daemon.log.path, "a") as log:
        log.write("".join(f"line {line}\n" for line in range(more)))
    shown = parts_of(ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder)).stdout)["Last lines of the log"]
    assert is_logged(daemon, shown)
    assert len(shown) == 50 or (more == 0 and len(shown) > 1)
    assert more == 0 or "line 59" in shown


@pytest.mark.parametrize("main, remark", [("own", []), ("0", [OTHER_UNIT]), ("1", [OTHER_UNIT])])
def test_report_says_that_the_unit_is_another_daemons(daemon, ctl, programs, main, remark):
    shown = f"MainPID={daemon.pid if main == 'own' else main}"
    programs("systemctl", f"echo {shown}")
    assert parts_of(ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder)).stdout)["Unit"] == [*remark, shown]


def test_report_says_that_the_journal_is_another_daemons(scene, ctl, programs):
    daemon = Process(KAVRELD, env=scene.environment(), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    scene.callback(daemon.end)
    ctl("wait", "--timeout", str(PATIENCE))
    programs("systemctl", "echo MainPID=1")
    programs("journalctl", "echo one")
    parts = parts_of(ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder)).stdout)
    assert parts["Unit"] == [OTHER_UNIT, "MainPID=1"]
    assert parts["Last lines of the log"] == ["The daemon on this bus is another one than that of this journal.", "one"]


@pytest.mark.parametrize("script, lines", [
    ('printf "one %s\\n\\033[31mtwo\\377\\n" "$*"',
     ["one --unit=kavrel --lines=50 --no-pager --output=short-iso", "?[31mtwo?"]),
    ("echo -- No entries --; echo No journal files were found. >&2", ["missing: No journal files were found."]),
    ("echo No rights >&2", ["missing: No rights"]),
    ("echo -- No entries --", ["-- No entries --"]),
    ("echo one; echo 'Hint: some are hidden' >&2", ["Hint: some are hidden", "one"]),
    ("exit 1", ["missing: journalctl failed"]),
])
def test_report_shows_the_journal_with_its_errors(scene, ctl, programs, script, lines):
    programs("journalctl", script)
    programs("systemctl", "echo only an error >&2")
    parts = parts_of(ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder)).stdout)
    assert (parts["Last lines of the log"], parts["Unit"]) == (lines, ["only an error"])


def test_report_asks_a_daemon_that_does_not_answer_once(scene, ctl, programs):
    impostor = Impostor(scene.client())
    parts = parts_of(ctl.run("report", "--timeout", "2", PATH=str(programs.folder)).stdout)
    assert [re.sub(" from the bus", "", text) for text in rows_of(parts["State"]).values()][:3] == [
        "missing: no answer within 2 s"] * 3
    assert len(impostor.calls) <= 1  # none if the bus did not answer in time either


def test_report_says_what_is_missing(scene, ctl, programs):
    done = ctl.run("report", PATH=str(programs.folder))
    assert (done.returncode, done.stderr) == (DONE, "")
    parts = parts_of(done.stdout)
    gone = f"missing: kavreld is not running: nobody on the bus owns {NAME}"
    assert rows_of(parts["Versions"])["kavreld"] == "missing: there is no program kavreld"
    assert rows_of(parts["Daemon"])["owner of name"] == gone
    assert rows_of(parts["State"]) == {"volume": gone, "mute": gone, "support": gone,
                                       "output": f"missing: no readable route in {scene.tv.path}"}
    assert parts["Unit"] == ["missing: there is no program systemctl"]
    assert parts["Last lines of the log"] == ["missing: there is no program journalctl"]


def test_report_without_a_bus_and_with_programs_that_fail(scene, ctl, programs):
    programs("kavreld", "echo kavreld 9.8.7")
    programs("systemctl", "echo 'no systemd here' >&2; exit 1")
    programs("journalctl", "exit")
    nobody = f"unix:path={scene.folder}/nobody\x1b"
    done = ctl.run("report", "--timeout", str(PATIENCE), PATH=str(programs.folder), DBUS_SYSTEM_BUS_ADDRESS=nobody)
    assert (done.returncode, done.stderr) == (DONE, "")
    parts = parts_of(done.stdout)
    nobody = nobody.replace("\x1b", "?")
    no_bus = f"missing: no system bus: Could not connect: No such file or directory; DBUS_SYSTEM_BUS_ADDRESS names {nobody}"
    assert rows_of(parts["Versions"])["kavreld"] == "9.8.7 (the one in PATH)"
    assert rows_of(parts["Daemon"])["bus"] == nobody
    assert rows_of(parts["Daemon"])["owner of name"] == rows_of(parts["State"])["volume"] == no_bus
    assert parts["Unit"] == ["missing: no systemd here"]
    assert parts["Last lines of the log"] == ["missing: there is nothing"]


def test_report_waits_for_nothing_that_hangs(stopped, ctl, programs):
    programs("systemctl", f"echo $$ >{programs.folder}/pid; exec /bin/sleep 1000")
    done = ctl.run("report", "--timeout", "0.5", PATH=str(programs.folder))
    assert (done.returncode, done.stderr) == (DONE, "")
    parts = parts_of(done.stdout)
    assert [re.sub(" from the bus", "", text) for text in rows_of(parts["State"]).values()] == [
        *["missing: no answer within 0.5 s"] * 3, "tv, TV speaker (route 0)"]
    assert parts["Unit"] == ["missing: systemctl did not end within 0.5 s"]
    assert is_logged(stopped, parts["Last lines of the log"])
    if (programs.folder / "pid").exists():  # otherwise it never ran
        wait_for_end_of((programs.folder / "pid").read_text().strip())


def wait_for_end_of(pid):
    """Waits until a process that is no child of this one has ended, whether or not somebody has taken note of it."""
    deadline = time.monotonic() + PATIENCE
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):
        while Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[0] != "Z":
            assert time.monotonic() < deadline, "it lives on"
            time.sleep(0.01)


# With and without a terminal


@pytest.fixture
def terminal(scene):
    """Runs a kavrelctl in the foreground of a terminal of 80 columns, in colours by default."""
    def run(*arguments, **environment):
        terminal = Terminal([KAVRELCTL, *arguments], scene.environment(**{"TERM": "xterm", "NO_COLOR": "", **environment}),
                            24, 80)
        scene.callback(terminal.close)
        return terminal
    return run


def test_ctrl_c_ends_the_view_and_leaves_the_terminal_as_it_was(daemon, terminal):
    view = terminal("monitor")
    view.wait_until(lambda: "0xffff" in view.output)
    view.type("\x03")
    assert view.wait_for_end() == DONE
    assert view.modes() == view.modes_before


def test_terminal_is_coloured(hdmi, terminal):
    view = terminal("status")
    assert view.wait_for_end() == REFUSED
    assert "\x1b[1mvolume   \x1b[0m17" in view.output
    assert "\x1b[31mnot supported by this output (-4)\x1b[0m" in view.output


def test_terminal_without_a_name_is_coloured(scene, daemon):
    view = Terminal(["env", "-u", "TERM", KAVRELCTL, "status"], scene.environment(NO_COLOR=""), 24, 80)
    scene.callback(view.close)
    assert "\x1b[1mvolume   \x1b[0m10" in view.run()


def test_monitor_is_coloured(scene, terminal):
    impostor = Impostor(scene.client(), GetSpeakerVolume=[(30, 0)], GetSpeakerMute=[(0, 0)], GetSpeakerSupportType=[(15, 0)],
                        SetSpeakerMute=[(0,)])
    view = terminal("monitor", "--calls", "--timeout", "0")
    view.wait_until(lambda: "0x000f" in view.output)
    assert re.search(r"\x1b\[2m\d\d:\d\d:\d\d\.\d{3}  \x1b\[0m\x1b\[1mvolume   \x1b\[0m30\r", view.output)
    scene.client().send("SetSpeakerMute", "b", True)
    view.wait_until(lambda: "\x1b[34mcall     \x1b[0mSetSpeakerMute(true) -> 0, " in view.output)
    impostor.connection.close_sync(None)
    view.wait_until(lambda: "\x1b[31mgone     \x1b[0m" in view.output)
    Impostor(scene.client(), GetSpeakerVolume=["org.some.Error"])
    view.wait_until(lambda: "\x1b[31merror    \x1b[0m" in view.output)
    assert "\x1b[32mback     \x1b[0m" in view.output


@pytest.mark.parametrize("environment", [{"NO_COLOR": "1"}, {"TERM": "dumb"}], ids=str)
def test_terminal_is_plain_if_asked(daemon, terminal, environment):
    assert "\x1b" not in terminal("status", **environment).run()
    view = terminal("monitor", **environment)
    view.wait_until(lambda: "0xffff" in view.output)
    assert "\x1b" not in view.output


def test_nothing_is_coloured_in_a_pipe(daemon, ctl, client):
    assert "\x1b" not in ctl("status")
    view = ctl.monitor()
    client.set_volume(5)
    view.read_line()
    assert not any("\x1b" in line for line in view.lines)


def test_lines_of_the_monitor_fit_the_terminal(scene, daemon, client, terminal):
    view = terminal("monitor", "--calls", NO_COLOR="1")
    view.wait_until(lambda: "0xffff" in view.output)
    client.set_volume(16)  # the program of this test has a long command line
    view.wait_until(lambda: "SetSpeakerVolume(16)" in view.output)
    view.type("\x03")
    assert view.wait_for_end() == DONE
    lines = re.split("\r*\n", view.output)
    assert [line for line in lines if len(line) > 80] == []
    call = next(line for line in lines if "SetSpeakerVolume" in line)
    assert len(call) == 80 and call.endswith("...")


@pytest.mark.parametrize("command", ["status", "report"])
def test_full_disk_is_not_success(scene, daemon, ctl, command):
    with open("/dev/full", "w") as full:
        done = subprocess.run([KAVRELCTL, command], env=scene.environment(), stdout=full, stderr=subprocess.PIPE,
                              text=True, timeout=PATIENCE, check=False)
    assert (done.returncode, done.stderr) == (
        REFUSED, "kavrelctl: cannot write to standard output: No space left on device\n")

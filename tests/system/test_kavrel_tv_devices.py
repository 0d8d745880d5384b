# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""kavrel-tv plays the devices behind the external outputs, and the speakers that the emulators talk to."""
import os
import re
import signal
import subprocess
import time

import pytest
from gi.repository import Gio, GLib

from harness import PATIENCE, TV_SUPPORT, Switches
from kavrel_tv import KAVREL_TV, assert_idle, make_tool, refused, wait_until_asleep
from terminal import Terminal

MIRRORING = "settings/memory/menu/network/screenmirroring"
LEVEL_REQUEST, MUTE_REQUEST = f"{MIRRORING}/set_volume_level", f"{MIRRORING}/set_volume_mute"


def keys_of(name):
    return [f"{MIRRORING}/{key}_{name}" for key in ("volume_support", "get_volume_level", "get_volume_mute")]


DEVICE_KEYS = {  # by route: support, level and mute of the device behind it
    1: keys_of("optical"), 2: keys_of("hdmi"), 3: keys_of("bt"), 4: keys_of("mlr"), 5: keys_of("bt"), 8: keys_of("hdmi"),
    9: keys_of("optical"), 10: keys_of("mlr"), 19: keys_of("auracast"),
    15: [f"settings/db/usbsound/volume_{key}" for key in ("capability", "level", "mute_status")],
}

tool = pytest.fixture(make_tool)


def ask(tv, level=None, mute=None):
    if level is not None:
        tv.echo(level, LEVEL_REQUEST)
    if mute is not None:
        tv.echo(mute, MUTE_REQUEST)


def values(tv, route):
    return [tv.read(key) for key in DEVICE_KEYS[route]]


def wait_for(tv, route, *expected):
    """Waits until support word, level and mute of the device are these."""
    keys = DEVICE_KEYS[route]
    expected = [str(value) for value in expected]
    tv.wait_until(keys[2], lambda: all(map(tv.has, keys)) and values(tv, route) == expected)


@pytest.mark.parametrize("route", sorted(DEVICE_KEYS))
def test_each_device_publishes_at_the_route_change_and_answers(tool, tv, route):
    devices = tool.devices()
    tool("route", str(route))
    devices.wait("publishes level 10, mute off, support 0x000f")
    assert values(tv, route) == ["15", "10", "0"]
    ask(tv, level=40)
    devices.wait("publishes level 40, mute off, support 0x000f")
    ask(tv, mute=1)
    devices.wait("publishes level 40, mute on, support 0x000f")
    assert values(tv, route) == ["15", "40", "1"]
    assert devices.end() == (0, [])


def test_all_devices_publish_when_they_begin_and_keep_what_they_have(tool, tv):
    for key, text in (("get_volume_level", "66"), ("get_volume_mute", "1"), ("volume_support", "7")):
        tool("key", f"memory/menu/network/screenmirroring/{key}_bt", text)
    begun = [os.stat(tv.path / key).st_ino for key in DEVICE_KEYS[3]]
    devices = tool.devices()
    devices.wait("begins with level 10, mute off, support 0x000f", len(set(map(tuple, DEVICE_KEYS.values()))) - 1)
    devices.wait("bt: begins with level 66, mute on, support 0x0007")
    assert [os.stat(tv.path / key).st_ino for key in DEVICE_KEYS[3]] == begun  # a write replaces the file
    for route in DEVICE_KEYS:
        assert values(tv, route) == (["7", "66", "1"] if route in (3, 5) else ["15", "10", "0"])


def test_a_device_publishes_its_support_word_before_its_level_and_its_mute(tool, tv):
    tool("route", "other-7")  # so that no value of a device has a column of its own
    for folder in (MIRRORING, "settings/db/usbsound"):  # files in a new folder are found in any order
        (tv.path / folder).mkdir(parents=True)
    recorder = tool.start("record", "-")
    recorder.wait("start")
    devices = tool.devices()
    recorder.wait("auracast mute 0")
    events = [line.split(",")[-1] for line in recorder.lines]
    assert events[:3] == ["event", "start", f".devices {devices.child.pid}"]  # it has the right to play before it does
    assert events[3:] == [f"{name} {value}" for name in ("hdmi", "optical", "wifi", "bt", "usb", "auracast")
                          for value in ("support 15", "level 10", "mute 0")]


def test_in_multiview_the_device_of_the_zone_in_focus_answers(tool, tv):
    for command in ("zones 1,2", "focus 1", "zone-route 1 hdmi", "zone-route 2 usb", "route auracast", "multiview on"):
        tool(*command.split())
    devices = tool.devices()
    ask(tv, level=21)
    devices.wait("hdmi: publishes level 21")
    tool("focus", "2")
    devices.wait("usb: publishes level 10")
    ask(tv, level=22)
    devices.wait("usb: publishes level 22")
    tool("zone-route", "2", "wifi")
    devices.wait("wifi: publishes level 10")
    tool("multiview", "off")
    devices.wait("auracast: publishes level 10")
    assert values(tv, 2) == ["15", "21", "0"] and values(tv, 15) == ["15", "22", "0"]


def test_an_equal_request_is_answered_again_however_it_is_written(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices()
    begin = time.monotonic()
    ask(tv, level=40)
    devices.wait("publishes level 40")
    assert time.monotonic() - begin >= 0.05
    written = os.stat(tv.path / DEVICE_KEYS[2][1]).st_mtime_ns
    for times in range(2, 6):
        ask(tv, level=40)  # in place
        devices.wait("publishes level 40", times)
    assert os.stat(tv.path / DEVICE_KEYS[2][1]).st_mtime_ns > written
    for times in range(6, 11):
        tool("key", "memory/menu/network/screenmirroring/set_volume_level", "40")  # by a rename
        devices.wait("publishes level 40", times)
    devices.end()
    assert devices.said("level 40 asked for") == devices.said("publishes level 40") == 10


def test_a_burst_of_requests_ends_with_the_last_one(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices()
    for level in range(100):
        ask(tv, level=level)
    ask(tv, level=73)
    wait_for(tv, 2, 15, 73, 0)
    ask(tv, mute=1)
    devices.wait("publishes level 73, mute on")
    assert values(tv, 2) == ["15", "73", "1"]


def test_a_device_turned_by_hand_keeps_it(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices()
    tool("key", "memory/menu/network/screenmirroring/get_volume_level_hdmi", "55")
    devices.child.send_signal(signal.SIGSTOP)
    ask(tv, level=44)
    tv.remove(LEVEL_REQUEST)  # before the devices have read it
    ask(tv, mute=2)
    devices.child.send_signal(signal.SIGCONT)
    devices.wait("hdmi: publishes level 55, mute on, support 0x000f")
    assert values(tv, 2) == ["15", "55", "1"]
    assert devices.end() == (0, [])


def test_too_many_changes_at_once_are_complained_about(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices()
    devices.child.send_signal(signal.SIGSTOP)
    with open("/proc/sys/fs/inotify/max_queued_events") as limit:
        most = int(limit.read())
    first, second = (tv.path / "sound/.first", tv.path / "sound/.second")
    first.touch()
    for _ in range(most // 4 + 1):  # each rename is two notifications
        os.rename(first, second)
        os.rename(second, first)
    devices.child.send_signal(signal.SIGCONT)
    devices.wait_for_complaint("too many changes at once: requests may be lost")
    ask(tv, level=41)
    devices.wait("publishes level 41")


def test_a_value_that_cannot_be_published_is_complained_about(tool, tv):
    (tv.path / DEVICE_KEYS[2][1] / "in the way").mkdir(parents=True)
    (tv.path / "sound").mkdir()
    devices = tool.devices()
    devices.wait_for_complaint(f"Cannot write {tv.path}/{DEVICE_KEYS[2][1]}: Is a directory")
    assert not devices.said("hdmi: ")


def test_devices_need_a_folder_for_the_requests(tool, tv):
    (tv.path / "settings/memory").mkdir(parents=True)
    tv.echo("in the way", "settings/memory/menu")
    (tv.path / "sound").mkdir()
    done = tool.run("devices")
    assert done.returncode == 1
    assert refused(done) == f"Cannot make {tv.path}/{MIRRORING}: Not a directory"


@pytest.mark.parametrize("asked, level", [(-5, 0), (100, 100), (250, 100)])
def test_a_device_has_no_level_beyond_its_scale(tool, tv, asked, level):
    tool("route", "hdmi")
    tool.devices()
    ask(tv, level=asked)
    wait_for(tv, 2, 15, level, 0)


def test_without_an_external_output_nobody_answers(tool, tv):
    devices = tool.devices()
    ask(tv, level=40)
    devices.wait("level 40 asked for, but the output is not external")
    assert not devices.said("level 40, mute off")


def test_junk_in_a_request_is_complained_about_and_survived(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices()
    ask(tv, level="loud")
    devices.wait_for_complaint("no integer in memory/menu/network/screenmirroring/set_volume_level")
    ask(tv, level=12)
    devices.wait("publishes level 12")


JITTER_OF_SEED_1 = 4282876139 % 201 / 1000  # the generator's second number: the first one says whether the device fails


def test_devices_that_are_late(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices("--delay", "300", "--jitter", "200", "--seed", "1")
    asked = time.monotonic()
    for level in (40, 41, 42):
        ask(tv, level=level)
        devices.wait(f"level {level} asked for")
    devices.wait("publishes level 42")
    assert time.monotonic() - asked >= 0.3 + JITTER_OF_SEED_1
    published = [re.search(r"publishes level (\d+)", line)[1] for line in devices.lines if "publishes" in line]
    assert published == ["40", "41", "42"]


@pytest.mark.parametrize("given, shown, value", [("0x5", "0x0005", "5"), ("0x1f", "0x001f", "31"), ("12", "0x000c", "12")])
def test_devices_with_another_support_word(tool, tv, given, shown, value):
    tool("route", "hdmi")
    devices = tool.devices("--support", given)
    devices.wait("support " + shown)
    assert values(tv, 2) == [value, "10", "0"]


def test_deaf_devices_publish_but_do_not_answer(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices("--deaf", "--delay", "60000", "--jitter", "60000", "--fail", "100")
    ask(tv, level=40)
    devices.wait("hdmi: level 40 asked for, but it is deaf")
    assert values(tv, 2) == ["15", "10", "0"]


def test_devices_that_fail_at_times_do_so_alike_for_one_seed(tool, tv):
    tool("route", "hdmi")

    def answered(seed):
        """Asks for 30 levels; returns those that the device has published."""
        devices = tool.devices("--fail", "50", "--seed", str(seed))
        for level in range(1, 31):
            ask(tv, level=level)
            devices.wait(f"level {level} asked for")
        levels = [level for level in range(1, 31) if not devices.said(f"level {level} asked for, but it fails")]
        devices.wait(f"publishes level {levels[-1]},")
        devices.end()
        published = [re.search(r"publishes level (\d+),", line) for line in devices.lines]
        assert [int(level[1]) for level in published if level] == levels
        return levels

    first = answered(1)
    assert 5 < len(first) < 25
    assert answered(1) == first
    assert answered(2) != first


@pytest.mark.parametrize("rounding, asked, level", [
    (5, 42, 40), (5, 43, 45), (5, 100, 100), (5, 1, 0), (40, 100, 80), (40, 59, 40), (40, 60, 80), (40, 19, 0)])
def test_devices_that_round(tool, tv, rounding, asked, level):
    tool("route", "hdmi")
    tool.devices("--rounding", str(rounding))
    ask(tv, level=asked)
    wait_for(tv, 2, 15, level, 0)


@pytest.mark.parametrize("present, level", [(2**31 - 1, 100), (-2**31, 0), (-500, 0)])
def test_a_level_that_stands_there_is_brought_into_the_scale(tool, tv, present, level):
    tool("key", "memory/menu/network/screenmirroring/get_volume_level_hdmi", str(present))
    tool.devices("--rounding", "20")
    wait_for(tv, 2, 15, level, 0)


def test_devices_that_answer_twice(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices("--double")
    ask(tv, level=40)
    devices.wait("publishes level 40", 2)
    ask(tv, level=41)
    devices.wait("publishes level 41", 2)
    devices.end()
    assert devices.said("publishes level 40") == 2


def test_a_device_that_vanishes_takes_its_values_back(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices("--vanish-after", "2")
    ask(tv, level=40)
    devices.wait("publishes level 40")
    ask(tv, level=41)
    devices.wait("hdmi: vanishes")
    assert not any(map(tv.has, DEVICE_KEYS[2]))
    ask(tv, level=42)
    devices.wait("hdmi: level 42 asked for, but it has vanished")
    tool("route", "usb")
    devices.wait("usb: publishes")
    tool("route", "hdmi")
    ask(tv, level=43)
    devices.wait("hdmi: level 43 asked for, but it has vanished")
    assert not any(map(tv.has, DEVICE_KEYS[2]))


def test_a_device_that_vanished_stays_away(tool, tv):
    tool("route", "hdmi")
    devices = tool.devices("--vanish-after", "1", "--delay", "0")
    devices.child.send_signal(signal.SIGSTOP)
    ask(tv, level=40)
    ask(tv, mute=1)
    devices.child.send_signal(signal.SIGCONT)
    devices.wait("hdmi: vanishes")
    for level in (41, 42):  # the answer to the second request would be due before the device reads the last one
        ask(tv, level=level)
        devices.wait(f"hdmi: level {level} asked for, but it has vanished")
    assert not any(map(tv.has, DEVICE_KEYS[2]))
    others = tool.devices()
    devices.wait("plays now; these wait until it ends")
    tool("route", "usb")
    others.wait("usb: publishes")
    others.end()
    devices.wait("the other devices have gone; these play again")
    devices.wait("auracast: begins with", 2)
    assert devices.said("hdmi: begins with") == 1
    assert not devices.said("usb: publishes")


def test_the_last_devices_play_and_the_others_wait(tool, tv):
    tool("route", "hdmi")
    first = tool.devices("--delay", "400")
    ask(tv, level=41)
    first.wait("level 41 asked for")  # if this answer is not given before the others play, it is forgotten
    second = tool.devices("--rounding", "10", "--delay", "800")
    first.wait("plays now; these wait until it ends")
    ask(tv, level=42)
    second.wait("publishes level 40")
    assert not first.said("level 42")
    second.end()
    first.wait("the other devices have gone; these play again")
    ask(tv, level=43)
    first.wait("publishes level 43")


def test_devices_take_over_from_others_that_were_killed(tool, tv):
    tool("route", "hdmi")
    first = tool.devices()
    second = tool.devices()
    first.wait("plays now; these wait until it ends")
    second.child.kill()
    second.child.wait(PATIENCE)
    ask(tv, level=43)
    first.wait("publishes level 43")


def test_devices_leave_no_trace_of_themselves(tool, tv):
    devices = tool.devices()
    assert devices.end(signal.SIGTERM)[0] == 143
    assert not tv.has(".devices")


def test_devices_follow_a_folder_that_is_replaced(tool, tv):
    """A start of the TV empties the memory settings, perhaps while the devices run."""
    tool("route", "hdmi")
    devices = tool.devices()
    subprocess.run(["rm", "-rf", tv.path / "settings/memory"], check=True)
    tool("key", "memory/menu/network/screenmirroring/set_volume_level", "31")
    devices.wait("publishes level 31")


def test_idle_devices_do_not_wake_up(tool):
    assert_idle(tool.devices().child.pid)


def play_hdmi(scene, tool, *options):
    """kavreld, the devices, and HDMI in use. Its values have stood there before, so that nothing is left to report."""
    tool("route", "hdmi")
    devices = tool.devices(*options)
    tool("route", "tv")
    log = scene.start().log
    log.settle()
    tool("route", "hdmi")
    devices.wait("hdmi: publishes")
    log.settle()


def test_an_hdmi_receiver_from_end_to_end(scene, tool, client):
    play_hdmi(scene, tool)
    assert client.get_support() == (15, 0)
    assert client.set_volume(40) == 0
    client.expect("SpeakerVolumeChanged", 15, 40)
    assert client.get_volume() == (40, 0)
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", 15, True)
    assert client.get_mute() == (1, 0)


def test_a_receiver_that_can_only_set_its_volume(scene, tool, client):
    play_hdmi(scene, tool, "--support", "0x2")
    assert client.get_volume()[1] == -4
    assert client.set_mute(True) == -4
    assert client.set_volume(40) == 0
    client.expect("SpeakerVolumeChanged", 2, 40)


# --- The emulators' peer

BT_PEER = ("com.norvik.tv.bt.connectionmanager", "/com/norvik/tv/bt/connectionmanager",
           "com.norvik.tv.bt.connectionmanager.speaker")
TV_PEER = ("org.olvane.kavrel.tv", "/Org/Olvane/Kavrel", "org.olvane.kavrel.tv")


def call(client, peer, method, *arguments):
    body = GLib.Variant(f"({'i' * len(arguments)})", arguments)
    name, path, interface = peer
    return client.connection.call_sync(name, path, interface, method, body, None, Gio.DBusCallFlags.NO_AUTO_START,
                                       int(PATIENCE * 1000), None).unpack()


@pytest.mark.parametrize("which, peer, route, support", [("tv", TV_PEER, 0, TV_SUPPORT), ("bt", BT_PEER, 3, 15)])
def test_the_peer_answers_and_announces(tool, client, which, peer, route, support):
    emulator = tool.start("emulator", which, "--volume", "17", "--result", "5")
    emulator.wait(f"{peer[0]} is here, volume 17")
    assert call(client, peer, "GetSpkVolume") == (route, 17, 5)
    assert call(client, peer, "SetSpkVolume", 35) == (route, 0)
    client.expect("SpkVolumeChanged", route, support, 35)
    assert [item[0] for item in client.heard[-2:]] == ["reply", "SpkVolumeChanged"]
    assert call(client, peer, "GetSpkVolume") == (route, 35, 5)
    emulator.type("36\n37")
    client.expect("SpkVolumeChanged", route, support, 36)
    client.expect("SpkVolumeChanged", route, support, 37)
    emulator.type("loud")
    emulator.child.stdin.write("38")
    emulator.child.stdin.close()
    client.expect("SpkVolumeChanged", route, support, 38)
    wait_until_asleep(emulator.child.pid)  # although there is no more to read
    assert emulator.end() == (0, ['kavrel-tv: "loud" is not a whole number of 32 bits'])
    assert [line.split(" ", 1)[1] for line in emulator.lines[1:]] == [
        "GetSpkVolume: 17", "SetSpkVolume 35", f"SpkVolumeChanged {route} {support} 35", "GetSpkVolume: 35",
        *(f"SpkVolumeChanged {route} {support} {volume}" for volume in (36, 37, 38))]


def test_the_peer_plays_on_in_the_background_of_a_terminal(tool, client):
    shell = Terminal(["bash", "--norc", "-mc", f"{KAVREL_TV} emulator bt & echo process $!.; wait"], tool.environment(), 24, 80)
    tool.scene.callback(shell.close)
    number = re.compile(r"process (\d+)\.")
    shell.wait_until(lambda: "is here" in shell.output and number.search(shell.output))
    process = int(number.search(shell.output)[1])
    shell.type("23\n")  # which is for the program in the foreground
    wait_until_asleep(process)
    assert call(client, BT_PEER, "GetSpkVolume") == (3, 10, 0)
    os.kill(process, signal.SIGTERM)
    shell.wait_for_end()


def test_the_peer_needs_its_name(tool):
    first = tool.start("emulator", "bt")
    first.wait("is here")
    done = tool.run("emulator", "bt")
    assert done.returncode == 1
    assert refused(done) == f"cannot own the name {BT_PEER[0]}: another program does"


def test_the_peer_needs_the_right_to_its_name(tool, scene):
    scene.change_bus('<allow own="*"/>', '<deny own="*"/>')
    done = tool.run("emulator", "bt")
    assert done.returncode == 77
    assert refused(done) == f"not allowed: needs a rule of the bus that lets this user own {BT_PEER[0]}"


def test_the_peer_tells_that_the_bus_has_no_room_for_its_name(tool, scene):
    scene.change_bus("</busconfig>", '<limit name="max_names_per_connection">1</limit></busconfig>')
    done = tool.run("emulator", "bt")
    assert done.returncode == 75
    assert refused(done).startswith("busy, try again: ") and "max_names_per_connection" in done.stderr


def test_the_peer_needs_a_bus_and_tells_when_it_goes(tool, scene):
    done = tool.run("emulator", "bt", DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={scene.folder}/nowhere")
    assert done.returncode == 2 and refused(done) != ""
    emulator = tool.start("emulator", "bt")
    emulator.wait("is here")
    scene.bus.end()
    assert emulator.child.wait(PATIENCE) == 2
    assert emulator.end() == (2, ["kavrel-tv: the bus has gone"])


def test_the_daemons_bluetooth_emulator_talks_to_the_peer(scene, tool, client):
    switches = Switches(scene)
    switches.turn_on("bt")
    log = switches.start().log
    devices = tool.devices()
    emulator = tool.start("emulator", "bt", "--volume", "17")
    emulator.wait("is here")
    tool("route", "bt")
    devices.wait("bt: publishes")
    log.settle()
    assert client.get_volume() == (17, 0)
    assert client.set_volume(35) == 0
    emulator.wait("SetSpkVolume 35")
    client.expect("SpkVolumeChanged", 3, 15, 35)
    client.expect("SpeakerVolumeChanged", 15, 35)
    emulator.type("20")
    client.expect("SpkVolumeChanged", 3, 15, 20)
    client.expect("SpeakerVolumeChanged", 15, 20)


def test_the_daemons_tv_emulator_hears_the_peer_but_cannot_call_it(scene, tool, client):
    switches = Switches(scene)
    switches.turn_on("tv")
    switches.start()
    emulator = tool.start("emulator", "tv")
    emulator.wait("is here, volume 10")
    emulator.type("23")
    client.expect("SpkVolumeChanged", 0, TV_SUPPORT, 23)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 23)
    assert client.call("SetSpeakerVolume", "i", 30) == (-1,)
    assert emulator.said("SetSpkVolume") == 0

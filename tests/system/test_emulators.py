# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the two emulated speakers, each enabled by a switch file. A peer on the bus keeps their volume."""
import re
import threading

import pytest
from gi.repository import Gio, GLib

from harness import PATIENCE, TV_SUPPORT, Switches
from interface import connect

FAILED, NOT_SUPPORTED = -1, -4
TV_ROUTES, BLUETOOTH_ROUTES = [0, 6, 11, 12, 13, 14], [3, 5]
OTHER_ROUTES = {1: "Optical", 2: "HDMI", 4: "WIFI", 15: "USB", 19: "Auracast"}
MIRRORING = "settings/memory/menu/network/screenmirroring"
SUPPORT, LEVEL, MUTE = (f"{MIRRORING}/{key}_bt" for key in ("volume_support", "get_volume_level", "get_volume_mute"))
VOLUME_REQUEST, MUTE_REQUEST = f"{MIRRORING}/set_volume_level", f"{MIRRORING}/set_volume_mute"


@pytest.fixture
def switches(scene):
    return Switches(scene)


@pytest.fixture
def tv_emulator(switches):
    """A kavreld whose TV speaker is emulated."""
    switches.turn_on("tv")
    return switches.start()


@pytest.fixture
def bluetooth_emulator(scene, tv, switches):
    """A kavreld whose Bluetooth speaker is emulated and is the present output."""
    scene.start().kill()
    switches.turn_on("bt")
    tv.echo(15, SUPPORT)
    tv.echo(7, LEVEL)
    tv.echo(0, MUTE)
    tv.echo(3, "sound/route")
    return switches.start()


class ConnectionManager:
    """The peer of the emulated Bluetooth speaker. Tests can change its replies or hold them back."""

    NAME = "com.norvik.tv.bt.connectionmanager"
    PATH = "/com/norvik/tv/bt/connectionmanager"
    INTERFACE = "com.norvik.tv.bt.connectionmanager.speaker"

    def __init__(self, address):
        self.calls = []
        self.answers = {"GetSpkVolume": GLib.Variant("(iii)", (3, 17, 0)),
                        "SetSpkVolume": GLib.Variant("(ii)", (0, 0))}
        self.holds_back, self.held = False, []
        self.asked = threading.Event()
        self.connection = connect(address)
        self.connection.add_filter(self._hear)
        self.connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "RequestName", GLib.Variant("(su)", (self.NAME, 0)), None,
                                  Gio.DBusCallFlags.NONE, -1, None)

    def close(self):
        if not self.connection.is_closed():
            self.connection.close_sync(None)

    def _hear(self, _connection, message, incoming, *_):
        if not incoming or message.get_message_type() != Gio.DBusMessageType.METHOD_CALL:
            return message
        body = message.get_body()
        self.calls.append((message.get_path(), message.get_interface(), message.get_member(),
                           body.unpack() if body else ()))
        self.held.append(message)
        self.asked.set()
        if not self.holds_back:
            self.answer()
        return None

    def answer(self):
        message = self.held.pop()
        answer = self.answers[message.get_member()]
        if isinstance(answer, str):
            reply = message.new_method_error_literal(answer, "no")
        else:
            reply = message.new_method_reply()
            reply.set_body(answer)
        self.connection.send_message(reply, Gio.DBusSendMessageFlags.NONE)

    def call(self, method, *arguments):
        """Returns the entry of `calls` for a call with these arguments."""
        return (self.PATH, self.INTERFACE, method, arguments)


@pytest.fixture
def manager(scene):
    manager = ConnectionManager(scene.bus.address)
    yield manager
    manager.close()


def created(log, after=-1):
    return [line.text for line in log.lines(after) if line.function == "CreateSpeaker"]


def follow(tv, daemon, routes, previous=0):
    """Changes the route to each of the routes in turn; returns the lines about created speakers."""
    before = daemon.log.end()
    for route in routes:
        tv.echo(route, "sound/route")
        daemon.log.wait(f"Type({previous}->{route})", before)
        previous = route
    daemon.settle()
    return created(daemon.log, before)


# --- the switch files ------------------------------------------------------------------------------------------------


def test_with_its_file_every_tv_route_is_emulated_and_no_other(tv, switches):
    switches.turn_on("tv")
    daemon = switches.start()
    assert created(daemon.log) == ["Create TV Speaker Emulator"]
    speakers = follow(tv, daemon, [*TV_ROUTES[1:], *BLUETOOTH_ROUTES, *OTHER_ROUTES])
    assert speakers == [*5 * ["Create TV Speaker Emulator"], *2 * ["Create BT Speaker"],
                        *(f"Create {name} Speaker" for name in OTHER_ROUTES.values())]


def test_with_its_file_every_bluetooth_route_is_emulated_and_no_other(tv, switches):
    switches.turn_on("bt")
    daemon = switches.start()
    assert created(daemon.log) == ["Create TV Speaker"]
    speakers = follow(tv, daemon, [*TV_ROUTES[1:], *BLUETOOTH_ROUTES, *OTHER_ROUTES])
    assert speakers == [*5 * ["Create TV Speaker"], *2 * ["Create BT Speaker Emulator"],
                        *(f"Create {name} Speaker" for name in OTHER_ROUTES.values())]


def test_the_files_count_from_the_next_change_of_output_on(tv, switches):
    daemon = switches.start()
    assert created(daemon.log) == ["Create TV Speaker"]
    switches.turn_on("tv")
    switches.turn_on("bt")
    assert follow(tv, daemon, [12, 3]) == ["Create TV Speaker Emulator", "Create BT Speaker Emulator"]
    switches.turn_off("tv")
    switches.turn_off("bt")
    assert follow(tv, daemon, [13, 5], previous=3) == ["Create TV Speaker", "Create BT Speaker"]


def test_only_the_existence_of_a_file_counts(switches):
    (switches.folder / ".enable_tv_spk").mkdir()
    assert created(switches.start().log) == ["Create TV Speaker Emulator"]


def test_a_link_to_nowhere_is_no_file(switches):
    (switches.folder / ".enable_tv_spk").symlink_to("nowhere")
    assert created(switches.start().log) == ["Create TV Speaker"]


# --- the emulated TV speaker -----------------------------------------------------------------------------------------


def test_the_emulated_tv_speaker_supports_everything(tv_emulator, client):
    assert client.get_support() == (TV_SUPPORT, 0)


def test_the_volume_of_the_emulated_tv_speaker_is_read_from_its_peer(tv_emulator, client, tv):
    # Its peer has the daemon's own bus name, under which only the daemon itself answers.
    before = tv_emulator.log.end()
    assert client.get_volume() == (0, FAILED)
    assert client.set_volume(30) == FAILED
    for method in ("GetSpkVolume", "SetSpkVolume"):
        assert tv_emulator.log.find(f"Method call '{method}'", before).priority == "I"
        failed = tv_emulator.log.find(re.compile(rf"Method Call '{method}' Failed \(.+\)"), before)
        assert (failed.priority, failed.function) == ("E", "DbusCallSync")
    assert tv.read("audio/master_volume") == "10"
    client.expect_silence()


def test_a_volume_that_the_emulated_tv_speaker_tells_is_announced(tv_emulator, client):
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 12)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 12)
    told = tv_emulator.log.find(
        f"Start sender:{client.name} signal_name:SpkVolumeChanged route:0, suppType:65535 vol:12")
    assert (told.priority, told.file, told.function) == ("I", "TVSpeakerEmul.cpp", "VolumeChangedCB")
    client.emit("SpkVolumeChanged", "iii", 3, -1, 12)
    tv_emulator.log.wait("volume(12) is same", told.number)
    client.expect_silence()


def test_the_master_volume_is_not_the_emulated_tv_speakers(tv_emulator, client, tv):
    tv.echo(42, "audio/master_volume")
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 13)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 13)
    client.expect_silence()


def test_the_mute_of_the_emulated_tv_speaker_is_the_tvs(tv_emulator, client, tv):
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    assert tv.read("audio/master_mute") == "1"
    assert client.get_mute() == (1, 0)
    tv.echo(0, "audio/master_mute")
    client.expect("SpeakerMuteChanged", TV_SUPPORT, False)
    assert client.get_mute() == (0, 0)


def test_a_replaced_emulated_tv_speaker_ignores_signals_and_reports(tv_emulator, client, tv):
    tv.echo(2, "sound/route")
    tv_emulator.log.wait("Create HDMI Speaker")
    before = tv_emulator.log.end()
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 12)
    tv_emulator.log.wait("Not matched signal:SpkVolumeChanged", before)
    tv.echo(1, "audio/master_mute")
    client.get_support()
    assert not any(line.file == "TVSpeakerEmul.cpp" for line in tv_emulator.log.lines(before))
    client.expect_silence()


def test_replacing_an_emulated_tv_speaker_says_that_both_pairs_of_handlers_are_unset(tv_emulator, tv):
    before = tv_emulator.log.end()
    follow(tv, tv_emulator, [12])
    unset = [line.file for line in tv_emulator.log.lines(before) if line.text == "Already unset event handler"]
    assert unset == ["TVSpeakerEmul.cpp", "TVSpeaker.cpp"]


# --- the emulated Bluetooth speaker ----------------------------------------------------------------------------------


@pytest.mark.parametrize("answer", [(3, 17, 0), (3, 17, 5), (-1, -2**31, 2**31 - 1), (0, 0, -4)])
def test_the_volume_and_its_status_are_the_managers(bluetooth_emulator, manager, client, answer):
    manager.answers["GetSpkVolume"] = GLib.Variant("(iii)", answer)
    assert client.get_volume() == answer[1:]
    assert manager.calls == [manager.call("GetSpkVolume")]
    line = bluetooth_emulator.log.find("current TV Speaker volume [{} {} {}]".format(*answer))
    assert (line.priority, line.file, line.function) == ("I", "BTSpeakerEmul.cpp", "GetVolume")


@pytest.mark.parametrize("answer", [(0, 0), (-1, -4), (2**31 - 1, -2**31)])
def test_a_volume_is_set_at_the_manager_whatever_it_answers(bluetooth_emulator, manager, client, tv, answer):
    manager.answers["SetSpkVolume"] = GLib.Variant("(ii)", answer)
    assert client.set_volume(33) == 0
    assert client.set_volume(-5) == 0
    assert manager.calls == [manager.call("SetSpkVolume", 33), manager.call("SetSpkVolume", -5)]
    line = bluetooth_emulator.log.find("current TV Speaker volume [{} {}]".format(*answer))
    assert (line.priority, line.function) == ("I", "SetVolume")
    assert not tv.has(VOLUME_REQUEST)
    client.expect_silence()


def test_without_a_manager_the_volume_fails_at_once(bluetooth_emulator, client):
    assert client.get_volume() == (0, FAILED)
    assert client.set_volume(33) == FAILED
    for method in ("GetSpkVolume", "SetSpkVolume"):
        assert bluetooth_emulator.log.find(re.compile(rf"Method Call '{method}' Failed \(.+\)")).priority == "E"


def test_an_error_of_the_manager_is_a_failure(bluetooth_emulator, manager, client):
    manager.answers = dict.fromkeys(manager.answers, "com.norvik.Error")
    assert client.get_volume() == (0, FAILED)
    assert client.set_volume(33) == FAILED
    assert bluetooth_emulator.log.find(re.compile(r"Method Call 'GetSpkVolume' Failed \(.*com\.norvik\.Error.*\)"))


@pytest.mark.parametrize("method, expected, given", [
    ("GetSpkVolume", "(iii)", GLib.Variant("(ii)", (3, 17))),
    ("GetSpkVolume", "(iii)", GLib.Variant("(sss)", ("3", "17", "0"))),
    ("GetSpkVolume", "(iii)", GLib.Variant("()", ())),
    ("SetSpkVolume", "(ii)", GLib.Variant("(iii)", (0, 0, 0))),
    ("SetSpkVolume", "(ii)", GLib.Variant("(uu)", (0, 0))),
])
def test_an_answer_of_another_type_is_a_failure(bluetooth_emulator, manager, client, method, expected, given):
    manager.answers[method] = given
    result = client.get_volume() if method == "GetSpkVolume" else (0, client.set_volume(33))
    assert result == (0, FAILED)
    line = bluetooth_emulator.log.find(
        f"Invalid reply to {method}: expected {expected}, got {given.get_type_string()}")
    assert line.priority == "E"


@pytest.mark.parametrize("word", range(16))
def test_volume_and_mute_need_their_bit_of_the_support_word(bluetooth_emulator, manager, client, tv, word):
    before = bluetooth_emulator.log.end()
    tv.echo(word, SUPPORT)
    if word != 15:
        bluetooth_emulator.log.wait(f"Volume support flag changed 0x0000 to 0x{word:04x}", before)
    assert client.get_volume() == ((17, 0) if word & 1 else (0, NOT_SUPPORTED))
    assert client.set_volume(33) == (0 if word & 2 else NOT_SUPPORTED)
    assert client.get_mute() == ((0, 0) if word & 4 else (0, NOT_SUPPORTED))
    assert client.set_mute(True) == (0 if word & 8 else NOT_SUPPORTED)
    assert manager.calls == [manager.call("GetSpkVolume")] * bool(word & 1) + [
        manager.call("SetSpkVolume", 33)] * bool(word & 2)
    refusals = ["GET VOLUME is not supported.", "SET VOLUME is not supported.",
                f"GET MUTE is not supported. 0x{word:04x}", f"SET MUTE is not supported. 0x{word:04x}"]
    assert [(line.priority, line.text) for line in bluetooth_emulator.log.lines(before)
            if "not supported" in line.text] == [
                ("E", text) for bit, text in zip((1, 2, 4, 8), refusals) if not word & bit]
    assert tv.has(MUTE_REQUEST) == bool(word & 8)


def test_a_volume_that_the_manager_tells_is_announced(bluetooth_emulator, client):
    client.emit("SpkVolumeChanged", "iii", 3, 15, 12)
    client.expect("SpeakerVolumeChanged", 15, 12)
    told = bluetooth_emulator.log.find(
        f"Start sender:{client.name} signal_name:SpkVolumeChanged route:3, suppType:0x000f vol:12")
    assert (told.priority, told.file, told.function) == ("I", "BTSpeakerEmul.cpp", "OnVolumeLevelChanged")


def test_the_level_key_is_not_listened_to_but_mute_and_support_are(bluetooth_emulator, client, tv):
    tv.echo(50, LEVEL)
    tv.echo(1, MUTE)
    client.expect("SpeakerMuteChanged", 15, True)
    assert client.get_mute() == (1, 0)
    tv.echo(5, SUPPORT)
    bluetooth_emulator.log.wait("Volume support flag changed 0x000f to 0x0005")
    client.expect_silence()
    assert not any(LEVEL.removeprefix("settings/") in text for text in bluetooth_emulator.log.texts())


def test_a_replaced_emulated_bluetooth_speaker_ignores_signals_and_reports(bluetooth_emulator, client, tv):
    tv.echo(2, "sound/route")
    bluetooth_emulator.log.wait("Create HDMI Speaker")
    before = bluetooth_emulator.log.end()
    client.emit("SpkVolumeChanged", "iii", 3, 15, 12)
    bluetooth_emulator.log.wait("Not matched signal:SpkVolumeChanged", before)
    tv.echo(1, MUTE)
    client.expect_silence()
    assert not any(line.file == "BTSpeakerEmul.cpp" for line in bluetooth_emulator.log.lines(before))


def test_everyone_waits_while_the_manager_thinks(scene, bluetooth_emulator, manager, client):
    other = scene.client()
    manager.holds_back = True
    client.send("GetSpeakerVolume")
    client.flush()
    assert manager.asked.wait(PATIENCE)
    other.send("GetSpeakerMute")
    other.flush()
    assert other.heard == []
    manager.answer()
    client.wait_for_reply(17, 0)
    other.wait_for_reply(0, 0)


def test_a_manager_that_goes_without_an_answer_is_a_failure(bluetooth_emulator, manager, client):
    manager.holds_back = True
    client.send("GetSpeakerVolume")
    client.flush()
    assert manager.asked.wait(PATIENCE)
    manager.close()
    client.wait_for_reply(0, FAILED)


# --- both ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("emulator", ["tv_emulator", "bluetooth_emulator"])
@pytest.mark.parametrize("signature, arguments", [("", ()), ("ii", (0, 12)), ("iiii", (0, 1, 12, 0)),
                                                  ("iis", (0, 1, "12")), ("uuu", (0, 1, 12))])
def test_a_volume_signal_of_another_type_is_dropped(request, client, emulator, signature, arguments):
    log = request.getfixturevalue(emulator).log
    client.emit("SpkVolumeChanged", signature, *arguments)
    dropped = log.wait(f"Invalid parameters of signal SpkVolumeChanged: expected (iii), got ({signature})")
    assert dropped.priority == "E"
    client.emit("SpkVolumeChanged", "iii", 0, 0, 12)
    assert client.take()[2] == 12
    client.expect_silence()


@pytest.mark.parametrize("emulator", ["tv_emulator", "bluetooth_emulator"])
def test_a_volume_signal_from_another_path_or_interface_is_ignored(request, client, emulator):
    request.getfixturevalue(emulator)
    client.emit("SpkVolumeChanged", "iii", 0, 0, 11, path="/Org/Olvane/Other")
    client.emit("SpkVolumeChanged", "iii", 0, 0, 12, interface="org.olvane.kavrel.tv")
    client.emit("SpkVolumeChanged", "iii", 0, 0, 13)
    assert client.take()[2] == 13
    client.expect_silence()


@pytest.mark.parametrize("emulator", ["tv_emulator", "bluetooth_emulator"])
@pytest.mark.parametrize("volume", [-2**31, -1, 101, 2**31 - 1])
def test_any_volume_from_the_peer_is_announced(request, client, emulator, volume):
    request.getfixturevalue(emulator)
    client.emit("SpkVolumeChanged", "iii", volume, volume, volume)
    assert client.take()[2] == volume

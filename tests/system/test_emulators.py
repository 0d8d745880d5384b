# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the two emulated speakers, each enabled by a switch file. A peer on the bus keeps their volume."""
import threading

import pytest
from gi.repository import Gio, GLib

from harness import PATIENCE, TV_SUPPORT, Switches, change_route
from interface import connect

FAILED = -1
BLUETOOTH, OTHER_TV_SPEAKER, OTHER_BLUETOOTH, UNKNOWN = 3, 12, 5, 7
MIRRORING = "settings/memory/menu/network/screenmirroring"
SUPPORT, LEVEL, MUTE = (f"{MIRRORING}/{key}_bt" for key in ("volume_support", "get_volume_level", "get_volume_mute"))
VOLUME_REQUEST = f"{MIRRORING}/set_volume_level"


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


# --- the switch files ------------------------------------------------------------------------------------------------


def has_the_tv_emulator(client):
    """Its peer has the daemon's own bus name, under which nobody answers, so its volume cannot be read."""
    return client.get_volume() == (0, FAILED)


def has_the_bluetooth_emulator(manager, client):
    del manager.calls[:]
    client.get_volume()
    return manager.calls == [manager.call("GetSpkVolume")]


def test_the_files_count_from_the_next_change_of_output_on_and_for_their_own_outputs(tv, switches, manager, client):
    log = switches.start().log
    tv.echo(15, SUPPORT)
    tv.echo(7, LEVEL)
    switches.turn_on("tv")
    assert client.get_volume() == (10, 0)
    change_route(tv, log, OTHER_TV_SPEAKER)
    assert has_the_tv_emulator(client)
    change_route(tv, log, BLUETOOTH)
    assert client.get_volume() == (7, 0)

    switches.turn_on("bt")
    switches.turn_off("tv")
    change_route(tv, log, OTHER_BLUETOOTH)
    assert has_the_bluetooth_emulator(manager, client)
    change_route(tv, log, 0)
    assert client.get_volume() == (10, 0)
    switches.turn_off("bt")
    change_route(tv, log, BLUETOOTH)
    assert client.get_volume() == (7, 0)


def test_only_the_existence_of_a_file_counts(switches, client):
    (switches.folder / ".enable_tv_spk").mkdir()
    switches.start()
    assert has_the_tv_emulator(client)


def test_a_link_to_nowhere_is_no_file(switches, client):
    (switches.folder / ".enable_tv_spk").symlink_to("nowhere")
    switches.start()
    assert client.get_volume() == (10, 0)


# --- the emulated TV speaker -----------------------------------------------------------------------------------------


def test_the_emulated_tv_speaker_has_the_volume_of_its_peer_and_the_mute_of_the_tv(tv_emulator, client, tv):
    assert client.get_support() == (TV_SUPPORT, 0)
    tv.echo(42, "audio/master_volume")  # not its volume
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 12)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 12)
    client.emit("SpkVolumeChanged", "iii", 3, -1, 12)  # no change
    assert client.set_mute(True) == 0
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    assert tv.read("audio/master_mute") == "1"
    assert client.get_mute() == (1, 0)
    tv.echo(0, "audio/master_mute")
    client.expect("SpeakerMuteChanged", TV_SUPPORT, False)
    assert client.get_mute() == (0, 0)


def test_without_a_peer_the_volume_of_the_emulated_tv_speaker_fails(tv_emulator, client, tv):
    assert client.get_volume() == (0, FAILED)
    assert client.set_volume(30) == FAILED
    assert tv.read("audio/master_volume") == "10"
    client.expect_silence()


def test_a_replaced_emulated_tv_speaker_ignores_signals_and_reports(tv_emulator, client, tv):
    change_route(tv, tv_emulator.log, UNKNOWN)
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 12)
    client.get_support()  # its reply comes after the signal was handled
    tv.echo(1, "audio/master_mute")
    client.expect_silence()
    change_route(tv, tv_emulator.log, 0)
    client.get_support()  # its reply comes after the bus knows the new subscription
    client.emit("SpkVolumeChanged", "iii", 0, 65535, 12)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 12)


# --- the emulated Bluetooth speaker ----------------------------------------------------------------------------------


def test_the_volume_and_its_status_are_the_managers(bluetooth_emulator, manager, client):
    answers = [(3, 17, 0), (3, 17, 5), (-1, -2**31, 2**31 - 1), (0, 0, -4)]
    for answer in answers:
        manager.answers["GetSpkVolume"] = GLib.Variant("(iii)", answer)
        assert client.get_volume() == answer[1:]
    assert manager.calls == [manager.call("GetSpkVolume")] * len(answers)


def test_a_volume_is_set_at_the_manager_whatever_it_answers(bluetooth_emulator, manager, client, tv):
    for volume, answer in ((33, (0, 0)), (-5, (-1, -4)), (0, (2**31 - 1, -2**31))):
        manager.answers["SetSpkVolume"] = GLib.Variant("(ii)", answer)
        assert client.set_volume(volume) == 0
    assert manager.calls == [manager.call("SetSpkVolume", volume) for volume in (33, -5, 0)]
    assert not tv.has(VOLUME_REQUEST)
    client.expect_silence()


def test_without_a_manager_the_volume_fails_at_once(bluetooth_emulator, client):
    assert client.get_volume() == (0, FAILED)
    assert client.set_volume(33) == FAILED


def test_an_error_or_an_answer_of_another_type_is_a_failure(bluetooth_emulator, manager, client):
    for answer in ("com.norvik.Error", GLib.Variant("(sss)", ("3", "17", "0"))):
        manager.answers = dict.fromkeys(manager.answers, answer)
        assert client.get_volume() == (0, FAILED)
        assert client.set_volume(33) == FAILED


def test_the_volume_is_heard_from_the_manager_but_mute_and_support_from_the_keys(bluetooth_emulator, client, tv):
    tv.echo(50, LEVEL)
    tv.echo(1, MUTE)
    client.expect("SpeakerMuteChanged", 15, True)
    assert client.get_mute() == (1, 0)
    client.emit("SpkVolumeChanged", "iii", 3, 5, 12)
    client.expect("SpeakerVolumeChanged", 15, 12)
    tv.echo(5, SUPPORT)
    assert client.get_support() == (5, 0)
    client.emit("SpkVolumeChanged", "iii", 3, 15, -2**31)  # any number
    client.expect("SpeakerVolumeChanged", 5, -2**31)
    client.expect_silence()


def test_a_replaced_emulated_bluetooth_speaker_ignores_signals_and_reports(bluetooth_emulator, client, tv):
    change_route(tv, bluetooth_emulator.log, UNKNOWN)
    client.emit("SpkVolumeChanged", "iii", 3, 15, 12)
    client.get_support()  # its reply comes after the signal was handled
    tv.echo(1, MUTE)
    client.expect_silence()
    change_route(tv, bluetooth_emulator.log, BLUETOOTH)
    client.get_support()  # its reply comes after the bus knows the new subscription
    client.emit("SpkVolumeChanged", "iii", 3, 15, 12)
    client.expect("SpeakerVolumeChanged", 15, 12)


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
def test_a_volume_signal_from_another_path_or_interface_or_of_another_type_is_dropped(request, client, emulator):
    request.getfixturevalue(emulator)
    client.emit("SpkVolumeChanged", "iii", 0, 0, 11, path="/Org/Olvane/Other")
    client.emit("SpkVolumeChanged", "iii", 0, 0, 12, interface="org.olvane.kavrel.tv")
    client.emit("SpkVolumeChanged", "iis", 0, 1, "14")
    client.emit("SpkVolumeChanged", "iii", 0, 0, 13)
    assert client.take()[2] == 13
    client.expect_silence()

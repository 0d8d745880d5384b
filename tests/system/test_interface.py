# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the interface on the bus: names, paths and signatures."""
import xml.etree.ElementTree as ElementTree

import pytest

from harness import METHODS_PATH, NAME, TV_SUPPORT
from interface import XML_FILE


def interface_of(xml):
    return next(node for node in ElementTree.fromstring(xml).iter("interface") if node.get("name") == NAME)


def methods_of(interface):
    return [(method.get("name"), [(arg.get("name"), arg.get("type"), arg.get("direction")) for arg in method])
            for method in interface.iter("method")]


def test_introspection_shows_the_nine_methods_of_the_compiled_file_and_nothing_else(daemon, scene):
    shown = interface_of(scene.run("gdbus", "introspect", "--system", "--xml", "-d", NAME, "-o", METHODS_PATH))
    compiled = interface_of(XML_FILE.read_text())
    assert methods_of(shown) == methods_of(compiled)
    assert [name for name, _ in methods_of(shown)] == [
        "GetSpeakerSupportType", "SetSpeakerVolume", "GetSpeakerVolume", "SetSpeakerMute", "GetSpeakerMute",
        "ApplyPlayerFadeIn", "ApplyUnmuteFadeIn", "ResetPlayerGain", "ApplyGainOnMute"]
    assert {member.tag for member in shown} == {"method"}


def test_mute_is_a_boolean_in_and_an_integer_out(daemon, client):
    methods = dict(methods_of(interface_of(XML_FILE.read_text())))
    assert methods["SetSpeakerMute"] == [("message", "b", "in"), ("result", "i", "out")]
    assert client.set_mute(True) == 0
    reply = client.get_mute()
    assert reply == (1, 0)
    assert type(reply[0]) is int


@pytest.mark.parametrize("method, arguments, signature", [
    ("GetSpeakerSupportType", (), "ii"),
    ("SetSpeakerVolume", ("i", 30), "i"),
    ("GetSpeakerVolume", (), "ii"),
    ("SetSpeakerMute", ("b", True), "i"),
    ("GetSpeakerMute", (), "ii"),
    ("ApplyPlayerFadeIn", ("i", 1), "i"),
    ("ApplyUnmuteFadeIn", ("i", 1), "i"),
    ("ResetPlayerGain", ("i", 1), "i"),
    ("ApplyGainOnMute", ("ii", 1, 100), "i"),
])
def test_replies_have_their_signature(daemon, client, method, arguments, signature):
    client.call(method, *arguments)
    replies = [source for item, source in zip(client.heard, client.heard_from) if item[0] == "reply"]
    assert [reply_signature for _path, _interface, reply_signature in replies] == [signature]


def test_change_signals_come_from_the_methods_path(daemon, client):
    client.set_volume(30)
    client.set_mute(True)
    client.expect("SpeakerVolumeChanged", TV_SUPPORT, 30)
    client.expect("SpeakerMuteChanged", TV_SUPPORT, True)
    sources = [source for item, source in zip(client.heard, client.heard_from) if item[0] != "reply"]
    assert sources == [(METHODS_PATH, NAME, "ii"), (METHODS_PATH, NAME, "ib")]


def test_gdbus_is_served(daemon, scene):
    call = ["gdbus", "call", "--system", "-d", NAME, "-o", METHODS_PATH, "-m"]
    assert scene.run(*call, f"{NAME}.SetSpeakerVolume", "30") == "(0,)\n"
    assert scene.run(*call, f"{NAME}.GetSpeakerVolume") == "(30, 0)\n"
    assert scene.run(*call, f"{NAME}.SetSpeakerMute", "true") == "(0,)\n"
    assert scene.run(*call, f"{NAME}.GetSpeakerMute") == "(1, 0)\n"
    assert scene.run(*call, f"{NAME}.GetSpeakerSupportType") == "(65535, 0)\n"


def test_busctl_is_served(daemon, scene):
    call = ["busctl", "--system", "call", NAME, METHODS_PATH, NAME]
    assert scene.run(*call, "SetSpeakerVolume", "i", "30") == "i 0\n"
    assert scene.run(*call, "GetSpeakerVolume") == "ii 30 0\n"
    assert scene.run(*call, "SetSpeakerMute", "b", "true") == "i 0\n"
    assert scene.run(*call, "GetSpeakerMute") == "ii 1 0\n"
    assert scene.run(*call, "GetSpeakerSupportType") == "ii 65535 0\n"

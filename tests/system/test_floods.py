# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests that floods of messages cost little memory, on a bus without any policy. Nothing here measures time."""
import os
import re
import socket

import pytest
from gi.repository import Gio, GLib

from harness import METHODS_PATH, NAME, PATIENCE, SIGNALS_PATH

MESSAGES = 60_000
MEMORY_LIMIT = 32 * 1024  # in KiB
# A sanitizer keeps freed memory for a while and shadows all of it.
IS_MEMORY_PLAIN = os.environ["KAVREL_SANITIZER"] == "none"


class Flooder:
    """A connection to the bus that writes raw messages, as fast as the bus takes them, and need not read answers."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(re.search(r"path=([^,]+)", address)[1])
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        self.socket.recv(4096)
        self.socket.sendall(b"BEGIN\r\n")
        self.send(Gio.DBusMessage.new_method_call("org.freedesktop.DBus", "/", "org.freedesktop.DBus", "Hello"), 1)

    def send(self, message, count):
        message.set_serial(1)
        chunk = bytes(message.to_blob(Gio.DBusCapabilityFlags.NONE)) * min(count, 100)
        for _chunk in range(max(1, count // 100)):
            self.socket.sendall(chunk)

    def await_answer(self, text):
        self.socket.settimeout(PATIENCE)
        heard = b""
        while text not in heard:
            heard += self.socket.recv(4096)

    def close(self):
        self.socket.close()


@pytest.fixture
def flooders(scene):
    made = [Flooder(scene.bus.address) for _ in range(4)]
    yield made
    for flooder in made:
        flooder.close()


def getter():
    message = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, NAME, "GetSpeakerVolume")
    message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    return message


def introspection():
    message = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, "org.freedesktop.DBus.Introspectable", "Introspect")
    message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    return message


def question_for_all_properties():
    message = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, "org.freedesktop.DBus.Properties", "GetAll")
    message.set_body(GLib.Variant("(s)", (NAME,)))
    message.set_flags(Gio.DBusMessageFlags.NO_REPLY_EXPECTED)
    return message


def foreign_signal():
    message = Gio.DBusMessage.new_signal(SIGNALS_PATH, "org.olvane.other", "Nothing")
    message.set_destination(NAME)
    return message


def memory_of(process, field):
    with open(f"/proc/{process.pid}/status", encoding="utf-8") as status:
        return int(re.search(rf"{field}:\s+(\d+) kB", status.read())[1])


@pytest.mark.parametrize("message", [getter, introspection, question_for_all_properties, foreign_signal])
def test_a_flood_costs_little_memory_and_the_daemon_serves_on(daemon, client, flooders, message):
    for flooder in flooders:
        flooder.send(message(), MESSAGES // len(flooders))
    # The bus keeps the order of each receiver's messages, so this answer comes after the whole flood has arrived.
    assert client.call("SetSpeakerVolume", "i", 30) == (0,)
    assert client.get_volume() == (30, 0)
    if IS_MEMORY_PLAIN:
        assert memory_of(daemon, "VmHWM") < MEMORY_LIMIT


def test_the_memory_of_a_large_message_is_given_back_but_for_the_buffer_that_read_it(daemon, client, flooders):
    size = 30 << 20
    message = Gio.DBusMessage.new_method_call(NAME, METHODS_PATH, NAME, "GetSpeakerVolume")
    message.set_body(GLib.Variant.new_tuple(
        GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(bytes(size)), True)))
    for flooder in flooders[:2]:
        flooder.send(message, 1)
        flooder.await_answer(b"InvalidArgs")
    assert client.get_volume() == (10, 0)
    if IS_MEMORY_PLAIN:
        assert memory_of(daemon, "VmRSS") < size / 1024 + MEMORY_LIMIT / 2

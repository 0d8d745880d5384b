# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A client that writes the protocol of D-Bus itself, byte by byte, so that it can send what no library sends."""
import array
import os
import re
import socket
import struct
from dataclasses import dataclass, field, replace

from harness import PATIENCE
from interface import METHODS_PATH, NAME, SIGNALS_PATH
from gi.repository import Gio  # after interface, which selects its version

BUS, BUS_PATH = "org.freedesktop.DBus", "/org/freedesktop/DBus"
PEER, PROPERTIES, INTROSPECTABLE = f"{BUS}.Peer", f"{BUS}.Properties", f"{BUS}.Introspectable"

INVALID, CALL, RETURN, ERROR, SIGNAL = range(5)  # types of messages
NO_REPLY, NO_AUTO_START, INTERACTIVE = 1, 2, 4  # flags
PATH, INTERFACE, MEMBER, ERROR_NAME, REPLY_SERIAL, DESTINATION, SENDER, SIGNATURE, DESCRIPTORS = range(1, 10)

FIXED = {"y": "B", "b": "I", "n": "h", "q": "H", "i": "i", "u": "I", "x": "q", "t": "Q", "d": "d", "h": "I"}
ALIGNMENTS = {"s": 4, "o": 4, "a": 4, "g": 1, "v": 1, "(": 8, "{": 8,
              **{kind: struct.calcsize(code) for kind, code in FIXED.items()}}


def end_of_type(signature, start=0):
    """Returns where the complete type ends that starts there."""
    if signature[start] == "a":
        return end_of_type(signature, start + 1)
    depth = 0
    for end in range(start, len(signature)):
        depth += (signature[end] in "({") - (signature[end] in ")}")
        if depth == 0:
            return end + 1
    raise ValueError(f"not closed: {signature}")


def types_of(signature):
    """Returns the complete types of a signature: ["i", "a{sv}"]."""
    if not signature:
        return []
    end = end_of_type(signature)
    return [signature[:end], *types_of(signature[end:])]


class Marshaller:
    """Writes values in the format of D-Bus, and checks none of them."""

    def __init__(self, order="<"):
        self.order = order
        self.bytes = bytearray()

    def align(self, kind):
        self.bytes += bytes(-len(self.bytes) % ALIGNMENTS[kind[0]])

    def put(self, kind, value):
        """Writes a value of a complete type. The value of a variant is a pair: its type and its value."""
        self.align(kind)
        if kind in FIXED:
            self.bytes += struct.pack(self.order + FIXED[kind], value)
        elif kind in ("s", "o"):
            self.put_text("u", value)
        elif kind == "g":
            self.put_text("y", value)
        elif kind == "v":
            self.put("g", value[0])
            self.put(*value)
        elif kind[0] == "a":
            self.put_array(kind[1:], value)
        else:
            self.put_all(kind[1:-1], value)

    def put_all(self, signature, values):
        for kind, value in zip(types_of(signature), values, strict=True):
            self.put(kind, value)

    def put_text(self, length_kind, text):
        raw = text if isinstance(text, bytes) else text.encode()
        self.put(length_kind, len(raw))
        self.bytes += raw + b"\0"

    def put_array(self, kind, values):
        self.put("u", 0)
        length_at = len(self.bytes) - 4
        self.align(kind)
        start = len(self.bytes)
        if kind == "y":
            self.bytes += bytes(values)
        else:
            for value in values:
                self.put(kind, value)
        struct.pack_into(self.order + "I", self.bytes, length_at, len(self.bytes) - start)


def marshal(signature, *values, order="<"):
    marshaller = Marshaller(order)
    marshaller.put_all(signature, values)
    return bytes(marshaller.bytes)


@dataclass(frozen=True)
class Message:
    """Each field can be made wrong: replace(message, version=2)."""
    kind: int
    fields: dict = field(default_factory=dict)  # {code: (type, value)}
    body: bytes = b""
    flags: int = 0
    serial: int | None = None  # None: the connection gives it the next one
    order: str = "<"  # ">" for big-endian
    order_mark: bytes = b""  # the first byte, if not that of the order
    version: int = 1
    missing: int = 0  # the number of bytes that the header announces and the message lacks

    def with_field(self, code, kind, value):
        return replace(self, fields={**self.fields, code: (kind, value)})

    def without(self, code):
        return replace(self, fields={key: value for key, value in self.fields.items() if key != code})

    def raw(self):
        mark = self.order_mark or (b"l" if self.order == "<" else b"B")
        header = marshal("yyyyuua(yv)", mark[0], self.kind, self.flags, self.version, len(self.body) + self.missing,
                         self.serial or 0, list(self.fields.items()), order=self.order)
        return header + bytes(-len(header) % 8) + self.body


def make(kind, path, interface, member, signature, values, destination=NAME, order="<", **changes):
    texts = {PATH: ("o", path), INTERFACE: ("s", interface), MEMBER: ("s", member), DESTINATION: ("s", destination),
             SIGNATURE: ("g", signature)}
    fields = {code: (kind, text) for code, (kind, text) in texts.items() if text}
    return Message(kind, fields, marshal(signature, *values, order=order), order=order, **changes)


def call(member, signature="", *values, path=METHODS_PATH, interface=NAME, **changes):
    return make(CALL, path, interface, member, signature, values, **changes)


def signal(member, signature="", *values, path=SIGNALS_PATH, interface=NAME, destination="", **changes):
    return make(SIGNAL, path, interface, member, signature, values, destination, **changes)


class Wire:
    """A connection to the socket of the bus. It sends nothing by itself.

    Each method fails with ConnectionError if the bus has closed the connection.
    """

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(re.search(r"path=([^,]+)", address)[1])
        self.name = ""
        self.serial = 0
        self.received = b""
        self.answers = {}  # {serial of the call: the answer}, in the order of their arrival

    def close(self):
        self.socket.close()

    def authenticate(self):
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        assert self.socket.recv(4096).startswith(b"OK ")
        self.socket.sendall(b"NEGOTIATE_UNIX_FD\r\n")
        assert self.socket.recv(4096) == b"AGREE_UNIX_FD\r\n"
        self.socket.sendall(b"BEGIN\r\n")

    def hello(self):
        self.name, = self.ask_bus("Hello")

    def send(self, message, descriptors=()):
        """Returns the serial of the message."""
        self.serial += 1
        if message.serial is None:
            message = replace(message, serial=self.serial)
        self.send_raw(message.raw(), descriptors)
        return message.serial

    def send_raw(self, raw, descriptors=()):
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
        sent = self.socket.sendmsg([raw], rights)
        if sent < len(raw):
            self.socket.sendall(raw[sent:])

    def receive(self):
        """Waits for the next message."""
        while len(self.received) < 16 or len(self.received) < Gio.DBusMessage.bytes_needed(self.received):
            some = self.socket.recv(1 << 16)
            if not some:
                raise ConnectionError("the bus has closed the connection")
            self.received += some
        size = Gio.DBusMessage.bytes_needed(self.received)
        raw, self.received = self.received[:size], self.received[size:]
        return Gio.DBusMessage.new_from_blob(raw, Gio.DBusCapabilityFlags.UNIX_FD_PASSING)

    def answer(self, serial):
        """Waits for the answer to the call with this serial; returns its values, or the name of the error."""
        while serial not in self.answers:
            message = self.receive()
            body = message.get_body()
            if message.get_reply_serial():
                self.answers[message.get_reply_serial()] = message.get_error_name() or (body.unpack() if body else ())
        return self.answers[serial]

    def ask(self, message, descriptors=()):
        return self.answer(self.send(message, descriptors))

    def ask_all(self, messages):
        """Sends all of them before it waits for the answers."""
        return [self.answer(serial) for serial in [self.send(message) for message in messages]]

    def ask_bus(self, member, signature="", *values, interface=BUS):
        return self.ask(call(member, signature, *values, path=BUS_PATH, interface=interface, destination=BUS))

    def reach_daemon(self):
        """Waits until the daemon has read everything that this connection has sent."""
        assert self.ask(call("Ping", interface=PEER)) == ()

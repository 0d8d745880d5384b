# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Clients that send everything that they should not, to each method and signal, on a bus without any policy.

Each test ends with the same question: are the daemon's state, values, log, descriptors and threads what the well-formed
requests made them, and does it serve the next one? Nothing here measures time.
"""
import os
import re
import select
import signal as signals
import time
from itertools import cycle, product
from pathlib import Path

import pytest

from harness import (METHODS_PATH, NAME, PATIENCE, ROOT, SIGNALS_PATH, TV_SUPPORT, Broker, LogLine,
                     handler_of)
from interface import read_methods, signals_in
from wire import (BUS, BUS_PATH, CALL, DESCRIPTORS, DESTINATION, ERROR, ERROR_NAME, INTERFACE, INTROSPECTABLE,
                  INVALID, MEMBER, NO_REPLY, PATH, PEER, PROPERTIES, REPLY_SERIAL, RETURN, SENDER, SIGNATURE, Message,
                  Wire, call, replace, signal)

METHODS = read_methods()
DESCRIPTION = (ROOT / "data/interface.xml").read_text()
SIGNALS, ANNOUNCEMENTS = signals_in(DESCRIPTION, "client"), signals_in(DESCRIPTION, "daemon")
VALUES = {"i": 3, "b": 1, "s": "box"}  # an argument of each type
OTHER = "org.olvane.other"

INVALID_ARGS, LIMITS_EXCEEDED, UNKNOWN_METHOD, ACCESS_DENIED = (
    f"{BUS}.Error.{name}" for name in ("InvalidArgs", "LimitsExceeded", "UnknownMethod", "AccessDenied"))

# A sanitizer keeps freed memory for a while and shadows all of it.
IS_MEMORY_PLAIN = os.environ["KAVREL_SANITIZER"] == "none"
MEMORY_LIMIT = 32 << 20  # in bytes


def arguments(signature):
    return [VALUES[kind] for kind in signature]


def nested(depth, kind, value):
    """Returns a value for the signature "v": so many variants, one in the other, around a value of this type."""
    for _ in range(depth - 1):
        kind, value = "v", (kind, value)
    return kind, value


def enclosed(depth, value, sequence):
    for _ in range(depth):
        value = sequence([value])
    return value


BODIES = [  # (signature, values)
    ("", []), ("y", [255]), ("b", [1]), ("n", [-2**15]), ("q", [2**16 - 1]), ("i", [-2**31]), ("u", [2**32 - 1]),
    ("x", [-2**63]), ("t", [2**64 - 1]), ("d", [float("nan")]), ("h", [2**32 - 1]),
    ("s", [""]), ("s", ["%s%n"]), ("o", ["/"]), ("g", [""]), ("g", ["i" * 255]),
    ("ii", [1, 100]), ("iii", [1, 2, 3]), ("is", [3, ""]), ("si", ["", 3]), ("ib", [3, 1]), ("i" * 255, [3] * 255),
    ("(i)", [[3]]), ("(ii)", [[3, 100]]), ("(is)", [[3, "box"]]), ("(" * 32 + "i" + ")" * 32, [enclosed(32, 3, tuple)]),
    ("ai", [[]]), ("ai", [[3]]), ("ay", [bytes(1000)]), ("as", [[""]]), ("a{sv}", [[]]), ("a{sv}", [[("i", ("i", 3))]]),
    ("a{sa{sv}}", [[("", [("", ("v", ("i", 3)))])]]), ("a" * 32 + "i", [[]]), ("a" * 32 + "i", [enclosed(32, 3, list)]),
    ("a" * 32 + "(" * 32 + "i" + ")" * 32, [[]]), ("v", [("i", 3)]), ("v", [("s", "")]), ("v", [("a{sv}", [])]),
    ("v", [nested(64, "i", 3)]), ("iv", [3, nested(63, "ai", [3])]),
]


def other_bodies(signature):
    return [body for body in BODIES if body[0] != signature]


class Victim:
    """A kavreld, and a snapshot of all that hostile clients must leave as it is."""

    def __init__(self, scene):
        self.scene = scene
        self.daemon = scene.start()
        self.client = scene.client()
        assert self.client.set_volume(30) == 0
        self.daemon.log.wait_for_caller(self.client.name, self.client.program())
        self.said = []  # what the daemon must log: (sender, member) of a request, "PRIORITY FUNCTION" of other lines
        self.start_of_log = self.daemon.log.end()
        self.descriptors, self.threads, self.values = self.open_files(), set(self.daemon.threads()), self.read_values()

    def wire(self):
        """Returns a new connection to the bus that it has let in."""
        wire = self.half_wire()
        wire.authenticate()
        wire.hello()
        return wire

    def half_wire(self):
        """Returns a new connection that has sent nothing."""
        wire = Wire(self.scene.bus.address)
        self.scene.callback(wire.close)
        return wire

    def open_files(self):
        """Returns what the daemon's descriptors lead to, without the folders that the platform opens when it likes."""
        folder = Path(f"/proc/{self.daemon.pid}/fd")
        targets = [os.readlink(folder / descriptor) for descriptor in os.listdir(folder)]
        return sorted(target for target in targets if not target.startswith(str(self.scene.tv.path)))

    def read_values(self):
        return {file: file.read_bytes() for file in self.scene.tv.path.rglob("*") if file.is_file()}

    def expect(self, sender, member, *lines):
        """Expects a request, and the lines that follow it."""
        self.said += [(sender.name, member), *lines]

    def forget_log(self):
        self.start_of_log = self.daemon.log.end()

    def check(self):
        self.check_log()
        self.daemon.settle()
        assert self.open_files() == self.descriptors
        assert set(self.daemon.threads()) <= self.threads
        assert self.read_values() == self.values
        assert (self.client.get_volume(), self.client.get_mute()) == ((30, 0), (0, 0))
        assert self.client.set_volume(31) == 0
        assert self.client.get_volume() == (31, 0)

    def check_log(self):
        self.client.get_support()  # its answer comes after everything before it was handled
        log = self.daemon.log
        assert None not in [LogLine.parse(0, raw) for raw in log.raw_lines()], "a line that is not the daemon's own"
        others = ("KVAudioGainHandler.cpp", "KVDbusSender.cpp")  # the gain workers and look-ups log at any time
        said = [line.request() or f"{line.priority} {line.function}"
                for line in log.lines(self.start_of_log) if line.file not in others]
        assert said == [*self.said, (self.client.name, "GetSpeakerSupportType"), "I _OnGetSpeakerSupportType"]


@pytest.fixture
def victim(scene):
    it = Victim(scene)
    yield it
    it.check()


# --- types -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("order", ["<", ">"], ids=["little-endian", "big-endian"])
def test_arguments_of_other_types_reach_no_method(victim, order):
    wire = victim.wire()
    calls = [call(method.name, signature, *values, order=order)
             for method in METHODS for signature, values in other_bodies(method.signature)]
    assert set(wire.ask_all(calls)) == {INVALID_ARGS}
    for message in calls:
        wire.send(replace(message, flags=NO_REPLY))
    wire.reach_daemon()


@pytest.mark.parametrize("order", ["<", ">"], ids=["little-endian", "big-endian"])
def test_signals_of_other_types_are_logged_and_dropped(victim, order):
    wire = victim.wire()
    for member, (signature, values) in [(one, body) for one in SIGNALS for body in other_bodies(one.signature)]:
        wire.send(signal(member.name, signature, *values, order=order))
        victim.expect(wire, member.name, f"E {handler_of(member.name)}")
    wire.reach_daemon()


def test_messages_in_the_other_byte_order_are_served(victim):
    wire = victim.wire()
    answers = wire.ask_all([call("SetSpeakerVolume", "i", 20, order=">"), call("GetSpeakerVolume", order=">"),
                            call("SetSpeakerVolume", "i", 30, order=">")])
    assert answers == [(0,), (20, 0), (0,)]
    wire.send(signal("BudsConnected", "i", -7, order=">"))
    wire.reach_daemon()
    victim.daemon.log.wait_matching(".*:-7", victim.start_of_log)
    victim.forget_log()


# --- other members, objects and interfaces ---------------------------------------------------------------------------

PATHS = [METHODS_PATH, SIGNALS_PATH, "/", METHODS_PATH.lower(), f"{METHODS_PATH}/x", "/" + "p" * 10000]
INTERFACES = [NAME, NAME.upper(), f"{NAME}.tv", "org.olvane", OTHER, "a." + "b" * 253]
STANDARD_CALLS = [  # (message, answer)
    (call("Ping", "s", "", interface=PEER), UNKNOWN_METHOD),
    (call("Introspect", "s", "", interface=INTROSPECTABLE), UNKNOWN_METHOD),
    (call("Get", interface=PROPERTIES), UNKNOWN_METHOD),
    (call("Get", "ss", NAME, "Volume", interface=PROPERTIES), INVALID_ARGS),
    (call("Get", "ss", "", "", interface=PROPERTIES), INVALID_ARGS),
    (call("Set", "ssv", NAME, "Volume", ("i", 1), interface=PROPERTIES), INVALID_ARGS),
    (call("GetAll", "s", OTHER, interface=PROPERTIES), INVALID_ARGS),
    (call("GetAll", "s", NAME, interface=PROPERTIES), ({},)),
]


def test_calls_of_other_members_objects_and_interfaces_reach_no_method(victim):
    wire = victim.wire()
    places = set(product(PATHS, [*INTERFACES, ""])) - {(METHODS_PATH, NAME)}
    calls = [call(method.name, method.signature, *arguments(method.signature), path=path, interface=interface)
             for method in METHODS for path, interface in places]
    calls += [call(name) for method in METHODS for name in (method.name.lower(), f"{method.name}x", method.name[:-1])]
    calls += [call(member.name, member.signature, *arguments(member.signature)) for member in SIGNALS]
    calls += [call("M" * 255)]
    assert set(wire.ask_all(calls)) == {UNKNOWN_METHOD}


def test_calls_of_the_standard_interfaces_reach_no_method(victim):
    assert victim.wire().ask_all([message for message, _ in STANDARD_CALLS]) == [answer for _, answer in STANDARD_CALLS]


def test_signals_of_other_objects_and_interfaces_are_never_seen(victim):
    wire = victim.wire()
    for path, interface in set(product(PATHS, INTERFACES)) - {(SIGNALS_PATH, NAME)}:
        for member in SIGNALS:
            for destination in ("", NAME):
                wire.send(signal(member.name, member.signature, *arguments(member.signature), path=path,
                                 interface=interface, destination=destination))
    wire.reach_daemon()


def test_other_signals_are_logged(victim):
    wire = victim.wire()
    names = ["M" * 255, *(name for member in SIGNALS for name in (member.name.lower(), f"{member.name}x"))]
    for name in [*names, *(member.name for member in [*METHODS, *ANNOUNCEMENTS])]:
        wire.send(signal(name, "i", 3))
        victim.expect(wire, name, "E OnSignal")
    wire.reach_daemon()


def test_nobody_passes_for_the_bus(victim):
    wire = victim.wire()
    for message in [
            signal("NameLost", "s", NAME, path=BUS_PATH, interface=BUS, destination=NAME),
            signal("NameOwnerChanged", "sss", NAME, "", wire.name, path=BUS_PATH, interface=BUS),
            signal("Disconnected", path=BUS_PATH, interface=f"{BUS}.x", destination=NAME),
            Message(RETURN, {REPLY_SERIAL: ("u", 3), DESTINATION: ("s", NAME)}),
            Message(ERROR, {REPLY_SERIAL: ("u", 3), ERROR_NAME: ("s", ACCESS_DENIED), DESTINATION: ("s", NAME)})]:
        wire.send(message.with_field(SENDER, "s", BUS))
    wire.reach_daemon()


# --- headers ---------------------------------------------------------------------------------------------------------

GET = call("GetSpeakerMute")
SET = call("SetSpeakerVolume", "i", 30)
SPEAKER_GONE = signal("SpkDisconnected", "is", 3, "box")

REFUSED_BY_THE_BUS = {  # the bus disconnects the sender of one of these
    "serial 0": replace(GET, serial=0),
    "another version": replace(GET, version=2),
    "no byte order": replace(GET, order_mark=b"x"),
    "the other byte order": replace(GET, order_mark=b"B"),
    "no type": replace(GET, kind=INVALID),
    "no path": GET.without(PATH),
    "no member": GET.without(MEMBER),
    "a signal without interface": SPEAKER_GONE.without(INTERFACE),
    "an answer to nothing": replace(GET, kind=RETURN),
    "an error without name": replace(GET, kind=ERROR).with_field(REPLY_SERIAL, "u", 3),
    "an answer to serial 0": replace(GET, kind=RETURN).with_field(REPLY_SERIAL, "u", 0),
    "a path of two slashes": GET.with_field(PATH, "o", "//"),
    "a path without slash": GET.with_field(PATH, "o", "Org"),
    "a path that is a string": GET.with_field(PATH, "s", METHODS_PATH),
    "the path of the library": GET.with_field(PATH, "o", "/org/freedesktop/DBus/Local"),
    "the interface of the library": GET.with_field(INTERFACE, "s", f"{BUS}.Local"),
    "an interface without dot": GET.with_field(INTERFACE, "s", "org"),
    "an interface of 256 characters": GET.with_field(INTERFACE, "s", "a." + "b" * 254),
    "an empty member": GET.with_field(MEMBER, "s", ""),
    "a member with a dot": GET.with_field(MEMBER, "s", "Get.Speaker"),
    "a member of 256 characters": GET.with_field(MEMBER, "s", "M" * 256),
    "a destination without dot": GET.with_field(DESTINATION, "s", "org"),
    "field 0": GET.with_field(INVALID, "s", ""),
    "descriptors that did not come": GET.with_field(DESCRIPTORS, "u", 1),
    "a signature without body": SET.with_field(SIGNATURE, "g", "ii"),
    "a body without signature": SET.without(SIGNATURE),
    "a body longer than its signature": replace(SET, body=bytes(8)),
    "a body shorter than its signature": replace(SET, body=bytes(3)),
    "no body": replace(SET, body=b""),
    "an open parenthesis": SET.with_field(SIGNATURE, "g", "(i"),
    "an empty structure": SET.with_field(SIGNATURE, "g", "i()"),
    "a pair outside of an array": SET.with_field(SIGNATURE, "g", "{sv}"),
    "an unknown type": SET.with_field(SIGNATURE, "g", "m"),
    "33 arrays": call("SetSpeakerVolume", "a" * 33 + "i", []),
    "33 structures": call("SetSpeakerVolume", "(" * 33 + "i" + ")" * 33, enclosed(33, 3, tuple)),
    "65 variants": call("SetSpeakerVolume", "v", nested(65, "i", 3)),
    "a boolean of 2": replace(call("SetSpeakerMute", "b", 1), body=b"\2\0\0\0"),
    "padding that is not 0": replace(call("SetSpeakerVolume", "yi", 3, 3), body=b"\3\1\0\0\3\0\0\0"),
    "a text that is not UTF-8": call("SpkDisconnected", "is", 3, b"\xff"),
    "a NUL in a text": call("SpkDisconnected", "is", 3, b"a\0b"),
    "a text without end": replace(call("SpkDisconnected", "s", ""), body=b"\1\0\0\0ab"),
    "a text longer than the body": replace(call("SpkDisconnected", "s", ""), body=b"\xff\xff\xff\x7f\0"),
    "an array longer than the body": replace(call("SetSpeakerVolume", "ay", b""), body=b"\1\0\0\0"),
    "an array of 64 MiB and a byte": replace(call("SetSpeakerVolume", "ay", b""), body=b"\1\0\0\4"),
    "a body of 64 MiB": replace(SET, missing=64 << 20),
    "a body of 4 GiB": replace(SET, missing=2**32 - 5),
}


def is_refused(wire, raw):
    """Returns whether the bus closes the connection for these bytes."""
    try:
        wire.send_raw(raw)
        wire.ask_bus("GetId")
    except ConnectionError:
        return True
    return False


def test_the_bus_refuses_what_is_no_message(victim):
    assert {what for what, message in REFUSED_BY_THE_BUS.items()
            if not is_refused(victim.wire(), replace(message, serial=0 if message.serial == 0 else 9).raw())} == set()


def test_unknown_flags_and_fields_change_nothing(victim):
    wire = victim.wire()
    for flags in range(0, 256, 2):  # the flag 1 asks for no reply
        assert wire.ask(replace(GET, flags=flags)) == (0, 0)
    for code, kind, value in [(11, "u", 1), (200, "s", "x" * 10000), (255, "a{sv}", []), (99, "v", nested(60, "i", 3)),
                              (REPLY_SERIAL, "u", 3), (ERROR_NAME, "s", ACCESS_DENIED), (DESCRIPTORS, "u", 0),
                              (SENDER, "s", BUS), (SENDER, "s", victim.client.name)]:
        assert wire.ask(GET.with_field(code, kind, value)) == (0, 0)
    for _ in range(137):
        victim.expect(wire, "GetSpeakerMute", "I GetVolumeMute", "I _OnGetSpeakerMute")


def test_messages_of_unknown_kinds_are_refused_by_the_bus(victim):
    wire = victim.wire()
    assert wire.ask_all([replace(GET, kind=kind) for kind in range(5, 256)]) == 251 * [ACCESS_DENIED]


# --- descriptors -----------------------------------------------------------------------------------------------------


def messages_with_and_without_handles(count):
    """Returns each method and signal as it should be, and with so many handles of descriptors as its arguments."""
    for make, member in [*((call, method) for method in METHODS), *((signal, member) for member in SIGNALS)]:
        for signature, values in [(member.signature, arguments(member.signature)), ("h" * count, range(count))]:
            yield make(member.name, signature, *values, destination=NAME).with_field(DESCRIPTORS, "u", count)


def test_descriptors_are_refused_and_closed(victim):
    wire = victim.wire()
    reader, writer = os.pipe()
    for count in range(1, 17):
        for message in messages_with_and_without_handles(count):
            serial = wire.send(message, count * [reader])
            if message.kind == CALL:
                assert wire.answer(serial) == LIMITS_EXCEEDED
                wire.send(replace(message, flags=NO_REPLY), count * [reader])
            wire.reach_daemon()
    os.close(reader)
    ends = select.poll()
    ends.register(writer, 0)  # hears of the end of the last reader
    assert ends.poll(PATIENCE * 1000)
    os.close(writer)


def test_the_bus_refuses_more_than_16_descriptors(victim):
    reader, writer = os.pipe()
    with pytest.raises(ConnectionError):
        victim.wire().ask(GET.with_field(DESCRIPTORS, "u", 17), 17 * [reader])
    os.close(reader), os.close(writer)


# --- sizes -----------------------------------------------------------------------------------------------------------

MESSAGE_MAX = 2 << 20  # in bytes


def limit_bus(scene, **limits):
    """Replaces the bus by one with these limits."""
    lines = "".join(f'<limit name="{name}">{value}</limit>\n' for name, value in limits.items())
    scene.change_bus("</busconfig>", f"{lines}</busconfig>")


def call_of_size(size, method, kind="s", order="<"):
    """Returns a call whose only argument, a text or an array of bytes, fills it up to so many bytes."""
    def filled(length):
        return call(method.name, kind, "x" * length if kind == "s" else bytes(length), order=order)
    return filled(size - len(filled(0).raw()))


def memory_of(process, field):
    """Returns a field of the process's status in bytes: VmRSS for the memory in use, VmHWM for its peak."""
    status = Path(f"/proc/{process.pid}/status").read_text()
    return int(re.search(rf"{field}:\s+(\d+) kB", status)[1]) << 10


def test_messages_up_to_the_limit_of_the_bus_change_nothing(scene):
    limit_bus(scene, max_message_size=MESSAGE_MAX)
    victim = Victim(scene)
    wire = victim.wire()
    for method in METHODS:
        for message in [call_of_size(1 << 20, method), call_of_size(MESSAGE_MAX, method),
                        call_of_size(MESSAGE_MAX, method, "ay", ">")]:
            assert wire.ask(message) == INVALID_ARGS
        assert is_refused(victim.wire(), replace(call_of_size(MESSAGE_MAX + 1, method), serial=9).raw())
    if IS_MEMORY_PLAIN:
        assert memory_of(victim.daemon, "VmHWM") < 4 * MESSAGE_MAX + MEMORY_LIMIT / 2
    victim.check()


def test_a_long_name_in_a_signal_is_logged_in_part(victim):
    wire = victim.wire()
    wire.send(signal("SpkDisconnected", "is", 3, "x" * (16 << 20)))
    wire.reach_daemon()
    logged = victim.daemon.log.wait_matching(r".*x{1000,}\.\.\.")
    assert len(logged.text) < 4096
    victim.expect(wire, "SpkDisconnected", "I " + handler_of("SpkDisconnected"), "I SetOutputRoute")


# --- floods ----------------------------------------------------------------------------------------------------------

FLOODS = {
    "getters": [replace(call(method.name), flags=NO_REPLY) for method in METHODS if method.name.startswith("Get")],
    "answers": [call("GetSpeakerMute"), call("Get", path="/" + "x" * 500),
                call("GetAll", "s", "", interface=PROPERTIES),
                *(call(method.name, "s", "") for method in METHODS)],
}


def flood(wires, messages, count):
    """Sends so many messages through each connection, as fast as the bus takes them; reads nothing."""
    serials = range(100, 100 + count)  # each call that wants a reply needs its own
    chunk = b"".join(replace(message, serial=serial).raw() for message, serial in zip(cycle(messages), serials))
    for wire in wires:
        wire.send_raw(chunk)


def flood_to_the_end(victim, wire, messages, count):
    """Floods, and waits until the daemon has read the flood, without reading anything."""
    flood([wire], messages, count)
    wire.send(signal("BudsConnected", "i", 9))
    victim.daemon.log.wait_for_request("BudsConnected", victim.start_of_log)


def assert_quiet_log(victim):
    """Checks that nothing was logged but requests, all of which the daemon has read."""
    victim.client.get_support()  # its answer comes after theirs
    assert {line.priority for line in victim.daemon.log.lines(victim.start_of_log)} <= {"I"}
    victim.forget_log()


@pytest.mark.parametrize("kind", FLOODS)
def test_a_flood_costs_little_memory_and_others_are_served_in_order_meanwhile(victim, kind):
    flooders = [victim.wire() for _ in range(4)]
    flood(flooders, FLOODS[kind], 2000 if kind == "answers" else 5000)
    wire, volumes = victim.wire(), [*range(10, 20), 30]
    assert wire.ask_all([call("SetSpeakerVolume", "i", volume) for volume in volumes]) == [(0,)] * len(volumes)
    assert list(wire.answers) == sorted(wire.answers)
    for volume in (30, *volumes):
        victim.client.expect("SpeakerVolumeChanged", TV_SUPPORT, volume)
    for flooder in flooders:
        flooder.reach_daemon()
    if IS_MEMORY_PLAIN:
        assert memory_of(victim.daemon, "VmHWM") < MEMORY_LIMIT
    assert_quiet_log(victim)


def queue_of(wire, name):
    """Returns the present and the greatest number of bytes that wait on the bus for the owner of this name."""
    numbers, = wire.ask_bus("GetConnectionStats", "s", name, interface=f"{BUS}.Debug.Stats")
    return numbers["OutgoingBytes"], numbers["PeakOutgoingBytes"]


def test_a_client_that_reads_no_answers_fills_only_its_own_queue(scene):
    limit = 2 << 20
    limit_bus(scene, max_outgoing_bytes=limit)
    victim = Victim(scene)
    flooder, observer = victim.wire(), victim.wire()
    flood_to_the_end(victim, flooder, [call("Introspect", interface=INTROSPECTABLE)], 1500)
    assert victim.client.get_mute() == (0, 0)  # its answer comes after those of the flood
    waiting, most = queue_of(observer, flooder.name)
    assert limit / 2 < waiting <= most < limit + 10000
    flooder.close()
    deadline = time.monotonic() + PATIENCE
    while queue_of(observer, NAME)[0] > 0:  # no event announces this
        assert time.monotonic() < deadline, "messages for the daemon stay on the bus"
    if IS_MEMORY_PLAIN:
        assert memory_of(victim.daemon, "VmHWM") < MEMORY_LIMIT
    victim.forget_log()
    victim.check()


def test_answers_that_the_bus_does_not_take_wait_until_it_does(scene):
    """A bus takes nothing from the daemon while too many bytes of it wait for clients that do not read."""
    limit_bus(scene, max_incoming_bytes=1 << 20)
    victim = Victim(scene)
    flooder = victim.wire()
    flood_to_the_end(victim, flooder, [call("Introspect", interface=INTROSPECTABLE)], 1500)
    if IS_MEMORY_PLAIN:
        assert memory_of(victim.daemon, "VmHWM") < MEMORY_LIMIT
    flooder.close()
    victim.client.get_mute()
    victim.forget_log()
    victim.check()


# --- half connections ------------------------------------------------------------------------------------------------


def test_half_connections_hold_nobody_up(victim):
    for sent in (b"", b"\0", b"\0AUTH EXTERNAL", b"\0AUTH EXTERNAL 30\r\nNEGOTIATE_UNIX_FD\r\n", b"x" * 1000,
                 b"\0BEGIN\r\n" + GET.raw()):
        victim.half_wire().send_raw(sent)
    without_hello = victim.half_wire()
    without_hello.authenticate()
    raw = replace(call("SetSpeakerVolume", "i", 77), serial=9).raw()
    for length in range(0, len(raw), 8):
        victim.wire().send_raw(raw[:length])
    reads_nothing = victim.wire()
    flood([reads_nothing], [GET, call("Introspect", interface=INTROSPECTABLE)], 100)
    assert victim.client.get_volume() == (30, 0)
    with pytest.raises(ConnectionError):
        without_hello.ask(GET)
    reads_nothing.reach_daemon()
    assert_quiet_log(victim)


def test_half_a_message_is_served_when_the_rest_comes(victim):
    wire = victim.wire()
    raw = replace(call("SetSpeakerVolume", "i", 20), serial=9).raw()
    for byte in raw[:-1]:
        wire.send_raw(bytes([byte]))
    assert victim.client.get_volume() == (30, 0)
    wire.send_raw(raw[-1:])
    assert wire.answer(9) == (0,)
    assert victim.client.get_volume() == (20, 0)
    assert victim.client.set_volume(30) == 0
    victim.forget_log()


def test_clients_that_leave_before_their_answer_leave_nothing_behind(victim):
    raw = replace(call("SetSpeakerVolume", "i", 77), serial=9).raw()
    for length in range(8, len(raw), 8):
        wire = victim.wire()
        wire.send(call("Introspect", interface=INTROSPECTABLE))
        wire.send(GET)
        wire.send_raw(raw[:length])
        wire.close()
        victim.client.wait_until_gone(wire.name)
    assert_quiet_log(victim)


# --- what ends the daemon --------------------------------------------------------------------------------------------

TOO_DEEP = call("GetSpeakerVolume", "v", nested(64, "ai", [3]), serial=9)


def test_a_message_that_the_library_cannot_read_ends_the_daemon_and_the_next_one_serves(scene):
    daemon = scene.start(G_DEBUG="")  # GLib warns of the message
    daemon.may_be_gone = True
    wire = Wire(scene.bus.address)
    scene.callback(wire.close)
    wire.authenticate()
    wire.hello()
    assert wire.ask(TOO_DEEP) == f"{BUS}.Error.NoReply"
    assert daemon.wait() == -signals.SIGTERM
    Victim(scene).check()


def test_dbus_broker_refuses_a_message_that_the_library_cannot_read(scene):
    scene.replace_bus(Broker, ROOT / "scripts/private-bus.conf", LD_PRELOAD=os.environ["BUS_SURROUNDINGS"],
                      KAVREL_TEST_PASSWD="/etc/passwd")
    victim = Victim(scene)
    assert is_refused(victim.wire(), TOO_DEEP.raw())
    victim.check()

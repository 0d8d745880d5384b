# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The programs of the storm, each a process of its own:

storm.py change FILE SECONDS TEXT...   writes one text after the other, ends with the first, prints how many it wrote
storm.py call SEED SECONDS             calls every method and emits every signal in turn, prints how many calls it made
"""
import os
import random
import sys
import time
from itertools import cycle

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

NAME = "org.olvane.kavrel"
RATE = 100  # changes a second; a writer that was held up catches up
PATIENCE_MS = 60000


def write_in_place(file, text):
    with open(file, "w") as opened:
        opened.write(f"{text}\n")


def move_into_place(file, text):
    temporary = os.path.join(os.path.dirname(file), f".{os.path.basename(file)}.storm")
    write_in_place(temporary, text)
    os.rename(temporary, file)


def change(file, seconds, *texts):
    start = time.monotonic()
    written = 0
    for text, write in zip(cycle(texts), cycle([write_in_place, write_in_place, move_into_place])):
        write(file, text)
        written += 1
        wait = start + written / RATE - time.monotonic()
        if wait > 0:
            time.sleep(wait)
        if time.monotonic() - start >= float(seconds) and written >= RATE * float(seconds) / 2:
            break
    move_into_place(file, texts[0])
    return written


def requests(dice):
    """What clients ask for, each with fitting arguments: (method, types of the arguments, types of the answer, ...)"""
    path = dice.choice([0, 1, 2, 3, 3, 3])
    gain = dice.randint(-5, 110)
    return [
        ("GetSpeakerSupportType", "()", "(ii)"),
        ("SetSpeakerVolume", "(i)", "(i)", dice.randint(-5, 49)),
        ("GetSpeakerVolume", "()", "(ii)"),
        ("SetSpeakerMute", "(b)", "(i)", dice.choice([True, False])),
        ("GetSpeakerMute", "()", "(ii)"),
        ("ApplyPlayerFadeIn", "(i)", "(i)", path),
        ("ApplyUnmuteFadeIn", "(i)", "(i)", path),
        ("ResetPlayerGain", "(i)", "(i)", path),
        ("ApplyGainOnMute", "(ii)", "(i)", path, gain),
    ]


def announcements(dice):
    return [
        ("BudsConnected", "(i)", 1),
        ("BudsDisconnected", "(i)", 1),
        ("SpkDisconnected", "(is)", 3, "box"),
        ("ApplyPulseAudioGain", "(ii)", dice.randint(0, 100), dice.choice([0, 50, 500])),
    ]


def call(seed, seconds):
    dice = random.Random(int(seed))
    bus = Gio.DBusConnection.new_for_address_sync(
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"],
        Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
    end = time.monotonic() + float(seconds)
    calls = 0
    while time.monotonic() < end:
        for member, types, *arguments in announcements(dice):
            bus.emit_signal(None, "/Org/Olvane/Kavrel", NAME, member, GLib.Variant(types, arguments))
        for method, types, answer, *arguments in dice.choices(requests(dice), k=40) + requests(dice):
            reply = bus.call_sync(NAME, "/Org/Olvane/KavrelInternal", NAME, method, GLib.Variant(types, arguments),
                                  None, Gio.DBusCallFlags.NO_AUTO_START, PATIENCE_MS, None)
            assert reply.get_type_string() == answer, f"{method} answered {reply}"
            calls += 1
    return calls


if __name__ == "__main__":
    print({"change": change, "call": call}[sys.argv[1]](*sys.argv[2:]))

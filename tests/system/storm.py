# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The programs of the storm, each for its own process:

storm.py change FILE SECONDS TEXT...   writes the texts in turn, the first one last; prints how many it wrote
storm.py call SEED SECONDS             calls every method and emits every signal in turn; prints how many calls it made
"""
import os
import random
import sys
import time
from itertools import cycle

from interface import METHODS_PATH, NAME, SIGNALS_PATH, connect, read_methods
from gi.repository import Gio, GLib  # after interface, which selects their version

METHODS = read_methods()
RATE = 100  # changes per second; a delayed writer catches up
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


def random_arguments(dice, method):
    """Returns random arguments for the method, within their ranges or just outside."""
    values = {
        "volume": dice.randint(-5, 49),
        "message": dice.choice([True, False]),
        "audioPath": dice.choice([0, 1, 2, 3, 3, 3]),
        "gain": dice.randint(-5, 110),
    }
    return GLib.Variant(f"({method.signature})", [values[name] for name in method.arguments])


def random_signals(dice):
    """Returns every signal that the daemon listens to, with random arguments: [(member, types, *arguments)]."""
    return [
        ("BudsConnected", "(i)", 1),
        ("BudsDisconnected", "(i)", 1),
        ("SpkDisconnected", "(is)", 3, "box"),
        ("ApplyPulseAudioGain", "(ii)", dice.randint(0, 100), dice.choice([0, 50, 500])),
    ]


def call(seed, seconds):
    dice = random.Random(int(seed))
    bus = connect(os.environ["DBUS_SYSTEM_BUS_ADDRESS"])
    end = time.monotonic() + float(seconds)
    calls = 0
    while time.monotonic() < end:
        for member, types, *arguments in random_signals(dice):
            bus.emit_signal(None, SIGNALS_PATH, NAME, member, GLib.Variant(types, arguments))
        for method in dice.choices(METHODS, k=40) + METHODS:
            reply = bus.call_sync(NAME, METHODS_PATH, NAME, method.name, random_arguments(dice, method), None,
                                  Gio.DBusCallFlags.NO_AUTO_START, PATIENCE_MS, None)
            assert reply.get_type_string() == method.reply, f"{method.name} answered {reply}"
            calls += 1
    return calls


if __name__ == "__main__":
    print({"change": change, "call": call}[sys.argv[1]](*sys.argv[2:]))

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A client of the soak: soak.py ADDRESS SEED SECONDS

Calls every method and emits every signal in turn, through ends of the daemon and of the bus. Prints a JSON object: the
numbers of answers, of calls without one, and of connections, and what was wrong.
"""
import json
import random
import sys
import time

from gi.repository import Gio, GLib
from interface import METHODS_PATH, NAME, SIGNALS_PATH, connect
from storm import METHODS, random_arguments, random_signals

CALL_MS = 5000  # a call to a daemon that was killed may wait so long


class Client:
    def __init__(self, address, seed):
        self.address, self.dice = address, random.Random(seed)
        self.counts = {"answers": 0, "unanswered": 0, "connections": 0, "wrong": []}
        self.bus = None

    def run(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            try:
                self._turn()
            except GLib.Error as error:  # the daemon or the bus has ended
                self.counts["unanswered"] += 1
                if self.bus is not None and self.bus.is_closed():
                    self.bus = None
                if not any(text in error.message for text in EXPECTED):
                    self.counts["wrong"].append(error.message)
                time.sleep(0.02)
        return self.counts

    def _turn(self):
        if self.bus is None:
            self.bus = connect(self.address)
            self.counts["connections"] += 1
        for member, types, *arguments in random_signals(self.dice):
            self.bus.emit_signal(None, SIGNALS_PATH, NAME, member, GLib.Variant(types, arguments))
        for method in METHODS:
            reply = self.bus.call_sync(NAME, METHODS_PATH, NAME, method.name, random_arguments(self.dice, method), None,
                                       Gio.DBusCallFlags.NO_AUTO_START, CALL_MS, None)
            self.counts["answers"] += 1
            if reply.get_type_string() != method.reply:
                self.counts["wrong"].append(f"{method.name} answered {reply}")


# The messages of errors that the end of the daemon or of the bus explains.
EXPECTED = ("ServiceUnknown", "NameHasNoOwner", "NoReply", "Could not connect", "connection is closed", "Disconnected",
            "UnknownMethod", "Timeout was reached", "Broken pipe", "Connection reset", "hung up", "Unexpected lack of content",
            "No such file", "Connection refused")

if __name__ == "__main__":
    print(json.dumps(Client(sys.argv[1], sys.argv[2]).run(float(sys.argv[3]))))

#!/usr/bin/python3
# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Prints a volume bar at the start and on each change. README.md says how each example works."""
import contextlib
import time

from gi.repository import Gio, GLib

NAME = "org.olvane.kavrel"  # the daemon's name on the bus, and that of its interface
OBJECT = "/Org/Olvane/KavrelInternal"
FAILED = -1
WORDS = {FAILED: "it failed, or the daemon was busy", -2: "an argument was invalid", -4: "the output does not support it"}
READS_VOLUME = 1  # the bit of the support word
PAUSES = [0.05, 0.1, 0.2, 0.4, 0.8]  # seconds before each further question to a busy daemon
SWITCH_MS = 500  # the time in which another program switches the output that the daemon requests


class VolumeBar:
    def __init__(self, bus):
        self.bus = bus
        self.is_present = False  # whether the daemon is on the bus
        self.support = None  # the support word of the output in use, None if unknown
        self.volume, self.status, self.mute = 0, FAILED, False
        self.shown = None
        bus.signal_subscribe(NAME, NAME, None, None, None, Gio.DBusSignalFlags.NONE, self.on_signal)
        Gio.bus_watch_name_on_connection(bus, NAME, Gio.BusNameWatcherFlags.NONE, self.on_appeared, self.on_vanished)

    def on_appeared(self, *_):
        self.is_present = True
        self.refresh()

    def on_vanished(self, *_):
        self.is_present = False
        self.show("kavreld is not on the bus")

    def on_signal(self, _bus, _sender, _path, _interface, name, body):
        if name == "SpeakerVolumeChanged":
            support, self.volume = body.unpack()
        elif name == "SpeakerMuteChanged":
            support, self.mute = body.unpack()
        else:
            if name == "SpeakerChangeRequest":
                GLib.timeout_add(SWITCH_MS, self.refresh)
            return
        if support == self.support:
            self.show(self.line())
        else:  # another output may be in use: ask for its mute, too
            self.refresh()

    def refresh(self):
        """Asks the daemon for everything, and shows it."""
        if not self.is_present:
            return
        self.support = None
        self.volume, self.status = self.ask("GetSpeakerVolume")
        if self.status == 0:
            self.mute = self.ask("GetSpeakerMute")[0] == 1
            support, status = self.ask("GetSpeakerSupportType")
            self.support = support if status == 0 else None
        self.show(self.line())

    def ask(self, getter):
        """Returns a value and its status. Asks a busy daemon again, a few times."""
        for pause in [*PAUSES, None]:
            try:
                value, status = self.bus.call_sync(NAME, OBJECT, NAME, getter, None, None,
                                                   Gio.DBusCallFlags.NO_AUTO_START, 5000, None).unpack()
            except GLib.Error:  # LimitsExceeded, or the daemon has gone
                value, status = 0, FAILED
            if status != FAILED or pause is None:
                return value, status
            time.sleep(pause)

    def line(self):
        if self.status != 0:
            return f"volume unknown: {WORDS.get(self.status, 'the TV refuses it')} ({self.status})"
        if self.support is not None and not self.support & READS_VOLUME:
            return "this output has no volume"
        if self.volume < 0:
            return "volume unknown: the output has published none"
        return f"[{'#' * min(self.volume // 5, 20):.<20}] {self.volume:3}%{' muted' if self.mute else ''}"

    def show(self, line):
        if line != self.shown:
            print(line, flush=True)
            self.shown = line


bar = VolumeBar(Gio.bus_get_sync(Gio.BusType.SYSTEM, None))
with contextlib.suppress(KeyboardInterrupt):
    GLib.MainLoop().run()

# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A program in the daemon's place, for clients that meet a busy or failing daemon."""
import threading

from gi.repository import Gio, GLib

from harness import METHODS_PATH, NAME


class Impostor:
    """Owns the daemon's name. It has a list of answers for each method, and answers no other call."""

    TOO_MUCH = "org.freedesktop.DBus.Error.LimitsExceeded"

    def __init__(self, client, **answers):
        self.connection = client.connection
        self.called = threading.Event()
        self.answers = answers
        self.calls = []
        self.connection.add_filter(self._filter)
        client._call_bus("RequestName", "su", NAME, 0)

    def _filter(self, _connection, message, incoming, *_):
        if not incoming or message.get_message_type() != Gio.DBusMessageType.METHOD_CALL:
            return message
        self.called.set()
        method = message.get_member()
        self.calls.append(method)
        if self.answers.get(method):
            self.connection.send_message(self._answer(message, self.answers[method].pop(0)),
                                         Gio.DBusSendMessageFlags.NONE)
        return None

    def _answer(self, call, answer):
        if answer == self.TOO_MUCH:
            return call.new_method_error_literal(self.TOO_MUCH, "Too many wait")
        reply = call.new_method_reply()
        reply.set_body(GLib.Variant(f"({'i' * len(answer)})", answer))
        return reply

    def emit(self, signal, types, *values):
        self.connection.emit_signal(None, METHODS_PATH, NAME, signal, GLib.Variant(types, values))

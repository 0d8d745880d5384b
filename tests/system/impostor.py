# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""A program in the daemon's place, for clients that meet a busy or failing daemon."""
import threading

from gi.repository import Gio, GLib

from harness import METHODS_PATH, NAME, PATIENCE


class Impostor:
    """Owns the daemon's name. It has a list of answers for each method, and answers no other call."""

    TOO_MUCH = "org.freedesktop.DBus.Error.LimitsExceeded"

    def __init__(self, client, **answers):
        self.connection = client.connection
        self.called = threading.Event()
        self.answers = answers
        self.calls = []
        self.arguments = []  # for each item of calls: the arguments of the call
        self.starting = []  # calls that let the bus start the daemon
        self.waiting = {}  # {method: the call that has no answer yet}
        self.news = threading.Condition()
        self.connection.add_filter(self._filter)
        client._call_bus("RequestName", "su", NAME, 0)

    def _filter(self, _connection, message, incoming, *_):
        if not incoming or message.get_message_type() != Gio.DBusMessageType.METHOD_CALL:
            return message
        self.called.set()
        method = message.get_member()
        with self.news:
            self.calls.append(method)
            self.arguments.append(message.get_body().unpack() if message.get_body() else ())
            if not message.get_flags() & Gio.DBusMessageFlags.NO_AUTO_START:
                self.starting.append(method)
            if self.answers.get(method):
                self._send(message, self.answers[method].pop(0))
            else:
                self.waiting[method] = message
            self.news.notify_all()
        return None

    def answer(self, method, answer):
        """Waits for a call of the method that has no answer, and answers it."""
        with self.news:
            assert self.news.wait_for(lambda: method in self.waiting, PATIENCE), f"{method} is not called"
            self._send(self.waiting.pop(method), answer)

    def _send(self, call, answer):
        self.connection.send_message(self._answer(call, answer), Gio.DBusSendMessageFlags.NONE)

    def _answer(self, call, answer):
        if isinstance(answer, str):
            return call.new_method_error_literal(answer, "Too many wait")
        reply = call.new_method_reply()
        reply.set_body(GLib.Variant(f"({'i' * len(answer)})", answer))
        return reply

    def emit(self, signal, types, *values):
        self.connection.emit_signal(None, METHODS_PATH, NAME, signal, GLib.Variant(types, values))

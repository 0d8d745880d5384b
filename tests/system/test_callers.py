# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Tests the caller tracker: the daemon looks up the program of each caller when idle, and remembers fifty of them."""
import re
import signal
import subprocess
import sys

import pytest

from harness import METHODS_PATH, NAME


def lookups(log):
    return [text for text in log.texts() if re.fullmatch(r"Called by \[.*\] size:\d+", text)]


def test_the_first_call_is_looked_up_after_it_was_served_and_the_second_names_its_caller_at_once(client, log):
    who = f"{client.name}/{client.program()}"
    client.get_support()
    first = log.wait(f"Called by [{who}] size:1")
    assert (first.priority, first.file, first.function) == ("I", "KVDbusSender.cpp", "UpdateSenderLists")
    served = log.find("Return Current support type(0xffff), ret:0")
    assert served.number < first.number

    before = log.end()
    client.get_support()
    second = log.find(f"Called by [{who}]", before)
    assert (second.priority, second.file, second.function) == ("I", "KVDbusSender.cpp", "Print")
    assert log.find("Return Current support type(0xffff), ret:0", before).number > second.number
    assert len(lookups(log)) == 1


def test_signals_are_tracked_like_calls(client, log):
    client.emit("BudsConnected", "i", 1)
    log.wait(f"Called by [{client.name}/{client.program()}] size:1")
    client.emit("BudsConnected", "i", 2)
    log.wait(f"Called by [{client.name}/{client.program()}]")


def test_each_caller_is_counted_once(scene, daemon, log):
    clients = [scene.client() for _ in range(3)]
    for size, client in enumerate(clients, start=1):
        client.get_support()
        log.wait(f"Called by [{client.name}/{client.program()}] size:{size}")
        client.get_support()
    assert len(lookups(log)) == 3


def test_after_fifty_callers_the_next_one_starts_anew(scene, daemon, log):
    clients = [scene.client() for _ in range(51)]
    for number, client in enumerate(clients):
        client.get_support()
        log.wait(f"Called by [{client.name}/{client.program()}] size:{number % 50 + 1}")
    # The daemon has forgotten the first caller together with all others.
    before = log.end()
    clients[0].get_support()
    log.wait(f"Called by [{clients[0].name}/{clients[0].program()}] size:2", before)


def test_a_caller_that_is_gone_by_then_has_no_name(scene, daemon, log):
    client, other = scene.client(), scene.client()
    daemon.signal(signal.SIGSTOP)  # so that it reads the call after the caller has gone
    client.send("GetSpeakerSupportType")
    client.flush()
    client.close()
    other.wait_until_gone(client.name)
    daemon.signal(signal.SIGCONT)
    log.wait(f"Called by [{client.name}/] size:1")


CALLER = f"""
import gi, os, signal
gi.require_version("Gio", "2.0")
from gi.repository import Gio
flags = Gio.DBusConnectionFlags
bus = Gio.DBusConnection.new_for_address_sync(os.environ["DBUS_SYSTEM_BUS_ADDRESS"],
    flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
bus.call_sync("{NAME}", "{METHODS_PATH}", "{NAME}", "GetSpeakerSupportType", None, None, 0, -1, None)
print(bus.get_unique_name(), flush=True)
signal.pause()
"""


@pytest.fixture
def call_as(scene, daemon):
    """Calls kavrel from a new process with this first argument, which stays; returns the process's unique name."""
    callers = []

    def call(first_argument):
        caller = subprocess.Popen([first_argument, "-c", CALLER], executable=sys.executable, text=True,
                                  env=scene.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        callers.append(caller)
        return caller.stdout.readline().strip()

    yield call
    for caller in callers:
        caller.kill()
        caller.wait()
        caller.stdout.close()


@pytest.mark.parametrize("first_argument, program", [
    ("/usr/bin/media-player", "media-player"),
    ("media-player", "media-player"),
    ("/opt/my tools/player", "my"),
    ("/opt/", ""),
    (f"/opt/{'x' * 300}", "x" * 250),
])
def test_a_program_is_named_by_its_first_argument_up_to_a_blank_and_after_the_last_slash(
        call_as, log, first_argument, program):
    name = call_as(first_argument)
    log.wait(f"Called by [{name}/{program}] size:1")
